// The content of a directory, as it should be.
#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace simulated
{

struct Entry
{
    std::filesystem::file_type type;
    std::string text; // the line of a file, the target of a link
};

// The entries, by path below the directory. Parents come before children.
using Tree = std::map<std::filesystem::path, Entry>;

// They add what leads to `path`, too.
void AddDirectory(Tree& tree, const std::filesystem::path& path);
void AddFile(Tree& tree, const std::filesystem::path& path, const std::string& line);
// `target` is a path of the same tree. The link ends with its name, as the kernel's links do.
void AddLink(Tree& tree, const std::filesystem::path& path, const std::filesystem::path& target);

// Changes `directory` from `before` to `after`. What is in both is not touched: a reader always finds
// it, and what a person has written into it stays. Links come last and go first: who follows one finds
// all behind it.
void WriteTree(const Tree& before, const Tree& after, const std::filesystem::path& directory);

} // namespace simulated
