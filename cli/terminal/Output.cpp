#include "cli/terminal/Output.h"

#include "cli/terminal/StatusLine.h"
#include "standalone/helpers/Text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

namespace cli
{

namespace
{

struct CauseEntry
{
    const char* name;
    Cause cause;
    int exitStatus;
};

constexpr CauseEntry kCauses[] = {{"no-record", Cause::NoRecord, 1},
                                  {"no-session", Cause::NoSession, 1},
                                  {"session-failed", Cause::SessionFailed, 1},
                                  {"not-authorized", Cause::NotAuthorized, 1},
                                  {"unreachable", Cause::Unreachable, 1},
                                  {"timed-out", Cause::TimedOut, 1},
                                  {"in-use", Cause::InUse, 1},
                                  {"no-device", Cause::NoDevice, 1},
                                  {"usage", Cause::Usage, 2},
                                  {"not-served", Cause::NotServed, 3},
                                  {"tool-missing", Cause::ToolMissing, 4},
                                  {"tool-failed", Cause::ToolFailed, 1}};

const CauseEntry& FindCause(Cause cause)
{
    return *std::find_if(std::begin(kCauses), std::end(kCauses),
                         [cause](const CauseEntry& each) { return each.cause == cause; });
}

void Write(const std::string& text)
{
    EraseStatus();
    const bool isTaken = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (!isTaken || std::fflush(stdout) != 0)
        throw Failure(Cause::ToolFailed,
                      {std::string("cannot write to standard output: ") + std::strerror(errno)});
}

// Names from outside may be invalid UTF-8 or contain control sequences of terminals.
void MakePrintable(Json& json)
{
    if (json.is_string())
        json = znlib::Printable(json.get_ref<const std::string&>());
    else if (json.is_structured())
        for (Json& item : json)
            MakePrintable(item);
}

} // namespace

const char* NameOf(Cause cause)
{
    return FindCause(cause).name;
}

int ExitStatusOf(Cause cause)
{
    return FindCause(cause).exitStatus;
}

Answer FailedAnswer(Cause cause, std::vector<std::string> reasons)
{
    Answer answer;
    answer.cause = cause;
    answer.reasons = std::move(reasons);
    return answer;
}

Failure::Failure(Cause cause, const std::vector<std::string>& reasons)
    : std::runtime_error(reasons.front()),
      answer(std::make_shared<const Answer>(FailedAnswer(cause, reasons)))
{
}

Answer AnswerOf(const std::function<Answer()>& command)
try
{
    return command();
}
catch (const Failure& failure)
{
    return *failure.answer;
}
catch (const std::exception& error)
{
    return FailedAnswer(Cause::ToolFailed, {error.what()});
}

Json ObjectOf(const Answer& answer)
{
    Json object{{"ok", !answer.cause}};
    if (answer.cause)
        object.update({{"exit", ExitStatusOf(*answer.cause)},
                       {"cause", NameOf(*answer.cause)},
                       {"reasons", answer.reasons}});
    object.update(answer.fields);
    return object;
}

Json TextOrNull(const std::string& text)
{
    return text.empty() ? Json() : Json(text);
}

void PrintText(const Answer& answer)
{
    Write(answer.text);
}

void PrintJson(const Answer& answer)
{
    Json object = ObjectOf(answer);
    MakePrintable(object);
    Write(object.dump() + '\n');
}

void PrintError(const std::string& line)
{
    EraseStatus();
    WriteToStandardError("zniscsi: " + znlib::Printable(line) + '\n');
}

} // namespace cli
