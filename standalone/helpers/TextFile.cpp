#include "standalone/helpers/TextFile.h"

#include "standalone/helpers/Descriptor.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>

namespace
{

// Returns nothing if errno means that there is no such file. Throws otherwise.
std::nullopt_t NothingOrThrow(const std::string& file)
{
    // ENODEV: sysfs removed the device after the attribute was opened.
    if (errno != ENOENT && errno != ENOTDIR && errno != ENODEV)
        throw std::system_error(errno, std::generic_category(), "cannot read " + file);
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
            throw std::runtime_error("cannot read " + file + ": longer than " +
                                     std::to_string(maxBytes) + " bytes");
    }
}

std::optional<std::string> znlib::ReadAttributeLine(const std::string& attribute)
try
{
    const std::optional<std::string> text = ReadTextFile(attribute);
    return text ? std::optional(text->substr(0, text->find('\n'))) : std::nullopt;
}
catch (const std::system_error& error)
{
    if (error.code() != std::errc::invalid_argument) // device-mapper is removing the device
        throw;
    return std::nullopt;
}
