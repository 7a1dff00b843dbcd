#include "agent/Terminal.h"

#include "standalone/znlib/Descriptor.h"
#include "standalone/znlib/Text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <system_error>
#include <utility>

#include <sys/ioctl.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

// State of the signal handlers. The plain data is written only while the atomic flag before it is
// false.
namespace
{

using Line = std::array<char, 512>;

std::atomic<bool> g_hasStatus{false}; // g_status is set and the timer runs
std::atomic<bool> g_statusIsShown{false};
Line g_status{};
timespec g_statusStart{};

std::atomic<bool> g_promptIsOpen{false};
std::atomic<bool> g_echoIsOff{false};
Line g_prompt{};
termios g_settingsWithEcho{};

using SignalHandler = void (*)(int);

// Installs `handler` if the signal has its default action.
void HandleIfDefault(int signal, SignalHandler handler, int flags)
{
    struct sigaction ours
    {
    };
    struct sigaction before
    {
    };
    ours.sa_handler = handler;
    ours.sa_flags = flags;
    sigfillset(&ours.sa_mask); // includes SIGTTOU: handlers change terminal settings
    if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_DFL)
        sigaction(signal, &ours, nullptr);
}

bool IsInForeground()
{
    return tcgetpgrp(STDIN_FILENO) == getpgrp();
}

// False, with errno set, on failure.
bool TurnEchoOff()
{
    termios silent = g_settingsWithEcho;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    g_echoIsOff = true;
    return znlib::Uninterrupted([&] { return tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent); }) == 0;
}

void TurnEchoOn()
{
    if (!g_echoIsOff.exchange(false))
        return;
    // TCSAFLUSH: the rest of a secret must not reach the shell.
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_settingsWithEcho);
    WriteToStandardError("\n"); // the line end that the user typed was not shown
}

// SA_RESETHAND has restored the default action: the raised signal ends the program after the return.
extern "C" void EndBySignal(int signal)
{
    EraseStatusLine();
    TurnEchoOn();
    static_cast<void>(std::raise(signal));
}

extern "C" void StopBySignal(int signal)
{
    const int error = errno;
    if (IsInForeground())
        TurnEchoOn();
    struct sigaction ours
    {
    };
    struct sigaction stop
    {
    };
    stop.sa_handler = SIG_DFL;
    sigaction(signal, &stop, &ours);
    static_cast<void>(std::raise(signal));
    sigset_t raised;
    sigemptyset(&raised);
    sigaddset(&raised, signal);
    sigprocmask(SIG_UNBLOCK, &raised, nullptr); // stops here, and continues here
    sigaction(signal, &ours, nullptr);
    errno = error;
}

// SIGCONT: the shell has turned the echo on in the meantime.
extern "C" void GoOn(int /*signal*/)
{
    const int error = errno;
    if (g_promptIsOpen && IsInForeground() && TurnEchoOff())
        WriteToStandardError(g_prompt.data());
    errno = error;
}

// Before the first change of the terminal: installs handlers that restore it before a signal ends the
// program.
void RestoreTerminalOnSignals()
{
    static bool isDone = false;
    if (std::exchange(isDone, true))
        return;
    for (int signal = 1; signal <= SIGRTMAX; ++signal)
    {
        // Signals that do not end the program, the timer, and SIGPIPE, which main handles.
        constexpr int kOthers[] = {SIGCHLD, SIGCONT, SIGURG,  SIGWINCH, SIGTSTP,
                                   SIGTTIN, SIGTTOU, SIGALRM, SIGPIPE};
        if (std::find(std::begin(kOthers), std::end(kOthers), signal) == std::end(kOthers))
            HandleIfDefault(signal, EndBySignal, static_cast<int>(SA_RESETHAND));
    }
}

std::size_t Columns()
{
    constexpr std::size_t kDefault = 80;
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return kDefault;
    return std::min<std::size_t>(size.ws_col, g_status.size() - 1);
}

void SetClock(time_t seconds)
{
    const itimerval interval{{seconds, 0}, {seconds, 0}};
    setitimer(ITIMER_REAL, &interval, nullptr);
}

// SIGALRM, once a second. Calls async-signal-safe functions only.
extern "C" void ShowSeconds(int /*signal*/)
{
    if (!g_hasStatus)
        return;
    const int error = errno;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    Line digits{};
    char* digit = digits.end() - 1;
    auto seconds = static_cast<unsigned long>(now.tv_sec - g_statusStart.tv_sec);
    do
        *--digit = static_cast<char>('0' + seconds % 10);
    while ((seconds /= 10) != 0);
    for (const std::string_view part :
         {std::string_view("\r"), std::string_view(g_status.data()), std::string_view(" ("),
          std::string_view(digit), std::string_view(" s)\033[K")})
        WriteToStandardError(part);
    g_statusIsShown = true;
    errno = error;
}

// Sets the text, cut so that the seconds fit into the line, and starts the timer.
void SetStatus(const std::string& text)
{
    constexpr std::size_t kSecondsWidth = sizeof " (86400 s)";
    std::string line = znhost::Printable(text);
    const std::size_t columns = Columns();
    std::size_t length = std::min(line.size(), columns > kSecondsWidth ? columns - kSecondsWidth : 0);
    while (length < line.size() && length > 0 &&
           (static_cast<unsigned char>(line[length]) & 0xc0U) == 0x80)
        --length; // do not cut a character
    line.copy(g_status.data(), length);
    g_status.at(length) = '\0';
    clock_gettime(CLOCK_MONOTONIC, &g_statusStart);
    RestoreTerminalOnSignals();
    HandleIfDefault(SIGALRM, ShowSeconds, static_cast<int>(SA_RESTART));
    g_hasStatus = true;
    SetClock(1);
}

} // namespace

HiddenPrompt::HiddenPrompt(const std::string& prompt)
{
    const std::string line = znhost::Printable(prompt).substr(0, g_prompt.size() - 1);
    line.copy(g_prompt.data(), line.size());
    RestoreTerminalOnSignals();
    for (const int signal : {SIGTSTP, SIGTTIN, SIGTTOU})
        HandleIfDefault(signal, StopBySignal, 0);
    HandleIfDefault(SIGCONT, GoOn, 0);
    // Never prompt while the echo is on.
    const bool isTerminal = tcgetattr(STDIN_FILENO, &g_settingsWithEcho) == 0;
    g_promptIsOpen = isTerminal; // set first: a stop may happen at any moment
    if (!isTerminal || !TurnEchoOff())
        throw std::system_error(errno, std::generic_category(),
                                "cannot keep the terminal from showing a secret");
    WriteToStandardError(g_prompt.data());
}

HiddenPrompt::~HiddenPrompt()
{
    g_promptIsOpen = false;
    TurnEchoOn();
}

void ShowStatusLine(const std::string& text)
{
    EraseStatusLine();
    if (isatty(STDERR_FILENO) == 0)
        return;
    SetStatus(text);
    g_statusIsShown = true;
    WriteToStandardError(g_status.data());
}

SlowWork::SlowWork(const std::string& text)
{
    EraseStatusLine();
    if (isatty(STDERR_FILENO) != 0)
        SetStatus(text);
}

void EraseStatusLine()
{
    if (g_hasStatus.exchange(false))
        SetClock(0);
    if (g_statusIsShown.exchange(false))
        WriteToStandardError("\r\033[K");
}

void WriteAboveStatusLine(std::string_view line)
{
    if (g_statusIsShown.exchange(false))
        WriteToStandardError("\r\033[K");
    WriteToStandardError(line); // the timer shows the status line again
}

void WriteToStandardError(std::string_view text)
{
    static_cast<void>(!write(STDERR_FILENO, text.data(), text.size()));
}
