#include "simulated/State.h"

#include "simulated/Json.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace simulated
{

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(NodeRecord, iqn, portal, tpgt, settings)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Session, sid, host, iqn, portal, user, userIn, startedMs, looks,
                                   mpioLooks, disks)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(State, lastSid, nodes, sessions, dmNumbers, knownMaps, faultRuns)

std::string NodeRecord::Setting(const std::string& name) const
{
    const auto found = settings.find(name);
    return found == settings.end() ? "" : found->second;
}

int LowestFree(const std::set<int>& used)
{
    int number = 0;
    while (used.count(number) != 0)
        ++number;
    return number;
}

StateFile::StateFile(const std::filesystem::path& folder) : m_file(folder / "state.json")
{
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    const std::string lockFile = folder / "lock";
    m_lock = open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (m_lock < 0 || flock(m_lock, LOCK_EX) != 0)
        throw Unusable("cannot lock " + lockFile + ": " + std::strerror(errno));
    if (!std::filesystem::exists(m_file))
        return;
    std::ifstream stream(m_file);
    try
    {
        state = nlohmann::json::parse(stream);
    }
    catch (const nlohmann::json::exception& error)
    {
        close(m_lock);
        throw Unusable("cannot use the state " + m_file.string() + ": " + error.what());
    }
}

StateFile::~StateFile()
{
    close(m_lock);
}

void StateFile::Save() const
{
    const std::string fresh = m_file.string() + ".new";
    const mode_t before = umask(S_IRWXG | S_IRWXO);
    std::ofstream stream(fresh);
    umask(before);
    stream << nlohmann::json(state).dump(2) << '\n';
    stream.close();
    if (!stream || std::rename(fresh.c_str(), m_file.c_str()) != 0)
        throw Unusable("cannot write " + fresh + ": " + std::strerror(errno));
}

} // namespace simulated
