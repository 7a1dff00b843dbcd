#include "cli/terminal/SecretPrompt.h"

#include "cli/terminal/Output.h"
#include "cli/terminal/StatusLine.h"
#include "host/Wipe.h"
#include "standalone/helpers/Descriptor.h"
#include "standalone/helpers/Text.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace cli
{

namespace
{

using znlib::Descriptor;
using znlib::Uninterrupted;

constexpr const char* kTerminal = "the terminal";

void RequireSuccess(bool succeeded, const std::string& source)
{
    if (!succeeded)
        throw Failure(Cause::Usage, {"cannot read " + source + ": " + std::strerror(errno)});
}

// Prevents core files of this process and of the tool, whose command line contains the secret.
void KeepOutOfCoreFiles()
{
    // A limit of 1 also stops cores that the kernel pipes to a program; it ignores 0 for these.
    for (const rlim_t bytes : {rlim_t{1}, rlim_t{0}})
        if (const rlimit limit{bytes, bytes}; setrlimit(RLIMIT_CORE, &limit) == 0)
            break;
    prctl(PR_SET_DUMPABLE, 0); // execve resets it for the tool
}

// The signals that end or stop this program, and SIGCONT, after which the echo is on again. Not those
// that a fault raises, those that stop a program in the background, and those without an effect.
sigset_t SignalsToHoldBack()
{
    sigset_t signals;
    sigfillset(&signals);
    for (const int other : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGTTIN, SIGTTOU,
                            SIGCHLD, SIGWINCH, SIGURG})
        sigdelset(&signals, other);
    return signals;
}

// During its lifetime such signals wait. In the end they take effect.
class SignalPause
{
public:
    SignalPause()
    {
        const sigset_t signals = SignalsToHoldBack();
        m_event = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC));
        RequireSuccess(m_event.IsOpen(), kTerminal);
        pthread_sigmask(SIG_BLOCK, &signals, &m_before);
    }
    SignalPause(const SignalPause&) = delete;
    SignalPause& operator=(const SignalPause&) = delete;
    ~SignalPause() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

    // Readable while a signal waits.
    const Descriptor& Event() const { return m_event; }

private:
    sigset_t m_before{};
    Descriptor m_event;
};

// During its lifetime standard input, a terminal, does not show what is typed.
class EchoOff
{
public:
    EchoOff()
    {
        RequireSuccess(tcgetattr(STDIN_FILENO, &m_before) == 0, kTerminal);
        termios silent = m_before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        RequireSuccess(Set(silent), kTerminal);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
    ~EchoOff()
    {
        const pid_t foreground = tcgetpgrp(STDIN_FILENO);
        if (foreground > 0 && foreground != getpgrp())
            return; // the shell has the terminal, with settings of its own
        Set(m_before);
        WriteToStandardError("\n"); // the line end that the user typed was not shown
    }

private:
    // TCSAFLUSH: the rest of a secret must not reach the shell.
    static bool Set(const termios& settings)
    {
        return Uninterrupted([&] { return tcsetattr(STDIN_FILENO, TCSAFLUSH, &settings); }) == 0;
    }

    termios m_before{};
};

// Reads the first line. Nothing if `event` becomes readable first.
std::unique_ptr<const Secret> ReadLine(int descriptor, const std::string& source,
                                       const Descriptor& event)
{
    auto secret = std::make_unique<Secret>();
    std::size_t length = 0;
    for (auto& text = secret->Text(); length <= kMaxChapBytes; ++length)
    {
        pollfd events[] = {{event.Get(), POLLIN, 0}, {descriptor, POLLIN, 0}};
        Uninterrupted([&] { return poll(events, std::size(events), -1); });
        if (events[0].revents != 0)
            return nullptr;
        const auto got = Uninterrupted([&] { return read(descriptor, &text.at(length), 1); });
        RequireSuccess(got >= 0, source);
        if (got == 0 || text.at(length) == '\n')
            break;
    }
    if (const std::string fault = FindChapFault({secret->c_str(), length}); !fault.empty())
        throw Failure(Cause::Usage, {"the CHAP secret " + fault});
    secret->Text().at(length) = '\0';
    return secret;
}

std::unique_ptr<const Secret> ReadFile(const std::string& file)
{
    // A word without a slash that names no file may be the secret itself.
    const bool mayBeShown = file.find('/') != std::string::npos || access(file.c_str(), F_OK) == 0;
    const std::string shown = mayBeShown ? file : "the file of --chap-secret-file";
    const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status
    {
    };
    RequireSuccess(descriptor.IsOpen() && fstat(descriptor.Get(), &status) == 0, shown);
    if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0)
        PrintError("warning: others can read " + file + ": chmod 600 it");
    return ReadLine(descriptor.Get(), shown, Descriptor());
}

std::unique_ptr<const Secret> Prompt(const std::string& user)
{
    std::unique_ptr<const Secret> secret;
    while (!secret)
    {
        const SignalPause pause;
        const EchoOff echo;
        WriteToStandardError("CHAP secret for " + znlib::Printable(user) + ": ");
        secret = ReadLine(STDIN_FILENO, kTerminal, pause.Event());
    }
    return secret;
}

} // namespace

Secret::~Secret()
{
    WipeBytes(m_text.data(), m_text.size());
}

std::unique_ptr<const Secret> ReadSecret(const Request& request)
{
    if (!request.chapUser)
        return nullptr;
    KeepOutOfCoreFiles();
    if (request.chapSecretFile)
        return ReadFile(*request.chapSecretFile);
    if (isatty(STDIN_FILENO) != 0)
        return Prompt(*request.chapUser);
    return ReadLine(STDIN_FILENO, "standard input", Descriptor());
}

} // namespace cli
