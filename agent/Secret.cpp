#include "agent/Secret.h"

#include "agent/Output.h"
#include "agent/Terminal.h"
#include "standalone/znlib/Descriptor.h"

#include <cstring>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace
{

void RequireSuccess(bool succeeded, const std::string& source)
{
    if (!succeeded)
        throw Failure(Cause::Usage, {"cannot read " + source + ": " + std::strerror(errno)});
}

// Prevents core files of this process and of the tool, whose command line contains the secret.
void KeepOutOfCoreFiles()
{
    // A limit of 1 also stops cores that the kernel pipes to a program; it ignores 0 for these.
    for (const rlim_t bytes : {rlim_t{1}, rlim_t{0}})
        if (const rlimit limit{bytes, bytes}; setrlimit(RLIMIT_CORE, &limit) == 0)
            break;
    prctl(PR_SET_DUMPABLE, 0); // execve resets it for the tool
}

} // namespace

// Delegating first means that the destructor wipes even if this body throws.
Secret::Secret(int descriptor, const std::string& source) : Secret()
{
    KeepOutOfCoreFiles();
    std::size_t length = 0;
    for (; length <= kMaxChapBytes; ++length)
    {
        const ssize_t got =
            znlib::Uninterrupted([&] { return read(descriptor, &m_text.at(length), 1); });
        RequireSuccess(got >= 0, source);
        if (got == 0 || m_text.at(length) == '\n')
            break;
    }
    if (const std::string fault = FindChapFault({m_text.data(), length}); !fault.empty())
        throw Failure(Cause::Usage, {"the CHAP secret: " + fault});
    m_text.at(length) = '\0';
}

Secret::~Secret()
{
    explicit_bzero(m_text.data(), m_text.size());
}

Secret ReadSecretFile(const std::string& file)
{
    const znlib::Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status
    {
    };
    RequireSuccess(descriptor.IsOpen() && fstat(descriptor.Get(), &status) == 0, file);
    if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0)
        PrintError("warning: others can read " + file + ": chmod 600 it");
    return {descriptor.Get(), file};
}

Secret ReadSecretFromStandardInput(const std::string& user)
{
    if (isatty(STDIN_FILENO) == 0)
        return {STDIN_FILENO, "standard input"};
    const HiddenPrompt prompt("CHAP secret for " + user + ": ");
    return {STDIN_FILENO, "the terminal"};
}
