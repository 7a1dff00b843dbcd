// Writes lines to the log as a host's process would: LEVEL COUNT TEXT. Then prints what is wrong
// with the settings and what kept lines from it.

#include "host/EvDebug.h"
#include "standalone/znlib/Log.h"

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
        log.DebugLvl("Writer", level, -1LL, "%s", argv[3]); // as a call carries the highest identifier
    }
    std::puts((znhost::CurrentLogSettings().fault + znhost::LogTrouble()).c_str());
    return 0;
}
