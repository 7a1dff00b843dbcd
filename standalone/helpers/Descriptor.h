// Helpers for system calls: an owned file descriptor, retry after a signal, errors as exceptions.
#pragma once

#include <cerrno>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace znlib
{

class Descriptor
{
public:
    Descriptor() = default;
    // Takes ownership of `number`, the result of open, pipe etc. A negative number is no descriptor.
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
    // The number, or -1, which poll ignores.
    int Get() const { return m_number; }

private:
    int m_number = -1;
};

// Repeats the system call `call` while a signal interrupts it, and returns its result.
template <class Call>
auto Uninterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

// Returns `result`, or throws std::system_error with `what` and errno if it is negative.
template <class Result>
Result Checked(Result result, const char* what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

} // namespace znlib
