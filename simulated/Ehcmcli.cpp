// The simulated /usr/sbin/ehcmcli: "status" reports the volumes that this host is connected to.
//
//   Connected volumes
//   Volume: vol-alpha
//   Target name: iqn.2025-01.org.example:volume
//   Status: connected
//   Device to mount: /dev/mapper/vol-alpha
#include "simulated/Tool.h"

#include <algorithm>

using namespace simulated;

namespace
{

Outcome Status(const Scene& scene, State& state)
{
    Outcome outcome;
    outcome.out = "Connected volumes\n";
    for (Session& session : state.sessions)
        ++session.mpioLooks;
    for (const MpioVolume& volume : scene.ehcmcliVolumes)
    {
        const auto lists = [&](const Session& session) {
            return session.iqn == volume.target && session.mpioLooks >= volume.atLook;
        };
        if (std::any_of(state.sessions.begin(), state.sessions.end(), lists))
            outcome.out += "Volume: " + volume.name + "\nTarget name: " + volume.target +
                           "\nStatus: connected\nDevice to mount: " + volume.device + "\n";
    }
    return outcome;
}

} // namespace

int main(int argc, char** argv)
{
    const bool wantsStatus = argc == 2 && std::string(argv[1]) == "status";
    return RunTool("ehcmcli", argc, argv, [&](const Scene& scene, State& state) {
        return wantsStatus ? Status(scene, state) : Outcome{1, "", "Usage: ehcmcli status\n"};
    });
}
