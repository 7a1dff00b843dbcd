// Locks among the `zniscsi` of this machine that change node records or sessions at the same time.
//
// The locks are files below /run/zniscsi, which only root can make. The kernel releases a lock when its
// holder ends, however it ends. Only root takes locks: iscsiadm serves nobody else.
#pragma once

#include "cli/Request.h"
#include "standalone/helpers/Descriptor.h"

#include <string>

namespace cli
{

// Held from construction to destruction. The constructor waits while another `zniscsi` holds it, shows
// that in the status line, and logs it. It throws Failure if the time limit of the request ends before.
// If there can be no lock it prints a warning: the command goes on without it.
class RecordLock
{
public:
    // For log-on, log-off and deletion of the record: excludes these for the same target.
    static RecordLock OfTarget(const Request& request);

    // A discovery resets the CHAP settings of every record that the array answers with, through
    // whatever portal. So it excludes other discoveries and all log-ons with CHAP; log-ons exclude each
    // other by target only.
    static RecordLock OfDiscovery(const Request& request);
    static RecordLock AgainstDiscovery(const Request& request);

private:
    RecordLock(const Request& request, const std::string& name, int operation, const std::string& what);

    znlib::Descriptor m_file;
};

} // namespace cli
