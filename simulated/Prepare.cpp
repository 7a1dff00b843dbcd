// simulated-prepare: what simulated/machine runs before the first tool. Checks the scene and makes sys,
// dev, and sbin with the tools that the scene has installed.
#include "simulated/Devices.h"
#include "simulated/Tool.h"

#include <cstdlib>

using namespace simulated;
namespace fs = std::filesystem;

int main(int argc, char** argv)
{
    return RunTool("simulated-prepare", argc, argv, [](const Scene& scene, State& state) {
        const fs::path tools = fs::read_symlink("/proc/self/exe").parent_path();
        const fs::path folder = std::getenv("SIMULATED_STATE");
        for (const char* name : {"sys", "dev", "sbin"})
        {
            fs::remove_all(folder / name);
            fs::create_directory(folder / name);
        }
        WriteDevices({}, DevicesOf(scene, state), folder);
        fs::create_symlink(tools / "iscsiadm", folder / "sbin/iscsiadm");
        if (scene.ehcmcliInstalled)
            fs::create_symlink(tools / "ehcmcli", folder / "sbin/ehcmcli");
        return Outcome{};
    });
}
