#include "cli/kernel/BlockDevice.h"

#include "standalone/helpers/Descriptor.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

namespace cli
{

namespace
{

// O_NONBLOCK: opening a drive without a medium must not fail.
znlib::Descriptor OpenDevice(const std::string& device, int furtherFlags)
{
    return znlib::Descriptor(open(device.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | furtherFlags));
}

std::string LastError()
{
    return std::generic_category().message(errno);
}

} // namespace

UseAnswer AskUse(const std::string& device)
{
    if (OpenDevice(device, O_EXCL).IsOpen())
        return {Use::None};
    if (errno == EBUSY)
        return {Use::Exclusive};
    return {Use::Unknown, LastError()};
}

LoopAnswer AskLoop(const std::string& device)
{
    const znlib::Descriptor loop = OpenDevice(device, 0);
    loop_info64 info{};
    if (!loop.IsOpen())
        return {"", LastError()};
    if (ioctl(loop.Get(), LOOP_GET_STATUS64, &info) != 0)
        return errno == ENXIO ? LoopAnswer{} : LoopAnswer{"", LastError()}; // ENXIO: it was detached
    const dev_t beneath = info.lo_rdevice;
    if (beneath == 0)
        return {};
    return {std::to_string(major(beneath)) + ':' + std::to_string(minor(beneath))};
}

} // namespace cli
