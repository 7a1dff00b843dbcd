// The command line's values, and which of them a tool can be given.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Which of them are set depends on the command.
struct Request
{
    unsigned long long jobId = 0;
    int verbosity = 0; // 1 shows what is run and found, 2 the parsers' steps and the tools' reports too
    std::string portal;
    std::string iqn;
    std::string device;
    std::optional<std::string> chapUser;
    std::optional<std::string> chapSecretFile;
    std::optional<unsigned> waitSeconds;
    std::optional<unsigned> retryPauseSeconds;
    std::optional<unsigned> diskCount;
    bool force = false;
    bool paths = false;
    bool headings = true;
};

// The most bytes that the initiator keeps of a CHAP name or secret.
constexpr std::size_t kMaxChapBytes = 255;

// A tool is given its arguments as words of one line. Each of these says why a value would not arrive
// there as it is, or is not of its kind; empty when nothing is wrong. The value is not repeated.
std::string FindPortalFault(const std::string& portal);
std::string FindIqnFault(const std::string& iqn);
std::string FindDeviceFault(const std::string& device);
std::string FindChapFault(std::string_view userOrSecret);

// The one of `words` that takes the fewest changes of a letter to become `word`.
std::string FindNearest(const std::string& word, const std::vector<std::string>& words);
