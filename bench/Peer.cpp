// What a run of a tool is compared with.

#include "bench/Bench.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

pid_t Spawn(const std::vector<const char*>& words, int output, int errorOutput)
{
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    posix_spawn_file_actions_addopen(&streams, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&streams, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&streams, errorOutput, STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&streams, STDERR_FILENO + 1);
    posix_spawnattr_t signals;
    posix_spawnattr_init(&signals);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&signals, &none);
    posix_spawnattr_setsigdefault(&signals, &all);
    posix_spawnattr_setflags(&signals, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    setenv("LC_ALL", "C", 1);
    pid_t child = -1;
    const int error = posix_spawn(&child, words[0], &streams, &signals,
                                  const_cast<char* const*>(words.data()), environ);
    posix_spawn_file_actions_destroy(&streams);
    posix_spawnattr_destroy(&signals);
    return error == 0 ? child : -1;
}

void Drain(int output, int errorOutput)
{
    static char buffer[65536];
    pollfd streams[] = {{output, POLLIN, 0}, {errorOutput, POLLIN, 0}};
    for (int open = 2; open > 0;)
    {
        poll(streams, 2, -1);
        for (pollfd& stream : streams)
            if (stream.revents != 0 && read(stream.fd, buffer, sizeof buffer) <= 0)
            {
                stream.fd = -1;
                --open;
            }
    }
}

} // namespace

void bench::RunWithPosixSpawn(std::vector<const char*> words)
{
    words.push_back(nullptr);
    int output[2], errorOutput[2];
    if (pipe2(output, O_CLOEXEC) != 0 || pipe2(errorOutput, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot make a pipe");
    const pid_t child = Spawn(words, output[1], errorOutput[1]);
    close(output[1]);
    close(errorOutput[1]);
    Drain(output[0], errorOutput[0]);
    close(output[0]);
    close(errorOutput[0]);
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0)
        throw std::runtime_error(std::string("cannot run ") + words[0]);
}
