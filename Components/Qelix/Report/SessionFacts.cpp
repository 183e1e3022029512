#include "Report/SessionFacts.h"

#include "Session/AgentConfiguration.h"
#include "Session/Failure.h"
#include "Session/SessionDirectory.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <tuple>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_LOCKS_SHOWN = 10;

// Only the worst locks are kept, so that a session of many processes needs the memory of one.
void KeepWorstLocks(SessionFacts* pSession, ProcessFacts* pProcess)
{
    std::vector<LockFacts>& locks = pSession->m_locks;
    std::move(pProcess->m_locks.begin(), pProcess->m_locks.end(), std::back_inserter(locks));
    pProcess->m_locks.clear();
    pProcess->m_locks.shrink_to_fit();
    std::sort(locks.begin(), locks.end(), IsWorseLock);
    locks.resize(std::min(locks.size(), ZORV_LOCKS_SHOWN));
}

} // namespace

SessionFacts ReadSessionFacts(const std::string& path)
{
    std::error_code error;
    if (!std::filesystem::is_directory(TraceFolder(path), error))
    {
        throw Failure(ZORV_STATUS_DAMAGED,
                      "{} is no session: it has no folder \"trace\"; name a directory that qelix run has made",
                      path);
    }
    SessionFacts session{path, ReadThreshold(path)};
    for (const std::string& file : FilesIn(TraceFolder(path), ".umt"))
    {
        ProcessFacts process = ReadTraceFacts(file);
        KeepWorstLocks(&session, &process);
        session.m_processes.push_back(std::move(process));
    }
    std::sort(session.m_processes.begin(), session.m_processes.end(),
              [](const ProcessFacts& a, const ProcessFacts& b)
              { return std::tuple(b.m_totalNs, a.m_pid) < std::tuple(a.m_totalNs, b.m_pid); });
    session.m_agentErrors = ReadAgentErrors(path);
    session.m_log = ReadAgentLogs(path);
    return session;
}

bool IsDamaged(const SessionFacts& session)
{
    return std::any_of(session.m_processes.begin(), session.m_processes.end(),
                       [](const ProcessFacts& process) { return process.m_damage.has_value(); });
}

} // namespace qelix
