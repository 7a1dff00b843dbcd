// The host's process runner. Nothing else starts a child process.
//
// Thread-safety: any number of threads may run commands at once.
#pragma once

#include <string>

class ZnProcess
{
public:
    // Runs `command` (the tool's full path and its arguments, separated by single blanks) and waits
    // until it ends. No shell is involved: no character of an argument is interpreted.
    //
    // `output` and `errorOutput` belong to the caller and must not be null. They receive the whole
    // standard output and standard error. The last two arguments are reserved; pass 0 and false.
    //
    // Returns 0 if the command succeeded, any other value if it failed. The stand-alone host's runner
    // returns the tool's exit status, 128 plus the number of the signal that killed the tool, or -1 if
    // the tool could not be started or its exit status is unknown. If the tool gave no reason (it was
    // not started, was killed, or failed without error output), the runner appends one sentence with
    // the reason to `errorOutput`.
    static int system(const char* command, std::string* output, std::string* errorOutput, int, bool);
};
