// The host's process runner: the only way in which a child process is started.
//
// Thread-safety: any number of threads may run commands at once.
#pragma once

#include <string>

class ZnProcess
{
public:
    // Runs `command` (the tool's full path, then its arguments, separated by single blanks) and waits
    // until it has ended. No shell is involved: no character of an argument is interpreted.
    //
    // `output` and `errorOutput` are the caller's, neither null: their contents are replaced by the
    // whole standard output and standard error of the run. The last two arguments are reserved; pass 0
    // and false.
    //
    // Returns 0 when the command ran and succeeded, any other value when it failed. The stand-alone
    // host's runner gives the tool's exit status; 128 plus the number of the signal that killed it; or
    // -1 when it could not be started or its status not be told. Where the tool itself has not said
    // why, because it was killed, was not started, or had no word for its failure, a sentence in
    // `errorOutput` does, behind whatever the tool wrote there.
    static int system(const char* command, std::string* output, std::string* errorOutput, int, bool);
};
