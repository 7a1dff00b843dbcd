// Commands and what they must print, as scenarios.txt and commands.txt have them:
//
//   == Title           a case, on a machine of its own; a test of this name
//   $ COMMAND          a step
//   > LINE             a line of its standard output,
//   ~ REGEX              or a match in its standard output,
//   {JSON}               or some members of its standard output, which is one JSON object
//   ! REGEX            a match in its standard error; without such a line standard error is empty
//   = N                its exit status; without such a line 0
//
// Any other line prepares the machine, in the words of the file. Empty lines and lines that begin with
// # are comments.
#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

struct Step
{
    std::string command;
    std::string output{};
    std::vector<std::string> outputPatterns{};
    nlohmann::json object{};
    std::vector<std::string> errorPatterns{};
    int status = 0;
};

struct Case
{
    std::string title;
    std::vector<std::string> preparation{};
    std::vector<Step> steps{};
};

std::vector<std::string> ReadLines(const std::filesystem::path& file);
std::string ReadText(const std::filesystem::path& file);

std::vector<Case> ReadCases(const std::filesystem::path& file);

// Registers a test for each case of the file: GROUP.TitleOfTheCase.
void RegisterCases(const char* group, const std::filesystem::path& file,
                   const std::function<void(const Case&)>& run);

// Compares what the steps printed: the files N.out, N.err and N.status in `results`. Stops at the first
// step that differs.
void ExpectResults(const Case& tested, const std::filesystem::path& results);
