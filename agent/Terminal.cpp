#include "agent/Terminal.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>

#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

// What a signal handler has to take back.
std::atomic<bool> g_statusIsShown{false};
std::atomic<bool> g_echoIsOff{false};
termios g_settingsWithEcho{};

void Write(std::string_view text)
{
    // A terminal that is gone is no loss.
    static_cast<void>(!write(STDERR_FILENO, text.data(), text.size()));
}

void RestoreEcho()
{
    if (!g_echoIsOff.exchange(false))
        return;
    tcsetattr(STDIN_FILENO, TCSANOW, &g_settingsWithEcho);
    Write("\n"); // the user's own was not shown
}

// The signal has its default action again: raised once more, it ends the program when this returns.
extern "C" void EndBySignal(int signal)
{
    EraseStatusLine();
    RestoreEcho();
    static_cast<void>(std::raise(signal));
}

// A secret is not asked for where it would be shown.
void RequireSuccess(int result)
{
    if (result != 0)
        throw std::system_error(errno, std::generic_category(),
                                "cannot keep the terminal from showing a secret");
}

std::size_t Columns()
{
    constexpr std::size_t kUsual = 80;
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return kUsual;
    return size.ws_col;
}

} // namespace

void RestoreTerminalOnSignals()
{
    struct sigaction ours
    {
    };
    ours.sa_handler = EndBySignal;
    ours.sa_flags = static_cast<int>(SA_RESETHAND);
    // SIGTTOU among them: the terminal is put in order from the background too.
    sigfillset(&ours.sa_mask);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
    {
        struct sigaction before
        {
        };
        if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaction(signal, &ours, nullptr);
    }
}

EchoOff::EchoOff()
{
    RequireSuccess(tcgetattr(STDIN_FILENO, &g_settingsWithEcho));
    termios silent = g_settingsWithEcho;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    g_echoIsOff = true;
    RequireSuccess(tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent));
}

EchoOff::~EchoOff()
{
    RestoreEcho();
}

void ShowStatusLine(const std::string& text)
{
    if (isatty(STDERR_FILENO) == 0)
        return;
    EraseStatusLine();
    g_statusIsShown = true;
    Write(text.substr(0, Columns() - 1));
}

void EraseStatusLine()
{
    if (g_statusIsShown.exchange(false))
        Write("\r\033[K");
}
