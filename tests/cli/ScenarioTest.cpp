// Runs zniscsi in the simulated machine, as a person or a program does. scenarios.txt has the commands
// and what they must print (Steps.h), and lines "scene {JSON}", which change
// simulated/scenes/demo.json as a JSON merge patch. A shell in that machine runs the commands, after
// prelude.sh.
//
// ../../demo.sh is a test, too: no scenario repeats one of its steps.
#include "tests/cli/Steps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include <sys/wait.h>
#include <unistd.h>

namespace
{
namespace fs = std::filesystem;
using nlohmann::json;

const fs::path kSource = SOURCE;
const fs::path kHere = kSource / "tests/cli";

// The directory of a scenario, removed in the end. It has three others: given, with the input of the
// test; out, with what the steps printed; state, the state directory of the machine.
class ScenarioDirectory
{
public:
    ScenarioDirectory()
    {
        std::string directory = fs::temp_directory_path() / "zniscsi-test.XXXXXX";
        m_path = mkdtemp(directory.data());
        for (const char* name : {"given/secrets", "out"})
            fs::create_directories(m_path / name);
    }
    ScenarioDirectory(const ScenarioDirectory&) = delete;
    ScenarioDirectory& operator=(const ScenarioDirectory&) = delete;
    ~ScenarioDirectory() { fs::remove_all(m_path); }

    const fs::path& Path() const { return m_path; }

    void WriteScene(const std::vector<std::string>& changes) const
    {
        json scene = json::parse(ReadText(kSource / "simulated/scenes/demo.json"), nullptr, true, true);
        for (const std::string& line : changes)
            scene.merge_patch(json::parse(line.substr(std::string("scene ").size())));
        std::ofstream(m_path / "given/scene.json") << scene;
    }

    // One shell runs all steps.
    void WriteScript(const std::vector<Step>& steps) const
    {
        std::ofstream script(m_path / "given/steps.sh");
        script << "source=" << kSource << "\ntools='" TOOLS "'\n" << ReadText(kHere / "prelude.sh");
        for (std::size_t i = 0; i < steps.size(); ++i)
            script << "{\n"
                   << steps[i].command << "\n} >out/" << i << ".out 2>out/" << i << ".err </dev/null\n"
                   << "echo $? >out/" << i << ".status\n";
    }

    // Returns the exit status of the machine itself. Its standard error is in the file machine.err.
    int RunScript() const
    {
        const std::string line = "cd '" + m_path.string() + "' && timeout 120 '" +
                                 (kSource / "simulated/machine").string() +
                                 "' --tools '" TOOLS "' --scene given/scene.json --state state "
                                 "sh given/steps.sh 2>machine.err";
        return WEXITSTATUS(
            std::system(line.c_str())); // NOLINT(cert-env33-c): a scenario consists of shell lines
    }

    // The files that contain a secret, except the input and the state of the simulated initiator.
    std::vector<fs::path> FindSecrets() const
    {
        std::vector<std::string> secrets;
        for (const auto& file : fs::directory_iterator(m_path / "given/secrets"))
            for (const std::string& line : ReadLines(file))
                if (!line.empty())
                    secrets.push_back(line);
        std::vector<fs::path> found;
        for (const auto& file : fs::recursive_directory_iterator(m_path))
        {
            const fs::path path = file.path().lexically_relative(m_path);
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

private:
    fs::path m_path;
};

void RunScenario(const Case& scenario)
{
    const ScenarioDirectory directory;
    directory.WriteScene(scenario.preparation);
    directory.WriteScript(scenario.steps);
    const int machineStatus = directory.RunScript();
    const std::string said = ReadText(directory.Path() / "machine.err");
    // Older kernels refuse the mounts of an ordinary user.
    if (machineStatus == 126 || (machineStatus == 127 && geteuid() != 0))
        GTEST_SKIP() << "no simulated machine here, says " << said;
    ASSERT_EQ(machineStatus, 0) << said;
    ExpectResults(scenario, directory.Path() / "out");
    EXPECT_EQ(directory.FindSecrets(), std::vector<fs::path>());
}

[[maybe_unused]] const bool kRegistered = [] {
    RegisterCases("Scenario", kHere / "scenarios.txt", RunScenario);
    return true;
}();

} // namespace
