#include "standalone/helpers/TextFile.h"

#include "standalone/helpers/Descriptor.h"

#include <array>
#include <cerrno>
#include <stdexcept>

#include <fcntl.h>

namespace
{

[[noreturn]] void Throw(const std::string& file, const std::string& reason)
{
    throw std::runtime_error("cannot read " + file + ": " + reason);
}

// Returns nothing if errno means that there is no such file. Throws otherwise.
std::nullopt_t NothingOrThrow(const std::string& file)
{
    // ENODEV: sysfs removed the device after the attribute was opened. EINVAL: device-mapper does that
    // now.
    if (errno != ENOENT && errno != ENOTDIR && errno != ENODEV && errno != EINVAL)
        Throw(file, std::generic_category().message(errno));
    return std::nullopt;
}

} // namespace

std::optional<std::string> znlib::ReadTextFile(const std::string& file, std::size_t maxBytes)
{
    // O_NONBLOCK: opening a FIFO without a writer must not block.
    const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!descriptor.IsOpen())
        return NothingOrThrow(file);
    std::array<char, 4096> chunk{};
    for (std::string text;;)
    {
        const ssize_t count =
            Uninterrupted([&] { return read(descriptor.Get(), chunk.data(), chunk.size()); });
        if (count < 0)
            return NothingOrThrow(file);
        if (count == 0)
            return text;
        text.append(chunk.data(), static_cast<std::size_t>(count));
        if (text.size() > maxBytes)
            Throw(file, "longer than " + std::to_string(maxBytes) + " bytes");
    }
}
