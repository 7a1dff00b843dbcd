#include "tests/library/CaseFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

namespace
{

std::string Unescaped(const std::string& text)
{
    static const std::map<char, char> escapes{{'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'\\', '\\'}};
    std::string unescaped;
    for (std::size_t at = 0; at < text.size(); ++at)
        unescaped += text[at] == '\\' ? escapes.at(text.at(++at)) : text[at];
    return unescaped;
}

Word ParseWord(const std::string& word)
{
    if (word == "null")
        return std::nullopt;
    if (word == "|") // what the lines below add to
        return "";
    return word.front() == '@' ? ReadFile("recorded/" + word.substr(1)) : word;
}

std::vector<Word> ParseWords(const std::string& line)
{
    std::vector<Word> words;
    for (std::size_t at = 0; (at = line.find_first_not_of(' ', at)) != std::string::npos;)
    {
        const bool isQuoted = line[at] == '"';
        const std::size_t end = std::min(line.find(isQuoted ? '"' : ' ', at + 1), line.size());
        if (isQuoted)
            words.emplace_back(Unescaped(line.substr(at + 1, end - at - 1)));
        else
            words.push_back(ParseWord(line.substr(at, end - at)));
        at = std::min(end + 1, line.size());
    }
    return words;
}

struct Line
{
    int number;
    std::string text;
};

// The lines with $1, $2, ... replaced by the words of `row`.
std::vector<Line> Filled(std::vector<Line> lines, const std::vector<Word>& row)
{
    for (Line& line : lines)
        for (std::size_t at = 0; (at = line.text.find('$', at)) != std::string::npos; ++at)
            if (const std::size_t column = static_cast<std::size_t>(line.text[at + 1] - '1');
                column < row.size())
                line.text.replace(at, 2, row[column].value());
    return lines;
}

std::vector<Statement> ParseStatements(const std::vector<Line>& lines)
{
    std::vector<Statement> statements;
    for (const auto& [number, text] : lines)
    {
        if (text.compare(0, 2, "  ") == 0)
        {
            Statement& call = statements.back();
            if (call.words[0] == "ask")
                call.expected.back() = ' ';
            call.expected += text.substr(2) + '\n';
        }
        else if (text.front() == '|')
            *statements.back().words.back() += Unescaped(text.substr(1)) + '\n';
        else if (text.compare(0, 4, "ask ") == 0)
        {
            const std::size_t answer = text.rfind(" = ");
            statements.push_back(
                {number, ParseWords(text.substr(0, answer)), text.substr(answer + 1) + '\n'});
        }
        else
            statements.push_back({number, ParseWords(text), ""});
    }
    return statements;
}

} // namespace

std::vector<Case> ParseCases(const std::string& text)
{
    struct Section
    {
        std::string name;
        std::vector<std::vector<Word>> rows{};
        std::vector<Line> lines{};
    };
    std::vector<Section> sections{{"common"}};
    std::istringstream stream(text);
    int number = 0;
    for (std::string line; std::getline(stream, line);)
    {
        ++number;
        if (line.empty() || line.front() == '#')
            continue;
        if (line.compare(0, 5, "case ") == 0)
            sections.push_back({line.substr(5), {}, sections.front().lines});
        else if (line.compare(0, 5, "with ") == 0)
            sections.back().rows.push_back(ParseWords(line.substr(5)));
        else
            sections.back().lines.push_back({number, line});
    }
    std::vector<Case> cases;
    for (auto section = sections.begin() + 1; section != sections.end(); ++section)
    {
        if (section->rows.empty())
            section->rows.emplace_back();
        for (const std::vector<Word>& row : section->rows)
            cases.push_back({section->name + (row.empty() ? "" : ", " + row[0].value()),
                             ParseStatements(Filled(section->lines, row))});
    }
    return cases;
}

std::string ReadFile(const std::string& name)
{
    const std::ifstream file(FILES + name);
    EXPECT_TRUE(file) << name;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}
