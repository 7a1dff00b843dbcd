#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

inline std::vector<std::string> ReadLines(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}
