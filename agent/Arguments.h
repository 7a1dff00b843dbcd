// The command line's values, and which of them a tool can be given.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// Which of them are set depends on the command.
struct Request
{
    unsigned long long jobId = 0;
    int verbosity = 0; // 1 shows the log's lines of progress, 2 the tools' reports too
    std::string portal;
    std::string iqn;
    std::string device;
    std::optional<std::string> chapUser;
    std::optional<std::string> chapSecretFile;
    unsigned waitSeconds = 0;
    std::optional<unsigned> retryPauseSeconds;
};

// The longest CHAP name or secret that the initiator keeps, in bytes.
constexpr std::size_t kLongestChapValue = 255;

// A tool is given its arguments as words of one line. Each of these says why a value would not arrive
// there as it is, or is none of its kind; empty when nothing is wrong. The value is not repeated.
std::string FindPortalFault(const std::string& portal);
std::string FindIqnFault(const std::string& iqn);
std::string FindDeviceFault(const std::string& device);
std::string FindChapFault(std::string_view userOrSecret);

// A number without a sign: what reads it later would wrap a negative one around.
std::string FindNumberFault(const std::string& number);
