// The host's process runner. Nothing else starts a child process.
//
// Thread-safety: any number of threads may run commands at once.
#pragma once

#include <string>

class ZnProcess
{
public:
    // Runs `command` (the tool's full path and its arguments, separated by single blanks) and waits
    // until it ends. No shell is involved: no character of an argument is interpreted. The line may
    // contain a CHAP secret: do not log it, and wipe every copy of it and of its words.
    //
    // `output` and `errorOutput` belong to the caller and must not be null. The whole standard output
    // and standard error replace what they held. The last two arguments are reserved; pass 0 and false.
    //
    // Returns 0 if the command succeeded, any other value if it failed. The stand-alone host's runner
    // returns the tool's exit status, 128 plus the number of the signal that killed the tool, or -1 if
    // the tool could not be started, did not end in time, or its exit status is unknown. If the tool
    // gave no reason (it was not started, was killed, or failed without error output), `errorOutput`
    // ends in one sentence with the reason.
    static int system(const char* command, std::string* output, std::string* errorOutput, int, bool);
};
