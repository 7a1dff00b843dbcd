// The detector: release files of many systems, and those of this one.
#include "standalone/znlib/OsDetector.h"

#include "host/OSType.h"
#include "standalone/znlib/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

TEST(OsDetector, ReadsReleaseFiles)
{
    const fs::path root = testing::TempDir() + "os-" + std::to_string(::getpid());
    std::ifstream lines(DATA "os-releases.txt");
    int systems = 0;
    for (std::string line; std::getline(lines, line);)
    {
        if (line.front() == '#')
            continue;
        const std::size_t arrow = line.find("=> ");
        std::string files = line.substr(0, arrow);
        while (!files.empty())
        {
            const std::size_t colon = files.find(": ");
            const std::size_t end = std::min(files.find(" + "), files.size() - 1);
            std::string text = files.substr(colon + 2, end - colon - 2);
            std::replace(text.begin(), text.end(), '|', '\n');
            const fs::path path = root / files.substr(0, colon);
            fs::create_directories(path.parent_path());
            std::ofstream(path) << text << '\n';
            files.erase(0, end + 3);
        }
        const auto system = znhost::ReadOperatingSystem(root);
        const std::string found = std::to_string(system.family) + ' ' + std::to_string(system.release);
        EXPECT_EQ("=> " + found, line.substr(arrow, line.find(',', arrow) - arrow)) << line;
        fs::remove_all(root);
        ++systems;
    }
    EXPECT_EQ(systems, 18);
}

TEST(OsDetector, FillsTheGlobalsAndKeepsThemIfItCannotLook)
{
    const znhost::OperatingSystem system = znhost::ReadOperatingSystem("/");
    const auto detect = [&system] {
        detectOSType();
        EXPECT_EQ(g_iOsType, system.family);
        EXPECT_EQ(g_iOsVersion, system.release);
    };
    std::thread other(detect);
    detect();
    other.join();

    std::string said;
    const znhost::LogTap tap([](int level, const char*, const char*) { return level < 0; },
                             [&](const znhost::LogEntry& entry) { said = entry.text; });
    g_iOsType = 1;
    g_iOsVersion = 99;
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{0, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    detectOSType();
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(g_iOsType, 1);
    EXPECT_EQ(g_iOsVersion, 99);
    EXPECT_EQ(said.find("cannot read /etc/os-release: Too many open files"), 0U) << said;
}
