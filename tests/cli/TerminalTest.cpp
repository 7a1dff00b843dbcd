// What zniscsi shows on a terminal, and how it reads a secret there; its locks.
#include "cli/initiator/LogWatch.h"
#include "cli/initiator/RecordLock.h"
#include "cli/terminal/Output.h"
#include "cli/terminal/SecretPrompt.h"
#include "cli/terminal/StatusLine.h"
#include "host/EvDebug.h"
#include "tests/OwnRoot.h"

#include <gmock/gmock-matchers.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

using namespace cli;
namespace fs = std::filesystem;

namespace
{

// Standard error is a terminal during its lifetime.
class Screen
{
public:
    explicit Screen(unsigned short columns) : m_terminal(posix_openpt(O_RDWR | O_NOCTTY))
    {
        setenv("TERM", "xterm", 1);
        setenv("ZN_LOG_FILE", "/dev/null", 1);
        const winsize size{24, columns, 0, 0};
        if (m_terminal < 0 || grantpt(m_terminal) != 0 || unlockpt(m_terminal) != 0 ||
            ioctl(m_terminal, TIOCSWINSZ, &size) != 0)
            return;
        m_side = open(ptsname(m_terminal), O_RDWR | O_NOCTTY);
        dup2(m_side, STDERR_FILENO);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    ~Screen()
    {
        EraseStatus();
        dup2(m_usual, STDERR_FILENO);
        for (const int descriptor : {m_usual, m_terminal, m_side})
            close(descriptor);
    }

    // The terminal, as the program has it.
    int Side() const { return m_side; }

    // The master side: what a person sees and types.
    int Person() const { return m_terminal; }

    // What is written up to `end`.
    std::string ReadUntil(std::string_view end) const
    {
        std::string text;
        for (char byte = 0; text.size() < end.size() || text.substr(text.size() - end.size()) != end;
             text += byte)
            if (read(m_terminal, &byte, 1) != 1)
                break;
        return text;
    }

    // What has been written since the last call.
    std::string Read() const
    {
        WriteToStandardError("$"); // the kernel delivers late
        const std::string text = ReadUntil("$");
        return text.substr(0, text.size() - 1);
    }

    bool HasEcho() const
    {
        termios settings{};
        return tcgetattr(m_side, &settings) == 0 && (settings.c_lflag & ECHO) != 0;
    }

private:
    int m_usual = dup(STDERR_FILENO);
    int m_terminal;
    int m_side = -1;
};

TEST(StatusLine, FitsOnTheScreen)
{
    const std::string x511(511, 'x');
    struct StatusRow
    {
        unsigned short columns;
        std::string text;
        std::string shown;
    };
    for (const StatusRow& row :
         {StatusRow{30, "short\x1b", "short\\x1b"},
          StatusRow{30, std::string(29, 'x'), std::string(29, 'x')},
          StatusRow{30, x511, std::string(26, 'x') + "..."},
          StatusRow{30, std::string(25, 'x') + "\xc3\xa9y\xc3\xa9", std::string(25, 'x') + "..."},
          StatusRow{3, x511, ".."}, StatusRow{0, x511, std::string(76, 'x') + "..."}})
    {
        const Screen screen(row.columns);
        ShowStatus(row.text);
        EXPECT_EQ(screen.ReadUntil("\x1b[K"), '\r' + row.shown + "\x1b[K");
        EraseStatus();
        EraseStatus();
        EXPECT_EQ(screen.Read(), "\r\x1b[K") << "erased twice, or not";
    }
}

TEST(StatusLine, CountsSeconds)
{
    const Screen screen(20);
    ShowStatus("waiting for it", 5);
    EXPECT_EQ(screen.ReadUntil("s)\x1b[K"), "\rwaiting for it\x1b[K\rwaiti... (1 of 5 s)\x1b[K");
    const SlowWork work("working");
    EXPECT_EQ(screen.ReadUntil("s)\x1b[K"), "\r\x1b[K\rworking (1 s)\x1b[K");
}

TEST(StatusLine, MovesBelowALogLine)
{
    const Screen screen(80);
    const LogWatch watch(1);
    ShowStatus("status");
    screen.ReadUntil("\x1b[K");
    EvEvent().DebugLvl("Tag", 0, "text\x1b");
    EXPECT_EQ(screen.Read(), "\r\x1b[KTag: text\\x1b\r\n");
    PrintError("cannot");
    EXPECT_EQ(screen.Read(), "zniscsi: cannot\r\n");
}

TEST(StatusLine, NeedsATerminalWithEscapeSequences)
{
    const Screen screen(80);
    for (const char* const terminal : {"dumb", ""})
    {
        terminal[0] == '\0' ? unsetenv("TERM") : setenv("TERM", terminal, 1);
        ShowStatus("status");
        EraseStatus();
        EXPECT_EQ(screen.Read(), "");
    }
}

// A pipe from which `text` can be read.
int PipeWith(const std::string& text)
{
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], text.data(), text.size()) < 0)
        return -1;
    close(ends[1]);
    return ends[0];
}

Request RequestWithChap()
{
    Request request;
    request.chapUser = "backup";
    return request;
}

TEST(Secret, IsReadWipedAndKeptOutOfCoreFiles)
{
    const auto exit = [] {
        const std::string text(kMaxChapBytes, 's');
        dup2(PipeWith(text + "\nrest"), STDIN_FILENO);
        const bool isRead = ReadSecret(RequestWithChap())->c_str() == text;
        char next = 0;
        const bool isRestLeft = read(STDIN_FILENO, &next, 1) == 1 && next == 'r';
        alignas(Secret) std::array<char, sizeof(Secret)> storage{};
        auto* const secret = new (storage.data()) Secret;
        secret->Text().fill('s');
        secret->~Secret();
        const volatile char* const left = storage.data();
        bool isWiped = true;
        for (std::size_t i = 0; i < storage.size(); ++i)
            isWiped = isWiped && left[i] == '\0';
        rlimit core{};
        getrlimit(RLIMIT_CORE, &core);
        const bool isKeptOut = core.rlim_cur <= 1 && prctl(PR_GET_DUMPABLE) == 0;
        _exit((isRead ? 0 : 1) + (isWiped ? 0 : 2) + (isKeptOut ? 0 : 4) + (isRestLeft ? 0 : 8));
    };
    EXPECT_EXIT(exit(), testing::ExitedWithCode(0), "");
}

// Standard input and standard error of this process are the screen; `person` sits before it, on a
// thread of its own that takes no signals.
template <class Call>
void SitDown(const Screen& screen, Call person)
{
    dup2(screen.Side(), STDIN_FILENO);
    dup2(screen.Side(), STDERR_FILENO);
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(person).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(Secret, IsTypedWithoutEchoUnderEverySignal)
{
    for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGUSR2, SIGRTMIN})
    {
        const Screen screen(80);
        const auto exit = [&] {
            SitDown(screen, [&] {
                screen.ReadUntil("CHAP secret for backup: ");
                if (!screen.HasEcho())
                    kill(getpid(), signal);
            });
            ReadSecret(RequestWithChap());
        };
        EXPECT_EXIT(exit(), testing::KilledBySignal(signal), "");
        EXPECT_TRUE(screen.HasEcho());
    }
}

TEST(Secret, IsAskedForAgainAfterASignalThatTheProgramSurvives)
{
    const Screen screen(80);
    const auto exit = [&screen] {
        std::signal(SIGUSR1, SIG_IGN);
        SitDown(screen, [&screen] {
            for (const int signal : {SIGUSR1, SIGCONT})
            {
                screen.ReadUntil("backup: ");
                kill(getpid(), signal);
            }
            screen.ReadUntil("backup: ");
            static_cast<void>(!write(screen.Person(), "secret\nrest\n", 12));
        });
        const bool isRead = ReadSecret(RequestWithChap())->c_str() == std::string_view("secret");
        int left = 0; // for the shell
        ioctl(STDIN_FILENO, FIONREAD, &left);
        _exit((isRead ? 0 : 1) + (left == 0 ? 0 : 2));
    };
    EXPECT_EXIT(exit(), testing::ExitedWithCode(0), "");
}

TEST(RecordLock, ExcludesTheSameTargetOnly)
{
    const fs::path root = fs::path(testing::TempDir()) / ("lock-" + std::to_string(::getpid()));
    fs::create_directories(root / "run");
    ExpectInRoot(root, [] {
        umask(0);
        Request request;
        request.timeoutSeconds = 1;
        request.iqn = "iqn.x:a/../b";
        const RecordLock lock = RecordLock::OfTarget(request);
        const int file = open("/run/zniscsi/iqn.x:a!..!b", O_RDONLY);
        const bool isExclusive = flock(file, LOCK_SH | LOCK_NB) != 0;
        bool isRefused = false;
        try
        {
            RecordLock::OfTarget(request);
        }
        catch (const Failure& failure)
        {
            isRefused = failure.answer->cause == Cause::TimedOut;
        }
        request.iqn = std::string(223, 'x');
        const RecordLock other = RecordLock::OfTarget(request);
        const RecordLock shared = RecordLock::AgainstDiscovery(request);
        const int discovery = open("/run/zniscsi/discovery", O_RDONLY);
        const bool isShared = flock(discovery, LOCK_SH | LOCK_NB) == 0 &&
                              flock(discovery, LOCK_UN) == 0 &&
                              flock(discovery, LOCK_EX | LOCK_NB) != 0;
        struct stat status = {};
        const auto mode = [&status](const char* path) {
            return stat(path, &status) == 0 ? status.st_mode & 07777U : 0;
        };
        return isExclusive && isRefused && isShared && mode("/run/zniscsi") == 0700 &&
               mode("/run/zniscsi/discovery") == 0600;
    });
    fs::remove_all(root);
}

} // namespace
