// simulated-prepare: what simulated/machine runs before the first tool. Checks the scene and makes sys,
// dev, sbin with the tools that the scene has installed, and etc/hosts with the names of its portals.
#include "simulated/Devices.h"
#include "simulated/Tool.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

using namespace simulated;
namespace fs = std::filesystem;

namespace
{

// The first line with a name counts: the scene's come first.
std::string Hosts(const Scene& scene)
{
    std::string lines;
    for (const Portal& portal : scene.portals)
        if (!portal.name.empty())
            lines += portal.portal.address + ' ' + portal.name + '\n';
    std::ifstream usual("/etc/hosts");
    return lines.append(std::istreambuf_iterator<char>(usual), {});
}

} // namespace

int main(int argc, char** argv)
{
    return RunTool("simulated-prepare", argc, argv, [](const Scene& scene, State& state) {
        const fs::path tools = fs::read_symlink("/proc/self/exe").parent_path();
        const fs::path directory = std::getenv("SIMULATED_STATE");
        Tree tree = DevicesOf(scene, state);
        AddFile(tree, "etc/hosts", Hosts(scene));
        AddDirectory(tree, "sbin");
        tree["sbin/iscsiadm"] = {fs::file_type::symlink, tools / "iscsiadm"};
        if (scene.ehcmcliInstalled)
            tree["sbin/ehcmcli"] = {fs::file_type::symlink, tools / "ehcmcli"};
        for (const char* name : {"sys", "dev", "sbin"})
            fs::remove_all(directory / name);
        WriteTree({}, tree, directory);
        return Outcome{};
    });
}
