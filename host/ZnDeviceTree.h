// The host's device tree: every block device of the machine with its parent and its children.
//
// Thread-safety: any number of threads may look devices up at once; what they get is their own.
#pragma once

#include "CHxError.h"
#include "SP.h"

#include <list>
#include <string>

// A block device. Owned by the tree, shared through SP.
class ZnDevice : public SPEnabled
{
public:
    ZnDevice(std::string name, std::list<SP<ZnDevice>> children);
    ~ZnDevice() override;

    // The device's path, such as "/dev/sdb" or "/dev/mapper/mpatha". Valid while the device is held.
    virtual const std::string& getName();

    // The physical disks beneath a stacked device, in the tree's order; empty for a device that is not
    // stacked on others.
    std::list<SP<ZnDevice>> getChildren();

private:
    std::string m_name;
    std::list<SP<ZnDevice>> m_children;
};

class ZnDeviceTree
{
public:
    // The device whose path is `path`, or an empty pointer when the tree has none. A tree may leave the
    // reason in `error`; the stand-alone one does not.
    static SP<ZnDevice> getDevice(const char* path, CHxError* error);

    // The whole device that holds the one whose path is `path` (a partition's disk, a whole device
    // itself), or an empty pointer. `error` as above.
    static SP<ZnDevice> getParentDevice(const char* path, CHxError* error);
};
