// The host's device tree: every block device of the machine with its parent and its children.
//
// Thread-safety: any number of threads may look devices up at once. Each look-up returns objects of its
// own.
#pragma once

#include "CHxError.h"
#include "SP.h"

#include <list>
#include <string>

// A block device, shared through SP.
class ZnDevice : public SPEnabled
{
public:
    ZnDevice(std::string name, std::list<SP<ZnDevice>> children);
    ~ZnDevice() override;

    // The device's path, such as "/dev/sdb" or "/dev/mapper/mpatha". Valid as long as the device is.
    virtual const std::string& getName();

    // The physical disks beneath a stacked device, in the tree's order; empty for a device that is not
    // stacked.
    std::list<SP<ZnDevice>> getChildren();

private:
    std::string m_name;
    std::list<SP<ZnDevice>> m_children;
};

class ZnDeviceTree
{
public:
    // Returns the device with this path, or an empty pointer if the tree has none. A tree may set
    // `error` to the reason; the stand-alone host logs it instead.
    static SP<ZnDevice> getDevice(const char* path, CHxError* error);

    // Returns the whole device that contains the one with this path: a partition's disk, or a whole
    // device itself. Returns an empty pointer if there is none. `error` as above.
    static SP<ZnDevice> getParentDevice(const char* path, CHxError* error);
};
