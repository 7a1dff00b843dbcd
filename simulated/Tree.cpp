#include "simulated/Tree.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace simulated
{
namespace fs = std::filesystem;
namespace
{

void Create(const fs::path& path, const Entry& entry)
{
    if (entry.type == fs::file_type::directory)
        fs::create_directories(path);
    else if (entry.type == fs::file_type::symlink)
        fs::create_symlink(entry.text, path);
    else
        std::ofstream(path) << entry.text << '\n';
}

// The entries of one tree that the other does not have.
Tree Difference(const Tree& tree, const Tree& other)
{
    Tree rest;
    std::set_difference(tree.begin(), tree.end(), other.begin(), other.end(),
                        std::inserter(rest, rest.end()), tree.value_comp());
    return rest;
}

} // namespace

void AddDirectory(Tree& tree, const fs::path& path)
{
    if (path.empty())
        return;
    AddDirectory(tree, path.parent_path());
    tree.try_emplace(path, Entry{fs::file_type::directory, ""});
}

void AddFile(Tree& tree, const fs::path& path, const std::string& line)
{
    AddDirectory(tree, path.parent_path());
    tree[path] = {fs::file_type::regular, line};
}

void AddLink(Tree& tree, const fs::path& path, const fs::path& target)
{
    AddDirectory(tree, path.parent_path());
    tree[path] = {fs::file_type::symlink,
                  target.parent_path().lexically_relative(path.parent_path()) / target.filename()};
}

void WriteTree(const Tree& before, const Tree& after, const fs::path& directory)
{
    const Tree gone = Difference(before, after);
    const Tree fresh = Difference(after, before);
    for (const bool links : {true, false})
        for (auto each = gone.rbegin(); each != gone.rend(); ++each)
            if ((each->second.type == fs::file_type::symlink) == links)
                fs::remove(directory / each->first);
    for (const bool links : {false, true})
        for (const auto& [path, entry] : fresh)
            if ((entry.type == fs::file_type::symlink) == links)
                Create(directory / path, entry);
}

} // namespace simulated
