// The host's debug log. The library reports its progress here, and reports the reason of a failure only
// here.
//
// Thread-safety: use a log object on one thread only. Any number of log objects may write at once.
#pragma once

// A log file that the host chooses. The library always passes null.
class EvDebugFileInstance;

// A log object is open from its construction to its destruction.
//
// `tag` names the function that writes. `format` is a literal with printf conversions; text from
// outside is always passed as an argument. There is no result: a line that cannot be written is lost.
class EvDebug
{
public:
    // `instance` belongs to the host and must outlive the log object; null selects the host's usual
    // log.
    explicit EvDebug(EvDebugFileInstance* instance);
    EvDebug(const EvDebug&) = delete;
    EvDebug& operator=(const EvDebug&) = delete;
    ~EvDebug();

    // Writes one line without a level.
    void Debug(const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

    // Writes one line at a level: -1 error, 0 progress and findings, 2 the raw text that a parser
    // receives.
    void DebugLvl(const char* tag, int level, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    // Writes one line at a level, marked with the job identifier that the host passed to SetLogging.
    void DebugLvl(const char* tag, int level, long long jobId, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

protected: // Clang warns of private data that a host does not use, and GCC 10 has no attribute against it
    EvDebugFileInstance* m_instance;
};

// The log object of one call of a function.
class EvEvent : public EvDebug
{
public:
    EvEvent();
    ~EvEvent();
};
