#include "tests/cli/Steps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <utility>

using nlohmann::json;

namespace
{

// Returns false if the line expects nothing.
bool AddExpectation(Step& step, const std::string& line)
{
    const std::string value = line.substr(std::min<std::size_t>(2, line.size()));
    switch (line.front())
    {
    case '>':
        step.output += value + '\n';
        return true;
    case '~':
        step.outputPatterns.push_back(value);
        return true;
    case '{':
        step.object = json::parse(line);
        return true;
    case '!':
        step.errorPatterns.push_back(value);
        return true;
    case '=':
        step.status = std::stoi(value);
        return true;
    default:
        return false;
    }
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
        if (line.rfind(mark, 0) == 0 && line.rfind(mark + "warning: ", 0) != 0 &&
            line.rfind(mark + "note: ", 0) != 0)
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

class CaseTest : public testing::Test
{
public:
    CaseTest(Case tested, std::function<void(const Case&)> run)
        : m_tested(std::move(tested)), m_run(std::move(run))
    {
    }

    void TestBody() override { m_run(m_tested); }

private:
    Case m_tested;
    std::function<void(const Case&)> m_run;
};

} // namespace

std::string ReadText(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> ReadLines(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::vector<Case> ReadCases(const std::filesystem::path& file)
{
    std::vector<Case> cases;
    for (const std::string& line : ReadLines(file))
    {
        if (line.empty() || line.front() == '#')
            continue;
        if (line.rfind("== ", 0) == 0)
            cases.push_back({line.substr(3)});
        else if (line.rfind("$ ", 0) == 0)
            cases.back().steps.push_back({line.substr(2)});
        else if (cases.back().steps.empty() || !AddExpectation(cases.back().steps.back(), line))
            cases.back().preparation.push_back(line);
    }
    return cases;
}

void RegisterCases(const char* group, const std::filesystem::path& file,
                   const std::function<void(const Case&)>& run)
{
    for (const Case& each : ReadCases(file))
        testing::RegisterTest(group, TestName(each.title).c_str(), nullptr, nullptr, __FILE__, __LINE__,
                              [each, run]() -> testing::Test* { return new CaseTest(each, run); });
}

void ExpectResults(const Case& tested, const std::filesystem::path& results)
{
    for (std::size_t i = 0; i < tested.steps.size() && !testing::Test::HasFailure(); ++i)
    {
        const Step& step = tested.steps[i];
        const std::string output = ReadText(results / (std::to_string(i) + ".out"));
        const std::string error = ReadText(results / (std::to_string(i) + ".err"));
        SCOPED_TRACE("$ " + step.command);
        EXPECT_EQ(ReadText(results / (std::to_string(i) + ".status")),
                  std::to_string(step.status) + '\n')
            << output << error;
        if (!step.object.is_null())
            ExpectObject(step.object, output, step.status, error);
        else if (!step.outputPatterns.empty())
            ExpectFound(step.outputPatterns, output);
        else
            EXPECT_EQ(output, step.output);
        EXPECT_EQ(error.empty(), step.errorPatterns.empty()) << error;
        ExpectFound(step.errorPatterns, error);
    }
}
