// simulated-prepare: readies the state folder for simulated/machine before the first tool runs: checks
// the scene, and lays out sys, dev and sbin, the folder of the tools that the scene has installed.
#include "simulated/Devices.h"
#include "simulated/Tool.h"

#include <cstdlib>

using namespace simulated;
namespace fs = std::filesystem;

int main(int argc, char** argv)
{
    return RunTool("simulated-prepare", argc, argv, [](const Scene& scene, State&) {
        const fs::path tools = fs::read_symlink("/proc/self/exe").parent_path();
        const fs::path sbin = fs::path(std::getenv("SIMULATED_STATE")) / "sbin";
        fs::remove_all(sbin);
        fs::create_directories(sbin);
        fs::create_symlink(tools / "iscsiadm", sbin / "iscsiadm");
        if (scene.ehcmcliInstalled)
            fs::create_symlink(tools / "ehcmcli", sbin / "ehcmcli");
        return Outcome{};
    });
}
