#include "agent/Output.h"

#include "agent/Terminal.h"
#include "standalone/znlib/Text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

void Write(const std::string& text)
{
    EraseStatusLine();
    const bool isTaken = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (!isTaken || std::fflush(stdout) != 0)
        throw Failure(Cause::ToolFailed,
                      {std::string("cannot write to standard output: ") + std::strerror(errno)});
}

// Names from outside may be invalid UTF-8 or contain control sequences of terminals.
void MakePrintable(nlohmann::ordered_json& json)
{
    if (json.is_string())
        json = znhost::Printable(json.get_ref<const std::string&>());
    else if (json.is_structured())
        for (nlohmann::ordered_json& item : json)
            MakePrintable(item);
}

} // namespace

const char* NameOf(Cause cause)
{
    switch (cause)
    {
    case Cause::NoRecord:
        return "no-record";
    case Cause::NoSession:
        return "no-session";
    case Cause::SessionFailed:
        return "session-failed";
    case Cause::NotAuthorized:
        return "not-authorized";
    case Cause::Unreachable:
        return "unreachable";
    case Cause::TimedOut:
        return "timed-out";
    case Cause::InUse:
        return "in-use";
    case Cause::NoDevice:
        return "no-device";
    case Cause::Usage:
        return "usage";
    case Cause::NotServed:
        return "not-served";
    case Cause::ToolMissing:
        return "tool-missing";
    case Cause::ToolFailed:
        break;
    }
    return "tool-failed";
}

int ExitStatusOf(Cause cause)
{
    switch (cause)
    {
    case Cause::Usage:
        return 2;
    case Cause::NotServed:
        return 3;
    case Cause::ToolMissing:
        return 4;
    default:
        return 1;
    }
}

Failure::Failure(Cause cause, const std::vector<std::string>& reasons)
    : std::runtime_error(reasons.front()),
      answer(std::make_shared<Answer>(Answer{"", nlohmann::ordered_json::object(), cause, reasons}))
{
}

void PrintText(const Answer& answer)
{
    Write(answer.text);
}

void PrintJson(const Answer& answer)
{
    nlohmann::ordered_json object{{"ok", !answer.cause}};
    if (answer.cause)
        object.update({{"exit", ExitStatusOf(*answer.cause)},
                       {"cause", NameOf(*answer.cause)},
                       {"reasons", answer.reasons}});
    object.update(answer.fields);
    MakePrintable(object);
    Write(object.dump() + '\n');
}

void PrintError(const std::string& line)
{
    EraseStatusLine();
    WriteToStandardError("zniscsi: " + znhost::Printable(line) + '\n');
}
