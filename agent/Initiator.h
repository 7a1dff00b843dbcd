// This machine's initiator: an instance of the library, held as any host holds one, and a report of the
// administration tool that the library does not hand on.
#pragma once

#include "agent/Portal.h"
#include "redhat/ZnISCSILinuxRedhat.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class Initiator
{
public:
    // Throws a Failure on a host that the library does not serve, or cannot tell.
    explicit Initiator(unsigned long long jobId);

    // The operations, through the dispatch table.
    ZnISCSI* operator->() const { return m_instance.get(); }

    // The members that are not part of the interface. The factory makes instances of no other class.
    ZnISCSILinuxRedhat& Concrete() const { return static_cast<ZnISCSILinuxRedhat&>(*m_instance); }

private:
    // An instance owns nothing but its storage.
    struct FreeStorage
    {
        void operator()(ZnISCSI* instance) const { ::operator delete(instance); }
    };

    std::unique_ptr<ZnISCSI, FreeStorage> m_instance;
};

struct NodeRecord
{
    Portal portal;
    std::string iqn;
};

// Lines that are no record are passed over.
std::vector<NodeRecord> ParseNodeRecords(const std::string& report);

// Runs the tool. No value, and the reason in the log, when it does not report; no records where it says
// that there are none.
std::optional<std::vector<NodeRecord>> RunNodeReport();
