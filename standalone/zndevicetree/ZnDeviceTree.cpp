#include "host/ZnDeviceTree.h"

#include "standalone/zndevicetree/SysfsTree.h"

#include <utility>

namespace
{

znhost::SysfsTree ThisMachine()
{
    return {"/sys", "/dev"};
}

} // namespace

ZnDevice::ZnDevice(std::string name, std::list<SP<ZnDevice>> children)
    : m_name(std::move(name)), m_children(std::move(children))
{
}

ZnDevice::~ZnDevice() = default;

const std::string& ZnDevice::getName()
{
    return m_name;
}

std::list<SP<ZnDevice>> ZnDevice::getChildren()
{
    return m_children;
}

// The error object is not used: only its own library can set a code.
SP<ZnDevice> ZnDeviceTree::getDevice(const char* path, CHxError* /*error*/)
{
    return ThisMachine().FindDevice(path);
}

SP<ZnDevice> ZnDeviceTree::getParentDevice(const char* path, CHxError* /*error*/)
{
    return ThisMachine().FindWholeDevice(path);
}
