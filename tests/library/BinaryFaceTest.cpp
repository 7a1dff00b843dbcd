// The built file: what it exports, and what it needs in which order.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

namespace
{

// What a tool of the compiler's prints about the library.
std::string ToolOutput(const std::string& tool)
{
    const std::string command = tool + " '" LIBRARY "' 2>&1";
    FILE* const opened = popen(command.c_str(), "r"); // NOLINT(cert-env33-c): no outside text in it
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(opened, &pclose);
    std::string output;
    std::array<char, 4096> chunk{};
    while (pipe && std::fgets(chunk.data(), chunk.size(), pipe.get()) != nullptr)
        output += chunk.data();
    return output;
}

TEST(BinaryFace, ExportsTheFunctionsAndNothingElse)
{
    std::set<std::string> expected;
    std::ifstream list(DATA "exported-functions.txt");
    for (std::string function; std::getline(list, function);)
        expected.insert(function);
    EXPECT_EQ(expected.size(), 23U);
    const auto shortened = [](std::string name) {
        const auto replaceAll = [&name](const std::string& from, const std::string& to) {
            for (std::size_t at; (at = name.find(from)) != std::string::npos;)
                name.replace(at, from.size(), to);
        };
        replaceAll("std::__cxx11::", "std::");
        replaceAll("std::basic_string<char, std::char_traits<char>, std::allocator<char> >",
                   "std::string");
        for (const char* element : {"std::string ", "DellMPIOSessionInfo", "iSSCSISessionInfo"})
            replaceAll(std::string(", std::allocator<") + element + "> >", ">");
        return name;
    };
    std::set<std::string> exported;
    std::istringstream symbols(ToolOutput("nm -D -C --defined-only"));
    for (std::string address, kind, name;
         symbols >> address >> kind && std::getline(symbols >> std::ws, name);)
        exported.insert(shortened(name));
    EXPECT_EQ(exported, expected);
}

TEST(BinaryFace, NeedsTheHostsLibrariesFirstAndInOrder)
{
    std::vector<std::string> needed;
    std::istringstream lines(ToolOutput("readelf -d -W"));
    for (std::string line; std::getline(lines, line);)
    {
        const bool isSanitizer =
            line.find("san.so") != std::string::npos; // the compiler puts its own in front
        if (line.find("(NEEDED)") != std::string::npos && !isSanitizer)
            needed.push_back(line.substr(line.find('[')));
    }
    needed.resize(std::min<std::size_t>(needed.size(), 4));
    EXPECT_EQ(needed, (std::vector<std::string>{"[libZnLib.so]", "[libZNSnapHandler.so]",
                                                "[libZnDeviceTree.so]", "[libHxUtils.so]"}));
}

} // namespace
