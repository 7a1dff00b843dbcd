// Runs zniscsi in the simulated machine, as a person or a program does. scenarios.txt has the commands
// and what they must print:
//
//   == Title           a scenario, on a machine of its own
//   scene {JSON}       changes simulated/scenes/demo.json, as a JSON merge patch
//   $ COMMAND          a shell in that machine runs it, after prelude.sh
//   > LINE             a line of its standard output,
//   ~ REGEX              or a match in its standard output,
//   {JSON}               or some members of its standard output, which is one JSON object
//   ! REGEX            a match in its standard error; without such a line standard error is empty
//   = N                its exit status; without such a line 0
//
// ../../demo.sh is a test, too: no scenario repeats one of its steps.
#include "tests/agent/ReadLines.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace
{
namespace fs = std::filesystem;
using nlohmann::json;

const fs::path kSource = SOURCE;
const fs::path kHere = kSource / "tests/agent";

std::string ReadText(const fs::path& file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

struct Step
{
    std::string command;
    std::string output{};
    std::vector<std::string> outputPatterns{};
    json object{};
    std::vector<std::string> errorPatterns{};
    int status = 0;
};

struct Scenario
{
    std::string title;
    json sceneChanges = json::object();
    std::vector<Step> steps{};
};

void AddExpectation(Step& step, const std::string& line)
{
    const std::string value = line.substr(std::min<std::size_t>(2, line.size()));
    switch (line.front())
    {
    case '>':
        step.output += value + '\n';
        break;
    case '~':
        step.outputPatterns.push_back(value);
        break;
    case '{':
        step.object = json::parse(line);
        break;
    case '!':
        step.errorPatterns.push_back(value);
        break;
    case '=':
        step.status = std::stoi(value);
        break;
    default:
        throw std::invalid_argument("scenarios.txt: a line of no known kind: " + line);
    }
}

std::vector<Scenario> ParseScenarios(const std::vector<std::string>& lines)
{
    std::vector<Scenario> scenarios;
    for (const std::string& line : lines)
    {
        if (line.empty() || line.front() == '#')
            continue;
        if (line.rfind("== ", 0) == 0)
            scenarios.push_back({line.substr(3)});
        else if (line.rfind("scene ", 0) == 0)
            scenarios.back().sceneChanges.merge_patch(json::parse(line.substr(6)));
        else if (line.rfind("$ ", 0) == 0)
            scenarios.back().steps.push_back({line.substr(2)});
        else
            AddExpectation(scenarios.back().steps.back(), line);
    }
    return scenarios;
}

// "Log on, twice" -> "LogOnTwice"
std::string TestName(const std::string& title)
{
    std::string name;
    bool begins = true;
    for (const char letter : title)
    {
        const auto byte = static_cast<unsigned char>(letter);
        if (std::isalnum(byte) != 0)
            name += begins ? static_cast<char>(std::toupper(byte)) : letter;
        begins = std::isalnum(byte) == 0 && letter != '\'';
    }
    return name;
}

// Removes its folder in the end. The folder has three others: given, with the input of the test; out,
// with what the steps printed; state, the state folder of the machine.
class InTheMachine : public testing::Test
{
public:
    explicit InTheMachine(Scenario scenario) : m_scenario(std::move(scenario))
    {
        std::string folder = fs::temp_directory_path() / "agent-test.XXXXXX";
        m_folder = mkdtemp(folder.data());
        for (const char* name : {"given/secrets", "out"})
            fs::create_directories(m_folder / name);
    }
    ~InTheMachine() override { fs::remove_all(m_folder); }

    void TestBody() override;

private:
    void WriteScene() const
    {
        json scene = json::parse(ReadText(kSource / "simulated/scenes/demo.json"), nullptr, true, true);
        scene.merge_patch(m_scenario.sceneChanges);
        std::ofstream(m_folder / "given/scene.json") << scene;
    }

    // One shell runs all steps.
    void WriteScript() const
    {
        std::ofstream script(m_folder / "given/steps.sh");
        script << "source=" << kSource << "\ntools='" TOOLS "'\n" << ReadText(kHere / "prelude.sh");
        for (std::size_t i = 0; i < m_scenario.steps.size(); ++i)
            script << "{\n"
                   << m_scenario.steps[i].command << "\n} >out/" << i << ".out 2>out/" << i
                   << ".err </dev/null\n"
                   << "echo $? >out/" << i << ".status\n";
    }

    // Returns the exit status of the machine itself. Its standard error is in the file machine.err.
    int RunScript() const
    {
        const std::string line = "cd '" + m_folder.string() + "' && timeout 60 '" +
                                 (kSource / "simulated/machine").string() +
                                 "' --tools '" TOOLS "' --scene given/scene.json --state state "
                                 "sh given/steps.sh 2>machine.err";
        return WEXITSTATUS(
            std::system(line.c_str())); // NOLINT(cert-env33-c): a scenario consists of shell lines
    }

    std::string ReadResult(std::size_t step, const char* what) const
    {
        return ReadText(m_folder / "out" / (std::to_string(step) + what));
    }

    // The files that contain a secret, except the input and the state of the simulated initiator.
    std::vector<fs::path> FindSecrets() const
    {
        std::vector<std::string> secrets;
        for (const auto& file : fs::directory_iterator(m_folder / "given/secrets"))
            for (const std::string& line : ReadLines(file))
                if (!line.empty())
                    secrets.push_back(line);
        std::vector<fs::path> found;
        for (const auto& file : fs::recursive_directory_iterator(m_folder))
        {
            const fs::path path = file.path().lexically_relative(m_folder);
            if (!fs::is_regular_file(file.symlink_status()) || *path.begin() == "given" ||
                path == "state/state.json")
                continue;
            const std::string text = ReadText(file);
            if (std::any_of(secrets.begin(), secrets.end(), [&](const std::string& secret) {
                    return text.find(secret) != std::string::npos;
                }))
                found.push_back(path);
        }
        return found;
    }

    Scenario m_scenario;
    fs::path m_folder;
};

void ExpectFound(const std::vector<std::string>& patterns, const std::string& text)
{
    for (const std::string& pattern : patterns)
        EXPECT_TRUE(std::regex_search(text, std::regex(pattern))) << pattern << " is not in: " << text;
}

// The reasons of a failure in `error`, the standard error of a step.
std::vector<std::string> ReasonsIn(const std::string& error)
{
    const std::string mark = "zniscsi: ";
    std::vector<std::string> reasons;
    std::istringstream stream(error);
    for (std::string line; std::getline(stream, line);)
        if (line.rfind(mark, 0) == 0 && line.rfind(mark + "warning: ", 0) != 0)
            reasons.push_back(line.substr(mark.size()));
    return reasons;
}

// `output` is one object. It has the members of `expected`, and agrees with exit status and standard
// error.
void ExpectObject(const json& expected, const std::string& output, int status, const std::string& error)
{
    const json object = json::parse(output, nullptr, false);
    ASSERT_TRUE(object.is_object()) << output;
    json patched = object;
    patched.merge_patch(expected);
    EXPECT_EQ(patched, object);
    EXPECT_EQ(object.value("ok", status != 0), status == 0) << object;
    EXPECT_EQ(object.value("exit", 0), status) << object;
    const std::vector<std::string> none;
    EXPECT_EQ(object.value("reasons", none), status == 0 ? none : ReasonsIn(error)) << object;
}

void InTheMachine::TestBody()
{
#ifdef __SANITIZE_THREAD__
    if (m_scenario.title.find("then continued") != std::string::npos)
        GTEST_SKIP() << "the thread sanitizer delays the signal handler until the secret has been read";
#endif
    WriteScene();
    WriteScript();
    const int machineStatus = RunScript();
    // Older kernels refuse the mounts of an ordinary user.
    if (machineStatus == 126 || (machineStatus == 127 && geteuid() != 0))
        GTEST_SKIP() << "no simulated machine here, says " << ReadText(m_folder / "machine.err");
    ASSERT_EQ(machineStatus, 0) << ReadText(m_folder / "machine.err");
    for (std::size_t i = 0; i < m_scenario.steps.size() && !HasFailure(); ++i)
    {
        const Step& step = m_scenario.steps[i];
        const std::string output = ReadResult(i, ".out");
        const std::string error = ReadResult(i, ".err");
        SCOPED_TRACE("$ " + step.command);
        EXPECT_EQ(ReadResult(i, ".status"), std::to_string(step.status) + '\n') << output << error;
        if (!step.object.is_null())
            ExpectObject(step.object, output, step.status, error);
        else if (!step.outputPatterns.empty())
            ExpectFound(step.outputPatterns, output);
        else
            EXPECT_EQ(output, step.output);
        EXPECT_EQ(error.empty(), step.errorPatterns.empty()) << error;
        ExpectFound(step.errorPatterns, error);
    }
    EXPECT_EQ(FindSecrets(), std::vector<fs::path>());
}

[[maybe_unused]] const bool kRegistered = [] {
    for (const Scenario& scenario : ParseScenarios(ReadLines(kHere / "scenarios.txt")))
        testing::RegisterTest("Agent", TestName(scenario.title).c_str(), nullptr, nullptr, __FILE__,
                              __LINE__,
                              [scenario]() -> testing::Test* { return new InTheMachine(scenario); });
    return true;
}();

} // namespace
