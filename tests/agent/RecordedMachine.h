// The folders and files of a recorded machine.
#pragma once

#include "tests/agent/ReadLines.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

// The machine of recorded/two-portals.tree, unpacked into a folder.
class RecordedMachine
{
public:
    RecordedMachine()
    {
        for (const std::string& line : ReadLines(HERE "/recorded/two-portals.tree"))
            Change(line);
    }
    RecordedMachine(const RecordedMachine&) = delete;
    RecordedMachine& operator=(const RecordedMachine&) = delete;
    ~RecordedMachine() { std::filesystem::remove_all(m_root); }

    const std::filesystem::path& Root() const { return m_root; }

    // Changes it by a line as in machines.txt.
    void Change(const std::string& line)
    {
        if (line.rfind("gone ", 0) == 0)
            std::filesystem::remove_all(m_root / line.substr(5));
        else if (line.back() == '/')
            std::filesystem::create_directories(m_root / line);
        else if (const std::size_t arrow = line.find(" -> "); arrow != std::string::npos)
        {
            std::filesystem::create_directories((m_root / line.substr(0, arrow)).parent_path());
            std::filesystem::create_symlink(line.substr(arrow + 4), m_root / line.substr(0, arrow));
        }
        else
        {
            const std::size_t colon = line.find(": ");
            const std::filesystem::path file = m_root / line.substr(0, colon);
            std::filesystem::create_directories(file.parent_path());
            std::ofstream(file) << Unescaped(line.substr(colon + 2)) << '\n';
        }
    }

private:
    static std::string Unescaped(std::string text)
    {
        for (const auto& [escape, character] : {std::pair("\\n", "\n"), std::pair("\\134", "\\")})
            for (std::size_t at = 0; (at = text.find(escape, at)) != std::string::npos; ++at)
                text.replace(at, std::string(escape).size(), character);
        return text;
    }

    std::filesystem::path m_root =
        std::filesystem::canonical(testing::TempDir()) / ("machine-" + std::to_string(::getpid()));
};
