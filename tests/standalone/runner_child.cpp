// The tool that the tests of the process runner run. The first argument is its action.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include <dirent.h>
#include <poll.h>
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
        pollfd reader{STDERR_FILENO, 0, 0};
        poll(&reader, 1, -1);
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
    char byte = 0;
    std::cout << "input " << std::filesystem::read_symlink("/proc/self/fd/0").string()
              << (read(STDIN_FILENO, &byte, 1) == 0 ? " at its end" : " not at its end")
              << "\ndescriptors";
    DIR* const folder = opendir("/proc/self/fd");
    std::set<std::string> descriptors;
    while (const dirent* entry = readdir(folder))
        descriptors.insert(entry->d_name);
    descriptors.erase(std::to_string(dirfd(folder)));
    closedir(folder);
    for (const std::string& descriptor : descriptors)
        std::cout << ' ' << descriptor;
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
