#include "Session/SessionSearch.h"

#include "Session/ControlBlock.h"
#include "Session/Failure.h"
#include "Session/ProcessWatch.h"
#include "Session/SessionDirectory.h"
#include "Session/SessionProcesses.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

constexpr std::string_view ZORV_SESSION_VARIABLE = "QELIX_SESSION_DIR=";
constexpr std::string_view ZORV_BLOCK_KEY = "QELIX_SHM_NAME=";
constexpr std::string_view ZORV_RANK_START = "rank=";
constexpr int ZORV_MOST_ANCESTORS = 64;

// The session that the process was started in; empty when its environment does not tell.
std::string SessionInEnvironment(pid_t pid)
{
    std::ifstream file(fmt::format("/proc/{}/environ", pid));
    for (std::string entry; std::getline(file, entry, '\0');)
    {
        if (entry.starts_with(ZORV_SESSION_VARIABLE))
        {
            return entry.substr(ZORV_SESSION_VARIABLE.size());
        }
    }
    return "";
}

// Servers write their titles over their environment: then an ancestor's tells.
std::string SessionOfProcess(pid_t pid)
{
    if (kill(pid, 0) != 0 && errno == ESRCH)
    {
        throw Failure(ZORV_FAILURE_NO_SESSION, "-p {}: there is no such process; name the session's directory",
                      pid);
    }
    pid_t ancestor = pid;
    for (int i = 0; i < ZORV_MOST_ANCESTORS && ancestor > 1; ++i)
    {
        if (std::string path = SessionInEnvironment(ancestor); !path.empty())
        {
            return path;
        }
        ancestor = ParentOf(ancestor);
    }
    throw Failure(ZORV_FAILURE_NO_SESSION,
                  "-p {}: this process belongs to no session, or to another user; name the session's directory",
                  pid);
}

std::string BlockInConfiguration(const std::string& path)
{
    std::ifstream file(ConfigurationFile(path));
    for (std::string line; std::getline(file, line);)
    {
        if (line.starts_with(ZORV_BLOCK_KEY))
        {
            return line.substr(ZORV_BLOCK_KEY.size());
        }
    }
    return "";
}

bool IsAlive(pid_t pid)
{
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

// After a restart, and on another host that shares the directory, the ids and the name mean something else.
bool IsOfThisBoot(const SessionRecord& record)
{
    const MachineFacts machine = ThisMachine();
    const MachineFacts& then = record.m_machine;
    return then.m_bootId.empty() || machine.m_bootId.empty() || then.m_bootId == machine.m_bootId;
}

bool IsOfAgent(const fs::path& path)
{
    const std::string ending = path.extension();
    for (const char* pOurs : {".umt", ".ums", ".meta", ".txt", ".err"})
    {
        if (ending == pOurs)
        {
            return true;
        }
    }
    return false;
}

void RemoveOurFiles(const std::string& folder)
{
    std::error_code error;
    std::error_code gone;
    for (fs::directory_iterator entry(folder, gone), end; !gone && entry != end; entry.increment(gone))
    {
        if (IsOfAgent(entry->path()) && entry->is_regular_file(error))
        {
            fs::remove(entry->path(), error);
        }
    }
}

// The link that an agent takes to a rank, and the job's directory behind its last rank.
void RemoveFromJob(const fs::path& session)
{
    const std::string name = session.filename();
    if (!name.starts_with(ZORV_RANK_START))
    {
        return;
    }
    std::error_code error;
    const fs::path link = session.parent_path() / (".rank-" + name.substr(ZORV_RANK_START.size()));
    if (fs::is_symlink(link, error))
    {
        fs::remove(link, error);
    }
    fs::remove(session.parent_path(), error); // unless it holds anything
}

} // namespace

bool IsSession(const std::string& path)
{
    std::error_code error;
    return fs::is_directory(TraceFolder(path), error) && fs::is_directory(LogFolder(path), error) &&
           (fs::is_regular_file(RecordFilePath(path), error) ||
            fs::is_regular_file(ConfigurationFile(path), error));
}

SessionTarget SessionAt(const std::string& path)
{
    std::error_code error;
    const fs::path real = fs::canonical(path, error);
    if (error || !IsSession(real))
    {
        throw NoSession(path);
    }
    SessionTarget session{real, "", ReadSessionRecord(real)};
    if (IsOfThisBoot(session.m_record))
    {
        session.m_blockName =
            session.m_record.m_blockName.empty() ? BlockInConfiguration(real) : session.m_record.m_blockName;
    }
    return session;
}

SessionTarget FindSession(const std::string& directory, std::optional<pid_t> pid)
{
    if (!directory.empty() || !pid)
    {
        return SessionAt(directory.empty() ? "qelix-last" : directory);
    }
    SessionTarget session = SessionAt(SessionOfProcess(*pid));
    if (std::string mapped = BlockMappedBy(*pid); !mapped.empty())
    {
        session.m_blockName = std::move(mapped);
    }
    return session;
}

SessionState StateOf(const SessionTarget& session)
{
    const auto collection = CollectionStateOf(session.m_blockName);
    const bool hasProcess = !LiveProcessesOf(session.m_path, session.m_blockName).empty();
    const SessionRecord& record = session.m_record;
    const bool isProgramThere = collection && !record.m_waitStatus && IsAlive(record.m_launcherPid);
    const bool isForOthers = record.m_launcherPid == 0 && record.m_programPid == 0;
    const bool isWaiting = isForOthers && collection && collection != ZORV_COLLECTION_STOPPED;
    // Once they are stopped, agents are not seen any more; qelix itself may have been killed before.
    const bool isLeftAlone =
        collection == ZORV_COLLECTION_STOPPED && !record.m_waitStatus && IsAlive(record.m_programPid);
    if (!hasProcess && !isProgramThere && !isWaiting && !isLeftAlone)
    {
        return record.m_waitStatus || isForOthers ? ZORV_SESSION_ENDED : ZORV_SESSION_ABANDONED;
    }
    if (collection == ZORV_COLLECTION_STOPPED)
    {
        return ZORV_SESSION_STOPPED;
    }
    if (collection == ZORV_COLLECTION_PAUSED)
    {
        return ZORV_SESSION_PAUSED;
    }
    return hasProcess || isProgramThere ? ZORV_SESSION_RUNNING : ZORV_SESSION_WAITING;
}

std::string EndText(int waitStatus)
{
    if (WIFSIGNALED(waitStatus))
    {
        const int signal = WTERMSIG(waitStatus);
        return fmt::format("was ended by signal {} ({})", signal, strsignal(signal));
    }
    return fmt::format("ended with status {}", WEXITSTATUS(waitStatus));
}

std::string StateText(const SessionTarget& session, SessionState state)
{
    switch (state)
    {
    case ZORV_SESSION_RUNNING:
        return "running";
    case ZORV_SESSION_PAUSED:
        return "paused";
    case ZORV_SESSION_STOPPED:
        return "stopped";
    case ZORV_SESSION_WAITING:
        return "waiting for a program";
    case ZORV_SESSION_ENDED:
        return session.m_record.m_waitStatus ? EndText(*session.m_record.m_waitStatus) : "ended";
    case ZORV_SESSION_ABANDONED:
        break;
    }
    return "cut off: its end was not seen";
}

bool RemoveSession(const SessionTarget& session)
{
    std::error_code error;
    for (const std::string& folder :
         {LogFolder(session.m_path), ErrorFolder(session.m_path), TraceFolder(session.m_path),
          SampleFolder(session.m_path), MetadataFolder(session.m_path)})
    {
        if (!fs::is_symlink(folder, error))
        {
            RemoveOurFiles(folder);
            fs::remove(folder, error);
        }
    }
    fs::remove(ConfigurationFile(session.m_path), error);
    fs::remove(RecordFilePath(session.m_path), error);
    fs::remove(SummaryFilePath(session.m_path), error);
    RemoveControlBlock(session.m_blockName);
    const bool isRemoved = fs::remove(session.m_path, error);
    if (isRemoved)
    {
        RemoveFromJob(session.m_path);
    }
    return isRemoved;
}

} // namespace qelix
