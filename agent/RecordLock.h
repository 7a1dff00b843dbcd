// Agents that change the same node record, or its session, take turns.
#pragma once

#include "agent/Portal.h"
#include "standalone/znlib/Descriptor.h"

#include <string>

// Held from construction to destruction; a process that ends in any way holds none. Where another agent
// has it, waits, and says so on a terminal.
class RecordLock
{
public:
    // On the record of `iqn` at `portal`, or, without an IQN, on all records of the portal.
    RecordLock(const PortalMatcher& portal, const std::string& iqn);

    // Why there is none; empty where it is held.
    const std::string& Trouble() const { return m_trouble; }

private:
    znlib::Descriptor m_portal;
    znlib::Descriptor m_record;
    std::string m_trouble;
};
