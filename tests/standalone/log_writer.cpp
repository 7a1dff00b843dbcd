// Writes lines to the log, each in a call of its own: LEVEL COUNT TEXT [HOW].
//
//   kept      all lines in one call; says on standard error that it is still open
//   rotated   another process renames the file before this one does, and writes a line to a new one
//   moved     another process renames the file, and writes nothing
//   full      the second line fills the file to its limit; with overfull it would exceed it by one byte
//   rising    the levels rise from LEVEL on
//
// Then prints what is wrong with the settings, why lines were lost, and what the log has changed of its
// caller's. If CLOCK is set, the first line is written at that second of the epoch, and each further
// one a second later.
#include "host/EvDebug.h"
#include "standalone/znlib/Log.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include <sys/syscall.h>
#include <unistd.h>

namespace
{

std::string g_how;
long g_now = 0;

// Leaves room for one more line of the same length, or a byte less.
void FillTheRest()
{
    const znhost::LogSettings& log = znhost::CurrentLogSettings();
    const auto size = std::filesystem::file_size(log.file);
    std::filesystem::resize_file(log.file, log.maxSizeBytes - size + (g_how == "full" ? 0 : 1));
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (g_now == 0)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {g_now++, 7'999'999};
    return 0;
}

// The log takes the lock before it renames the file.
extern "C" int flock(int file, int operation) noexcept
{
    const std::string path = std::getenv("ZN_LOG_FILE");
    if (g_how == "rotated" || g_how == "moved")
        std::rename(path.c_str(), (path + ".1").c_str());
    if (g_how == "rotated")
        std::ofstream(path) << "theirs\n";
    return static_cast<int>(syscall(SYS_flock, file, operation));
}

int main(int argc, char** argv)
{
    if (argc < 4)
        return 2;
    g_how = argc > 4 ? argv[4] : "";
    if (const char* const clock = std::getenv("CLOCK"))
        g_now = std::atol(clock);
    std::optional<EvEvent> call;
    if (g_how == "kept")
        call.emplace();
    errno = EDOM;
    int level = std::stoi(argv[1]);
    for (int line = std::stoi(argv[2]); line > 0; --line)
    {
        // -1: how a call passes the highest job identifier
        EvEvent().DebugLvl("Writer", level, -1LL, "%s", argv[3]);
        if (g_how == "rising")
            ++level;
        if (line == 2 && (g_how == "full" || g_how == "overfull"))
            FillTheRest();
    }
    if (call)
        std::fputs("still open\n", stderr);
    call.reset();
    std::string changes = errno == EDOM ? "" : "errno";
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    changes += sigismember(&blocked, SIGPIPE) == 1 ? "signal mask" : "";
    std::puts((znhost::CurrentLogSettings().fault + znhost::LastLogError() + changes).c_str());
    return 0;
}
