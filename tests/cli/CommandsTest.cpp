// Runs zniscsi's own main function on the recorded machine, with a scripted tool: commands.txt has the
// command lines and what they must print (Steps.h), and what the system answers (Script.h).
#include "tests/OwnRoot.h"
#include "tests/cli/RecordedMachine.h"
#include "tests/cli/Script.h"

#include <cstdio>
#include <iterator>
#include <sstream>

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

int ZniscsiMain(int argc, char** argv); // cli/main.cpp

namespace
{
namespace fs = std::filesystem;

// What every machine here has beside what was recorded.
constexpr const char* kUsual[] = {"etc/os-release: ID=rhel\\nVERSION_ID=9",
                                  "sbin/iscsiadm: ",
                                  "run/",
                                  "results/",
                                  "dev/null: ",
                                  "dev/sda: ",
                                  "dev/sdb: ",
                                  "dev/sdc: ",
                                  "dev/sdd: ",
                                  "dev/sde: ",
                                  "dev/dm-0: "};

// Makes `descriptor` write to a file while `call` runs.
template <class Call>
void Redirected(int descriptor, const fs::path& file, Call call)
{
    const int usual = dup(descriptor);
    const int opened = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, S_IRUSR | S_IWUSR);
    dup2(opened, descriptor);
    call();
    std::fflush(stdout);
    dup2(usual, descriptor);
    close(opened);
    close(usual);
}

// Runs "zniscsi WORDS". A word '' is empty.
int RunCommand(const std::string& line)
{
    std::istringstream stream(line);
    std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word == "''" ? word.data() + 2 : word.data());
    pointers.push_back(nullptr);
    return ZniscsiMain(static_cast<int>(words.size()), pointers.data());
}

void RunSteps(const Case& tested)
{
    for (std::size_t i = 0; i < tested.steps.size(); ++i)
    {
        const std::string beginning = "/results/" + std::to_string(i);
        Redirected(STDOUT_FILENO, beginning + ".out", [&] {
            Redirected(STDERR_FILENO, beginning + ".err", [&] {
                std::ofstream(beginning + ".status") << RunCommand(tested.steps[i].command) << '\n';
            });
        });
    }
}

std::string Replaced(std::string text, const std::string& mark, const std::string& value)
{
    for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += value.size())
        text.replace(at, mark.size(), value);
    return text;
}

// Replaces the abbreviations of commands.txt.
Case Spelt(Case tested)
{
    utsname kernel{};
    uname(&kernel);
    for (std::string& line : tested.preparation)
        line = Replaced(Replaced(line, "%", "iqn.2025-01.org.example:"), "KERNEL", kernel.release);
    for (Step& step : tested.steps)
        step.command = Replaced(step.command, "%", "iqn.2025-01.org.example:");
    return tested;
}

void RunCase(const Case& tested)
{
    setenv("ZN_LOG_FILE", "/log", 1);
    setenv("ZN_LOG_LEVEL", "0", 1);
    const RecordedMachine machine;
    ForgetAnswers();
    for (const char* const line : kUsual)
        Prepare(machine.Root(), line);
    for (const std::string& line : tested.preparation)
        Prepare(machine.Root(), line);
    ExpectInRoot(machine.Root(), [&tested] {
        RunSteps(tested);
        return true;
    });
    if (!testing::Test::IsSkipped())
        ExpectResults(tested, machine.Root() / "results");
}

[[maybe_unused]] const bool kRegistered = [] {
    RegisterCases("Commands", HERE "/commands.txt", [](const Case& tested) { RunCase(Spelt(tested)); });
    return true;
}();

} // namespace
