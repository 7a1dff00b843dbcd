// The agent's commands with a scripted tool, on a host that this test program defines: what they
// answer, on this machine (which has no session with the targets) and on a recorded one, and what they
// show on a terminal.
#include "agent/Commands.h"

#include "agent/LogWatch.h"
#include "agent/RecordLock.h"
#include "agent/Secret.h"
#include "agent/Terminal.h"
#include "host/EvDebug.h"
#include "host/OSType.h"
#include "host/ZnProcess.h"
#include "tests/OwnRoot.h"
#include "tests/agent/RecordedMachine.h"

#include <gmock/gmock-matchers.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

namespace
{

struct ToolResult
{
    int result;
    std::string output{};
    std::string errorOutput{};
};

std::deque<ToolResult> g_runs; // of the tools; the last one repeats
std::function<void(const std::string& command)> g_effect = [](const std::string&) {};
std::optional<uid_t> g_user; // if not the one of this process
bool g_knowsHost = true;
bool g_isInside = false; // a recorded machine

} // namespace

int ZnProcess::system(const char* command, std::string* output, std::string* errorOutput, int, bool)
{
    g_effect(command);
    const ToolResult run = g_runs.at(0);
    if (g_runs.size() > 1)
        g_runs.pop_front();
    *output = run.output;
    *errorOutput = run.errorOutput;
    return run.result;
}

void detectOSType()
{
    g_iOsType = g_knowsHost ? 1 : 0;
    g_iOsVersion = 9;
    if (!g_knowsHost)
        EvEvent().DebugLvl("detectOSType", -1, "cannot read it");
}

// Under other names, since the system's headers declare these functions with attributes.
extern "C" int ScriptedAccess(const char* path, int mode) noexcept __asm__("access");
extern "C" int ScriptedMkdir(const char* path, mode_t mode) noexcept __asm__("mkdir");
extern "C" uid_t ScriptedUser() noexcept __asm__("geteuid");

extern "C" int ScriptedAccess(const char* path, int mode) noexcept
{
    const std::string_view name(path);
    if (name == "/sbin/iscsiadm" || name == "/usr/sbin/ehcmcli")
        return 0;
    return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}

// No locks of this machine: their folder cannot be made.
extern "C" int ScriptedMkdir(const char* path, mode_t mode) noexcept
{
    const bool isRefused = std::strcmp(path, "/run/lock/zniscsi") == 0 && !g_isInside;
    return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, isRefused ? "" : path, mode));
}

extern "C" uid_t ScriptedUser() noexcept
{
    return g_user ? *g_user : static_cast<uid_t>(syscall(SYS_geteuid));
}

namespace
{

const std::string kIqn = "iqn.2025-01.invalid:none";

// The lines of the answer, or of the reasons of the failure.
std::string AnswerOf(Answer (*command)(const Request&), const Request& request)
try
{
    return command(request).text;
}
catch (const Failure& failure)
{
    std::string reasons = NameOf(*failure.answer->cause) + std::string("\n");
    for (const std::string& reason : failure.answer->reasons)
        reasons += reason + '\n';
    return reasons;
}

void ExpectAnswer(const char* name, Answer (*command)(const Request&), const std::string& iqn,
                  std::deque<ToolResult> runs, const std::string& answer)
{
    Request request;
    request.portal = "192.0.2.10";
    request.iqn = iqn;
    request.waitSeconds = runs.size() > 2 ? 1 : 0;
    g_runs = std::move(runs);
    EXPECT_EQ(AnswerOf(command, request), answer) << name;
}

TEST(Commands, CheckWhatTheToolReports)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    setenv("ZN_REGISTRY", "/dev/null", 1);
    const ToolResult broken{6, "", "iscsiadm: broken\n"};
    const std::string records = "192.0.2.10:3260,1 iqn.x:a\n192.0.2.10:3260,2 iqn.x:a\n"
                                "192.0.2.10:3261,1 iqn.x:b\n192.0.2.11:3260,1 iqn.x:c\n"
                                "192.0.2.10:3260,1 iqn.x:\x1b\n";
    ExpectAnswer("another port, another portal, a target listed twice, a hostile name", Discover, "",
                 {{0}, {0, records}}, "iqn.x:a\niqn.x:\\x1b\n");
    ExpectAnswer("a hostile name in a table", ListRecords, "", {{0, "192.0.2.10:3260,1 iqn.x:\x1b\n"}},
                 "PORTAL      IQN\n192.0.2.10  iqn.x:\\x1b\n");
    ExpectAnswer("no records", ListRecords, "", {{21, "", "iscsiadm: No records found\n"}}, "");
    ExpectAnswer("no list of records", ListRecords, "", {broken},
                 "tool-failed\ncannot list the node records\nFailed to run /sbin/iscsiadm -m node\n"
                 "iscsiadm: broken\n");
    ExpectAnswer("a record at another portal", Forget, "iqn.x:c", {{0, records}},
                 "already forgotten\n");
    ExpectAnswer("a record that has just gone", Forget, "iqn.x:a", {{0, records}, broken, {0}},
                 "already forgotten\n");

    g_knowsHost = false;
    ExpectAnswer("a host that cannot be examined", ListRecords, "", {{0}},
                 "tool-failed\ncannot tell whether this host is served\ncannot read it\n");
    g_knowsHost = true;

    const std::string none =
        "no-session\ncannot find a disk of " + kIqn + "\nthere is no session with " + kIqn + '\n';
    const std::string nextStep = "log on first: zniscsi logon 192.0.2.10 " + kIqn + '\n';
    ExpectAnswer("a disk that the kernel does not have", FindDisks, kIqn,
                 {{0, "Target: " + kIqn + "\nPersistent Portal: 1:\nAttached scsi disk sda State:"}},
                 none + nextStep);
    ExpectAnswer("errors before the last look", FindDisks, kIqn,
                 {{1, "", "first"}, {1, "", "first"}, {1, "", "last"}},
                 none +
                     "Failed to run /sbin/iscsiadm -m session -P3\nlast\n"
                     "Failed to run /sbin/iscsiadm -m session -i\n" +
                     nextStep);
}

void ExpectInside(const RecordedMachine& machine, const std::function<bool()>& test)
{
    ExpectInRoot(machine.Root(), [&] {
        g_isInside = true;
        return test();
    });
}

TEST(Commands, CheckWhatTheKernelShows)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    const std::string example = "iqn.2025-01.org.example:";
    RecordedMachine machine;
    machine.Change("sys/class/iscsi_session/session9/targetname: " + example + "mul");
    ExpectInside(machine, [&] {
        g_runs = {
            {0, "192.0.2.10:3260,1 " + example + "plain\n192.0.2.11:3260,1 " + example + "plain\n"}};
        const nlohmann::ordered_json records = ListRecords({}).fields["records"];
        return records[0]["in_use"] == true && records[1]["in_use"] == false;
    });
    // The library takes a second IQN that the first one begins with for the same.
    ExpectInside(machine, [&] {
        g_runs = {{0, "Target: " + example +
                          "multi\nPersistent Portal: 1:\nAttached scsi disk sdd State:\n"
                          "Target: " +
                          example + "mul\nPersistent Portal: 1:\nAttached scsi disk sde State:\n"}};
        Request request;
        request.device = "/dev/mapper/mpatha";
        return AnswerOf(FindTarget, request).find("its paths lead to 2 targets:") != std::string::npos;
    });
}

TEST(Commands, PreferADiskThatWorks)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    const std::string example = "iqn.2025-01.org.example:";
    RecordedMachine machine;
    machine.Change("gone sys/class/block/dm-0");
    machine.Change("sys/class/iscsi_session/session8/state: FAILED");
    ExpectInside(machine, [&] {
        g_runs = {{0, "Target: " + example +
                          "multi\nPersistent Portal: 1:\nAttached scsi disk sdd State:\n"}};
        Request request;
        request.iqn = example + "multi";
        request.retryPauseSeconds = 0;
        return AnswerOf(FindDisk, request) == "/dev/sde\n";
    });
}

// "already logged off" and "already forgotten" need a look that worked.
TEST(Commands, DoNotTakeWhatTheyCannotSeeForAbsent)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    const std::string iqn = "iqn.2025-01.org.example:plain";
    const char* const usual = "192.0.2.10";
    for (const auto& [change, command, portal, reason] :
         {std::tuple("gone sys/class/none", &LogOff, "192.0.2.99", "already logged off"),
          std::tuple("gone sys/class/none", &LogOff, "name.invalid", "cannot resolve name.invalid: "),
          std::tuple("gone sys/class/none", &Forget, "name.invalid", "cannot resolve name.invalid: "),
          std::tuple("gone sys/class/iscsi_connection/connection1:0/persistent_address", &LogOff, usual,
                     "the kernel does not show the portal of session 1"),
          std::tuple("sys/class/iscsi_connection/connection1:0/persistent_address: array-a", &LogOff,
                     usual, "session 1 has the portal array-a, "),
          std::tuple("gone sys/class", &LogOff, usual, "sysfs is not mounted")})
    {
        RecordedMachine machine;
        machine.Change(change);
        g_runs = {{0, "192.0.2.10:3260,1 " + iqn + '\n'}};
        Request request;
        request.portal = portal;
        request.iqn = iqn;
        ExpectInside(machine, [&, reason = reason, command = command] {
            try
            {
                return AnswerOf(command, request).find(reason) != std::string::npos;
            }
            catch (const std::runtime_error& error)
            {
                return std::string(error.what()).find(reason) != std::string::npos;
            }
        });
    }
}

void Write(const std::filesystem::path& file, const std::string& text)
{
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text << '\n';
}

TEST(Commands, DoctorExaminesUserAndTool)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    g_runs = {{127, "", "no interpreter\n"}};
    g_user = 1;
    const Answer answer = Examine({});
    g_user = 0;
    EXPECT_THAT(answer.reasons, testing::Contains("user: not root"));
    EXPECT_THAT(answer.reasons, testing::Contains("administration tool: no interpreter"));
    EXPECT_THAT(Examine({}).reasons, testing::Not(testing::Contains("user: not root")));
    ExpectInside(RecordedMachine(), [] {
        const char* const file = "/etc/iscsi/initiatorname.iscsi";
        Write(file, "InitiatorName=iqn.x\x1b");
        const bool isEscaped = Examine({}).text.find(" iqn.x\\x1b\n") != std::string::npos;
        Write(file, "InitiatorName=");
        const Answer unnamed = Examine({});
        return isEscaped && std::count(unnamed.reasons.begin(), unnamed.reasons.end(),
                                       std::string("initiator name: ") + file + " names none") == 1;
    });
}

TEST(Commands, WaitUntilTheKernelHasTheSession)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    ExpectInside(RecordedMachine(), [] {
        const std::filesystem::path classes = "/sys/class",
                                    session = classes / "iscsi_session/session10";
        Request request;
        request.portal = "192.0.2.10";
        request.iqn = "iqn.x:a";
        g_runs = {{0}};
        g_effect = [&](const std::string& command) {
            if (command != "/sbin/iscsiadm -m node -T iqn.x:a -p 192.0.2.10 -l")
                return;
            Write(session / "targetname", "iqn.x:a");
            Write(classes / "iscsi_connection/connection10:0/persistent_address", "192.0.2.10");
            Write(classes / "iscsi_connection/connection10:0/persistent_port", "3260");
            Write(session / "state", "FREE");
            std::thread([session] {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                Write(session / "state", "LOGGED_IN");
            }).detach();
        };
        return AnswerOf(LogOn, request) == "logged on\n";
    });
}

TEST(RecordLock, ExcludesTheSameRecordOnly)
{
    RecordedMachine machine;
    machine.Change("run/lock/");
    const PortalMatcher portal("192.0.2.10");
    ExpectInside(machine, [&] {
        alarm(60); // ends a process that blocks
        const RecordLock lock(portal, "iqn.x:a"), other(portal, "iqn.x:b"),
            odd(portal, "/" + std::string(300, 'x'));
        const int record = open("/run/lock/zniscsi/192.0.2.10,iqn.x:a", O_RDWR);
        const int all = open("/run/lock/zniscsi/192.0.2.10", O_RDWR);
        return lock.Error() + other.Error() + odd.Error() == "" &&
               flock(record, LOCK_SH | LOCK_NB) != 0 && flock(all, LOCK_EX | LOCK_NB) != 0;
    });
    ExpectInside(machine, [&] {
        g_user = 77777;
        return RecordLock(portal, "iqn.x:a").Error() == "/run/lock/zniscsi belongs to another user";
    });
}

// Standard error is a terminal during its lifetime. The status line's clock stands still.
class Screen
{
public:
    explicit Screen(unsigned short columns) : m_terminal(posix_openpt(O_RDWR | O_NOCTTY))
    {
        sigemptyset(&m_clock);
        sigaddset(&m_clock, SIGALRM);
        sigprocmask(SIG_BLOCK, &m_clock, nullptr);
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
        EraseStatusLine();
        sigprocmask(SIG_UNBLOCK, &m_clock, nullptr);
        dup2(m_usual, STDERR_FILENO);
        for (const int descriptor : {m_usual, m_terminal, m_side})
            close(descriptor);
    }

    // The terminal, as the program has it.
    int Side() const { return m_side; }

    // What has been written since the last call. The kernel delivers it late: a mark follows it.
    std::string Read() const
    {
        constexpr char kMark = '$';
        WriteToStandardError({&kMark, 1});
        std::string text;
        for (char byte = 0; read(m_terminal, &byte, 1) == 1 && byte != kMark;)
            text += byte;
        return text;
    }

private:
    sigset_t m_clock{};
    int m_usual = dup(STDERR_FILENO);
    int m_terminal;
    int m_side = -1;
};

TEST(StatusLine, FitsOnTheScreen)
{
    const std::string x511(511, 'x');
    struct Row
    {
        unsigned short columns;
        std::string text;
        std::string shown;
    };
    for (const Row& row :
         {Row{30, "short\x1b", "short\\x1b"}, Row{30, x511, std::string(19, 'x')},
          Row{30, std::string(18, 'x') + "\xc3\xa9", std::string(18, 'x')}, Row{5, x511, ""},
          Row{0, x511, std::string(69, 'x')}, Row{1000, x511 + x511, std::string(500, 'x')}})
    {
        const Screen screen(row.columns);
        ShowStatusLine(row.text);
        EXPECT_EQ(screen.Read(), row.shown);
        EraseStatusLine();
        EraseStatusLine();
        EXPECT_EQ(screen.Read(), "\r\x1b[K") << "erased twice, or not";
    }
}

TEST(StatusLine, IsErasedBeforeALogLine)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    const Screen screen(80);
    const LogWatch watch(1);
    ShowStatusLine("status");
    EvEvent().DebugLvl("Tag", 0, "text\x1b");
    EXPECT_EQ(screen.Read(), "status\r\x1b[KTag: text\\x1b\r\n");
}

TEST(StatusLine, CountsTheAttemptsOfEachLook)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    const std::string registry = testing::TempDir() + "registry-" + std::to_string(::getpid());
    setenv("ZN_REGISTRY", registry.c_str(), 1);
    Request request;
    request.iqn = kIqn;
    request.retryPauseSeconds = 0;
    for (const auto& [limit, waitSeconds, expected] :
         {std::tuple("2", 1U, "[1 of 2][2 of 2][waiting][1 of 2][2 of 2]"),
          std::tuple("-1", 0U, "[1 of 1]"),
          std::tuple("0", 0U, "[1 of 5][2 of 5][3 of 5][4 of 5][5 of 5]")})
    {
        std::ofstream(registry) << "[~iStoreNode]\nnRetryCounter = " << limit << '\n';
        request.waitSeconds = waitSeconds;
        g_runs = {{0, "no volume\n"}};
        const Screen screen(80);
        EXPECT_THAT(AnswerOf(FindDisk, request), testing::StartsWith("no-session\n"));
        PrintError("cannot");
        std::string shown = screen.Read(), found;
        for (std::size_t at = 0; (at = shown.find("\r\x1b[K")) != std::string::npos;)
        {
            const std::string line = shown.substr(0, at);
            found += '[' + (line[0] == 'w' ? "waiting" : line.substr(8, line.find(':') - 8)) + ']';
            shown.erase(0, at + 4);
        }
        EXPECT_EQ(found + shown, expected + std::string("zniscsi: cannot\r\n"));
    }
    std::filesystem::remove(registry);
}

TEST(Signals, KeepTheirHandlers)
{
    const auto handler = [](int signal) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        return action.sa_handler;
    };
    const auto exit = [&handler] {
        const Screen screen(80);
        std::signal(SIGHUP, SIG_IGN);
        ShowStatusLine("status");
        const bool isRight = handler(SIGHUP) == SIG_IGN && handler(SIGTERM) != SIG_DFL &&
                             handler(SIGPIPE) == SIG_DFL && handler(SIGCHLD) == SIG_DFL;
        _exit(isRight ? 0 : 1);
    };
    EXPECT_EXIT(exit(), testing::ExitedWithCode(0), "");
}

TEST(Signals, TurnTheEchoOn)
{
    const Screen screen(80);
    const auto hasEcho = [&screen] {
        termios settings{};
        return tcgetattr(screen.Side(), &settings) == 0 && (settings.c_lflag & ECHO) != 0;
    };
    const auto exit = [&] {
        dup2(screen.Side(), STDIN_FILENO);
        const HiddenPrompt prompt("secret: ");
        if (!hasEcho())
            static_cast<void>(std::raise(SIGTERM));
    };
    EXPECT_EXIT(exit(), testing::KilledBySignal(SIGTERM), "");
    EXPECT_TRUE(hasEcho());
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

TEST(Secret, IsReadWipedAndKeptOutOfCoreFiles)
{
    const auto exit = [] {
        const std::string text(kMaxChapBytes, 's');
        alignas(Secret) std::array<char, sizeof(Secret)> storage{};
        const Secret* const secret = new (storage.data()) Secret(PipeWith(text + "\nrest"), "pipe");
        const bool isRead = secret->c_str() == text;
        secret->~Secret();
        const volatile char* const left = storage.data();
        bool isWiped = true;
        for (std::size_t i = 0; i < storage.size(); ++i)
            isWiped = isWiped && left[i] == '\0';
        rlimit core{};
        getrlimit(RLIMIT_CORE, &core);
        const bool isKeptOut = core.rlim_cur <= 1 && prctl(PR_GET_DUMPABLE) == 0;
        _exit((isRead ? 0 : 1) + (isWiped ? 0 : 2) + (isKeptOut ? 0 : 4));
    };
    EXPECT_EXIT(exit(), testing::ExitedWithCode(0), "");
}

} // namespace
