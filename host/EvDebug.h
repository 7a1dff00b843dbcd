// The host's debug log: where the library says what it does, and the only place where it says why an
// operation failed.
//
// Thread-safety: a log object belongs to one call on one thread; any number of them may write at once.
#pragma once

// A log file of the host's own choosing. The library never has one: it always passes null.
class EvDebugFileInstance;

// A log object, open from its construction to its destruction.
//
// `tag` names the function that writes. `format` is a fixed text with the conversions of printf; text
// that comes from outside is always an argument. No result: a line that cannot be written is lost.
class EvDebug
{
public:
    // `instance` is the host's and outlives the log object; null means the host's usual log.
    explicit EvDebug(EvDebugFileInstance* instance);
    EvDebug(const EvDebug&) = delete;
    EvDebug& operator=(const EvDebug&) = delete;
    ~EvDebug();

    // One line without a level.
    void Debug(const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

    // One line at a level: -1 error, 0 progress and findings, 2 the raw text given to a parser.
    void DebugLvl(const char* tag, int level, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    // One line at a level, marked with the job identifier that the host gave through SetLogging.
    void DebugLvl(const char* tag, int level, long long jobId, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

private:
    EvDebugFileInstance* m_instance __attribute__((unused));
};

// The log object of one call of a function.
class EvEvent : public EvDebug
{
public:
    EvEvent();
    ~EvEvent();
};
