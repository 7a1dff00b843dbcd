// The values of a command line, and the checks of those that are passed on to a tool.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace cli
{

// Each command sets the members it has options or arguments for.
struct Request
{
    unsigned long long jobId = 0;
    int verbosity = 0;  // 1 shows what is run and found, 2 also the parsers' steps and the reports
    std::string portal; // empty: every portal of the target
    std::string iqn;
    std::string device;
    std::optional<std::string> chapUser;
    std::optional<std::string> chapSecretFile;
    bool chapSecretStdin = false;
    std::optional<unsigned> waitSeconds;
    std::optional<unsigned> retryPauseSeconds;
    std::optional<unsigned> timeoutSeconds; // of each run of a tool
    std::optional<unsigned> diskCount;
    bool force = false;
    bool paths = false;
    bool noHeadings = false;
};

// The initiator stores at most this many bytes of a CHAP name or secret.
constexpr std::size_t kMaxChapBytes = 255;

// The library passes values to the tool as words of one line. Each function returns why `value` would
// not reach the tool unchanged, or is malformed; empty if it is valid. The value itself is not
// repeated.
std::string FindPortalFault(const std::string& portal);
std::string FindIqnFault(const std::string& iqn);
std::string FindDeviceFault(const std::string& device);
std::string FindChapFault(std::string_view userOrSecret);

// Whether `word` begins as the name of a target does: a portal was meant to be something else.
bool IsIqn(std::string_view word);

} // namespace cli
