#include "cli/kernel/BlockDevice.h"

#include "cli/kernel/Sysfs.h"
#include "standalone/helpers/Descriptor.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
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

std::string FormatNumber(dev_t number)
{
    return std::to_string(major(number)) + ':' + std::to_string(minor(number));
}

std::string LastError()
{
    return std::generic_category().message(errno);
}

} // namespace

UseAnswer AskUse(const std::string& name)
{
    const std::string node = DevicePath(name);
    struct stat status = {};
    if (stat(node.c_str(), &status) != 0)
        return {Use::Unknown, LastError() + " (" + node + ')'};
    // In a /dev of its own, for example that of a container. (A plain file counts as the node: a /dev
    // without devices has such ones.)
    const std::string number = FormatNumber(status.st_rdev);
    if (S_ISBLK(status.st_mode) && ReadAttribute("/sys/class/block/" + name + "/dev") != number)
        return {Use::Unknown, node + " leads to another device, " + number};
    if (OpenDevice(node, O_EXCL).IsOpen())
        return {Use::None};
    if (errno == EBUSY)
        return {Use::Exclusive};
    return {Use::Unknown, LastError() + " (" + node + ')'};
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
    return {FormatNumber(beneath)};
}

} // namespace cli
