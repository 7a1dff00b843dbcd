// The tool that the tests of the process runner run. The first argument is its action.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using Arguments = std::vector<std::string>;

// Prints each argument on a line of its own.
int Echo(const Arguments& arguments)
{
    for (const std::string& argument : arguments)
        std::cout << argument << '\n';
    return 0;
}

void WriteAll(int descriptor, const std::string& text)
{
    for (size_t done = 0; done < text.size();)
    {
        const ssize_t count = write(descriptor, &text[done], text.size() - done);
        if (count < 0)
            _exit(99);
        done += static_cast<size_t>(count);
    }
}

// Waits until the standard error has no reader.
void AwaitHangUp()
{
    pollfd reader{STDERR_FILENO, 0, 0};
    while (poll(&reader, 1, -1) <= 0)
    {
    }
}

// [deaf|flood]: writes an error and does not end. With an argument SIGTERM does not end it: it is
// answered, or it is ignored by a tool that writes for ever.
int Linger(const std::string& how)
{
    if (how == "deaf")
        std::signal(SIGTERM, [](int) { WriteAll(STDERR_FILENO, "deaf\n"); });
    if (how == "flood")
        std::signal(SIGTERM, SIG_IGN);
    while (how == "flood")
        WriteAll(STDOUT_FILENO, "noise");
    WriteAll(STDERR_FILENO, "bye\n");
    AwaitHangUp();
    return 0;
}

// Ends with status 5 while a tracer holds it, as a debugger does: its parent gets the status later.
[[noreturn]] void EndTraced()
{
    int seized[2];
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    if (pipe(seized) == 0 && fork() == 0)
    {
        siginfo_t unused{};
        const pid_t tool = getppid();
        ptrace(PTRACE_SEIZE, tool, nullptr, nullptr);
        WriteAll(seized[1], "!");
        waitid(P_PID, static_cast<id_t>(tool), &unused, WEXITED | WNOWAIT);
        poll(nullptr, 0, 100);
        _exit(0);
    }
    char byte = 0;
    _exit(read(seized[0], &byte, 1) == 1 ? 5 : 0); // exit looks for leaks, which fails while traced
}

// BLOCKS STATUS [hold|write]: writes that many blocks of 64 KiB on each stream and ends with the
// status. With a third argument it leaves a daemon that holds the streams open, or writes, as long as
// they have a reader.
int Flood(const Arguments& arguments)
{
    const std::string daemon = arguments.size() > 2 ? arguments[2] : "";
    if (!daemon.empty() && fork() == 0)
    {
        while (daemon == "write")
            WriteAll(STDOUT_FILENO, "noise");
        AwaitHangUp();
        return 0;
    }
    for (int block = 0; block < std::stoi(arguments[0]); ++block)
    {
        WriteAll(STDOUT_FILENO, std::string(65536, static_cast<char>('a' + block % 23)));
        WriteAll(STDERR_FILENO, std::string(65536, static_cast<char>('A' + block % 23)));
    }
    return std::stoi(arguments[1]);
}

// Prints what this process inherited: input, descriptors, signals, locale.
int State(const Arguments& /*none*/)
{
    int deathSignal = -1;
    prctl(PR_GET_PDEATHSIG, &deathSignal);
    char byte = 0;
    std::cout << "at the end of its host: " << deathSignal << "\ninput "
              << std::filesystem::read_symlink("/proc/self/fd/0").string()
              << (read(STDIN_FILENO, &byte, 1) == 0 ? " at its end" : " not at its end")
              << "\ndescriptors";
    for (int descriptor = 0; descriptor < 4096; ++descriptor)
    {
        if (fcntl(descriptor, F_GETFD) >= 0)
            std::cout << ' ' << descriptor;
    }
    std::cout << '\n';
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
    {
        if (line.rfind("SigBlk", 0) == 0 || line.rfind("SigIgn", 0) == 0)
            std::cout << line << '\n';
    }
    for (char** variable = environ; *variable != nullptr; ++variable)
    {
        if (std::string(*variable).rfind("LC_ALL=", 0) == 0 ||
            std::string(*variable) == "RUNNER_TEST=kept")
            std::cout << *variable << '\n';
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string action = argc > 1 ? argv[1] : "";
    const Arguments arguments(argv + (argc > 1 ? 2 : 1), argv + argc);
    if (action == "echo")
        return Echo(arguments);
    if (action == "flood")
        return Flood(arguments);
    if (action == "linger")
        return Linger(arguments.empty() ? "" : arguments[0]);
    if (action == "traced")
        EndTraced();
    if (action == "state")
        return State(arguments);
    if (action == "signal")
    {
        std::cerr << (arguments.size() > 1 ? arguments[1] : "");
        return raise(std::stoi(arguments.at(0)));
    }
    std::cerr << "runner_child: no such action: " << action << '\n';
    return 2;
}
