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
    return word.front() == '@' ? ReadData(word.substr(1)) : word;
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

} // namespace

std::vector<Case> ParseCases(const std::string& text)
{
    Case common;
    std::vector<Case> cases;
    std::istringstream lines(text);
    int number = 0;
    for (std::string line; std::getline(lines, line);)
    {
        ++number;
        std::vector<Statement>& statements =
            cases.empty() ? common.statements : cases.back().statements;
        if (line.empty() || line.front() == '#')
            continue;
        if (line.compare(0, 5, "case ") == 0)
            cases.push_back({line.substr(5), common.statements});
        else if (line.compare(0, 2, "  ") == 0)
            statements.back().transcript += line.substr(2) + '\n';
        else if (line.front() == '|')
            *statements.back().words.back() += Unescaped(line.substr(1)) + '\n';
        else
            statements.push_back({number, ParseWords(line), {}});
    }
    return cases;
}

std::string ReadData(const std::string& name)
{
    const std::ifstream file(DATA + name);
    EXPECT_TRUE(file) << name;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}
