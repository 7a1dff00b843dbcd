// System calls on file descriptors: closed with the object that holds them, and not cut short by a
// signal.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace znlib
{

class Descriptor
{
public:
    Descriptor() = default;
    // Takes over `number`, the result of an open, a pipe or the like; below 0 is no descriptor.
    explicit Descriptor(int number) : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~Descriptor() { Close(); }

    void Close()
    {
        if (IsOpen())
            ::close(std::exchange(m_number, -1));
    }
    bool IsOpen() const { return m_number >= 0; }
    // The number, or a negative one, which poll passes over.
    int Get() const { return m_number; }

private:
    int m_number = -1;
};

// The result of `call`, a system call, which is made again as long as a signal interrupts it.
template <class Call>
auto Uninterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

// `result` of the system call just made. Throws std::system_error, "WHAT: REASON", if it failed.
template <class Result>
Result Checked(Result result, const char* what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

} // namespace znlib
