// A look-up by a resident host, through the shipped library, compared with its tool alone.

#include "bench/Groups.h"
#include "bench/Measure.h"
#include "bench/Peer.h"
#include "bench/SessionReport.h"
#include "interface/ZnISCSI.h"

#include <cstdlib>
#include <fstream>
#include <list>
#include <memory>
#include <stdexcept>

namespace
{

struct ReleaseInstance
{
    void operator()(ZnISCSI* instance) const { ::operator delete(instance); }
};

} // namespace

void bench::MeasureLookUps()
{
    const std::unique_ptr<ZnISCSI, ReleaseInstance> iscsi(GetInstance());
    const char* const file = std::getenv("PRINTED_FILE");
    const char* const level = std::getenv("ZN_LOG_LEVEL");
    if (!iscsi || file == nullptr || level == nullptr)
        throw std::runtime_error("the look-ups are measured in the simulated machine: see bench.sh");
    const auto lookUp = [&] {
        std::list<std::string> devices;
        if (iscsi->GetPhysicalDevicesForTargetIQN("iqn.2025-01.org.example:plain-0", devices) != 1)
            throw std::runtime_error("a look-up has failed: see the log");
    };
    const auto runTool = [] { RunWithPosixSpawn({"/sbin/iscsiadm", "-m", "session", "-P3"}); };
    for (const int sessions : {1, 3, 10, 30, 100, 300, 1000})
    {
        std::ofstream(file) << SessionReport(sessions);
        CompareTimes("look-up/" + std::string(level) + '/' + std::to_string(sessions), lookUp, runTool);
    }
}
