#include "host/ZnDeviceTree.h"

#include "host/EvDebug.h"
#include "standalone/zndevicetree/SysfsTree.h"

#include <stdexcept>
#include <utility>

namespace
{

// Hosts recognise a failure by an empty pointer; the log has the reason.
SP<ZnDevice> LookUp(SP<ZnDevice> (znhost::SysfsTree::*find)(const char*) const, const char* path)
try
{
    return (znhost::SysfsTree("/sys", "/dev").*find)(path);
}
catch (const std::runtime_error& error)
{
    EvEvent().DebugLvl("ZnDeviceTree", -1, "%s", error.what());
    return {};
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
    return LookUp(&znhost::SysfsTree::FindDevice, path);
}

SP<ZnDevice> ZnDeviceTree::getParentDevice(const char* path, CHxError* /*error*/)
{
    return LookUp(&znhost::SysfsTree::FindWholeDevice, path);
}
