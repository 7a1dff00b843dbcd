// The directories and files of a recorded machine.
#pragma once

#include "tests/cli/Steps.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <unistd.h>

// The machine of recorded/two-portals.tree, unpacked into a directory.
class RecordedMachine
{
public:
    RecordedMachine()
    {
        for (const std::string& line : ReadLines(HERE "/recorded/two-portals.tree"))
            Change(m_root, line);
    }
    RecordedMachine(const RecordedMachine&) = delete;
    RecordedMachine& operator=(const RecordedMachine&) = delete;
    ~RecordedMachine() { std::filesystem::remove_all(m_root); }

    const std::filesystem::path& Root() const { return m_root; }

    // Changes the machine below `root`:
    //   PATH: TEXT        a file with this line; \n, \033 and \134 as in printf
    //   PATH -> TARGET    a symbolic link; for .../dm-0/slaves/sdd also the kernel's link back
    //   PATH/             a directory
    //   gone PATH
    static void Change(const std::filesystem::path& root, const std::string& line)
    {
        namespace fs = std::filesystem;
        if (line.rfind("gone ", 0) == 0)
            fs::remove_all(root / line.substr(5));
        else if (line.back() == '/')
            MakeDirectory(root / line);
        else if (const std::size_t arrow = line.find(" -> "); arrow != std::string::npos)
            Link(root, line.substr(0, arrow), line.substr(arrow + 4));
        else
        {
            const std::size_t colon = line.find(": ");
            const fs::path file = root / line.substr(0, colon);
            MakeDirectory(file.parent_path());
            std::ofstream(file) << Unescaped(line.substr(colon + 2)) << '\n';
        }
    }

private:
    // GCC 10's create_directories refuses a link to a directory.
    static void MakeDirectory(const std::filesystem::path& directory)
    {
        if (!is_directory(directory))
            create_directories(directory);
    }

    static void Link(const std::filesystem::path& root, const std::filesystem::path& link,
                     const std::string& target)
    {
        MakeDirectory((root / link).parent_path());
        std::filesystem::create_symlink(target, root / link);
        const std::filesystem::path slaves = link.parent_path();
        if (slaves.filename() != "slaves")
            return;
        const std::string beneath = link.filename(), holder = slaves.parent_path().filename();
        const std::filesystem::path holders = root / "sys/class/block" / beneath / "holders";
        MakeDirectory(holders);
        std::filesystem::create_symlink(holder, holders / holder);
    }

    static std::string Unescaped(std::string text)
    {
        for (const auto& [escape, character] :
             {std::pair("\\n", "\n"), std::pair("\\033", "\x1b"), std::pair("\\134", "\\")})
            for (std::size_t at = 0; (at = text.find(escape, at)) != std::string::npos; ++at)
                text.replace(at, std::string(escape).size(), character);
        return text;
    }

    std::filesystem::path m_root =
        std::filesystem::canonical(testing::TempDir()) / ("machine-" + std::to_string(::getpid()));
};
