// A lock among agents that change the same node record or its session.
#pragma once

#include "agent/Portal.h"
#include "standalone/znlib/Descriptor.h"

#include <string>

// Held from construction to destruction. The kernel releases it if the process is killed. The
// constructor waits while another agent holds it, and shows that in a status line.
class RecordLock
{
public:
    // Locks the record of `iqn` at `portal`, or all records of the portal if `iqn` is empty.
    RecordLock(const PortalMatcher& portal, const std::string& iqn);

    // Why the lock could not be taken; empty if it is held.
    const std::string& Error() const { return m_error; }

private:
    znlib::Descriptor m_portal;
    znlib::Descriptor m_record;
    std::string m_error;
};
