#include "agent/Output.h"

#include "agent/Terminal.h"
#include "standalone/znlib/Text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace
{

void Write(const std::string& text)
{
    EraseStatusLine();
    const bool taken = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (!taken || std::fflush(stdout) != 0)
        throw Failure(Exit::Failed,
                      {std::string("cannot write to standard output: ") + std::strerror(errno)});
}

} // namespace

Failure::Failure(Exit exit, const std::vector<std::string>& reasons)
    : std::runtime_error(reasons.front()),
      answer(std::make_shared<Answer>(Answer{"", nlohmann::ordered_json::object(), exit, reasons}))
{
}

void PrintText(const Answer& answer)
{
    Write(answer.text);
}

void PrintJson(const Answer& answer)
{
    nlohmann::ordered_json object{{"ok", answer.exit == Exit::Done}};
    if (answer.exit != Exit::Done)
        object.update({{"exit", static_cast<int>(answer.exit)}, {"reasons", answer.reasons}});
    object.update(answer.fields);
    // Names from outside need not be UTF-8.
    Write(object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n');
}

void Complain(const std::string& line)
{
    EraseStatusLine();
    std::cerr << "zniscsi: " + znhost::Printable(line) + '\n';
}
