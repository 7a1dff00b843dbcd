// The initiator of this machine: an instance of the library, owned as any host owns one, and the list
// of node records, which the library does not provide.
#pragma once

#include "cli/kernel/Portal.h"
#include "redhat/ZnISCSILinuxRedhat.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace cli
{

class Initiator
{
public:
    // Throws Failure on a machine that the library does not serve.
    explicit Initiator(unsigned long long jobId);

    // The operations of the interface, called through the dispatch table.
    ZnISCSI* operator->() const { return m_instance.get(); }

    // For the members that are not in the interface. GetInstance creates this class only.
    ZnISCSILinuxRedhat& Concrete() const { return static_cast<ZnISCSILinuxRedhat&>(*m_instance); }

private:
    // The library has no release function: an instance owns nothing but its storage.
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

struct NodeReport
{
    std::vector<NodeRecord> records{};
    std::string strangeLine{}; // the first that is no record; empty if all are
};

// Parses the output of "iscsiadm -m node".
NodeReport ParseNodeReport(const std::string& report);

// Runs the tool and returns its node records, or nothing if it fails; the log has the reason.
std::optional<std::vector<NodeRecord>> RunNodeReport();

// The records of one target.
std::vector<NodeRecord> SelectRecords(const std::vector<NodeRecord>& records, const std::string& iqn);

} // namespace cli
