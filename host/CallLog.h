// How the library's functions write to the host's debug log: each call opens one log context and writes
// all its lines under the function's tag.
//
// Thread-safety: use a log object on one thread only.
#pragma once

#include "host/EvDebug.h"
#include "host/ServedMachine.h"
#include "host/ZNPI_PlatformBase.h"

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <type_traits>

// The lines of one call. A format is a literal with %s and %d. It is taken as an array of characters,
// so that text from outside, which is none, can only be an argument.
class CallLog
{
public:
    // Why the operation, or one step of it, failed.
    template <std::size_t N, class... Values>
    void Error(const char (&format)[N], Values... values) const
    {
        Write(-1, format, values...);
    }

    // Progress and findings.
    template <std::size_t N, class... Values>
    void Info(const char (&format)[N], Values... values) const
    {
        Write(0, format, values...);
    }

    // The raw text that a parser receives.
    template <std::size_t N, class... Values>
    void Detail(const char (&format)[N], Values... values) const
    {
        Write(2, format, values...);
    }

    // Returns false and logs a line if one of the required arguments is null.
    bool Accepts(std::initializer_list<const void*> required) const;

    // Returns false and logs a line on a machine that the library does not serve.
    bool MachineIsServed() const;

    void RefuseParameters() const;

protected:
    // Without a job identifier the lines carry none.
    CallLog(EvDebug& log, const char* tag, std::optional<unsigned long long> jobId);

private:
    template <std::size_t N, class... Values>
    void Write(int level, const char (&format)[N], Values... values) const
    {
        static_assert(((std::is_same_v<Values, const char*> || std::is_same_v<Values, int>)&&...),
                      "the formats convert %s and %d, nothing else");
// Every format is a literal of this library, passed through.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        if (m_jobId)
            m_log.DebugLvl(m_tag, level, static_cast<long long>(*m_jobId), format, values...);
        else
            m_log.DebugLvl(m_tag, level, format, values...);
#pragma GCC diagnostic pop
    }

    EvDebug& m_log;
    const char* m_tag;
    std::optional<unsigned long long> m_jobId;
};

// The three contexts in which a function may write. Each stays open until the call ends.

struct FocusedPlatform : ZNPI_PlatformBase
{
    FocusedPlatform() { setFocus(ZNPI_Focus::getFocus()); }
};

struct FullContext
{
    FocusedPlatform m_platform;
    EvEvent m_log;
};

struct EventContext
{
    EvEvent m_log;
};

struct PlainContext
{
    EvDebug m_log{nullptr};
};

// A log with its context: the context opens before the first line and closes after the last.
template <class Context>
class CallLogIn : private Context, public CallLog
{
public:
    explicit CallLogIn(const char* tag, std::optional<unsigned long long> jobId = std::nullopt)
        : CallLog(Context::m_log, tag, jobId)
    {
    }
};

using FullLog = CallLogIn<FullContext>;
using EventLog = CallLogIn<EventContext>;
using PlainLog = CallLogIn<PlainContext>;
