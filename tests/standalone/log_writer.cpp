// Writes lines to the log as a host's process would: LEVEL COUNT TEXT. Then prints what kept them from
// it.

#include "host/EvDebug.h"
#include "standalone/znlib/LogTap.h"

#include <cstdio>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    const int level = std::stoi(argv[1]);
    for (int line = std::stoi(argv[2]); line > 0; --line)
    {
        EvEvent log;
        log.DebugLvl("Writer", level, 42LL, "%s", argv[3]);
    }
    std::puts(znhost::LogTrouble().c_str());
    return 0;
}
