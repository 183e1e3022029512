#include "Report/SessionFacts.h"

#include "Report/ProcessFiles.h"
#include "Session/Failure.h"
#include "Session/ProcessWatch.h"
#include "Session/SessionDirectory.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <tuple>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_LOCKS_SHOWN = 10;

// Only the worst locks are kept, so that a session of many processes needs the memory of one.
void KeepWorstLocks(SessionFacts* pSession, TraceFacts* pProcess)
{
    std::vector<LockFacts>& locks = pSession->m_locks;
    std::move(pProcess->m_locks.begin(), pProcess->m_locks.end(), std::back_inserter(locks));
    pProcess->m_locks.clear();
    pProcess->m_locks.shrink_to_fit();
    std::sort(locks.begin(), locks.end(), IsWorseLock);
    locks.resize(std::min(locks.size(), ZORV_LOCKS_SHOWN));
}

ProcessFacts ReadProcess(const ProcessFiles& files, ProcessSymbols* pSymbols, const SampleView& view)
{
    ProcessFacts process;
    process.m_trace.m_isEmpty = true;
    if (!files.m_trace.empty())
    {
        process.m_trace = ReadTraceFacts(files.m_trace, pSymbols);
    }
    if (!files.m_sample.empty())
    {
        process.m_samples = ReadSampleFacts(files.m_sample, pSymbols, view);
    }
    const TraceFacts& trace = process.m_trace;
    const ProcessSamples& samples = process.m_samples;
    process.m_pid = trace.m_pid != 0 ? trace.m_pid
                    : samples.m_pid != 0
                        ? samples.m_pid
                        : PidInFileName(files.m_trace.empty() ? files.m_sample : files.m_trace);
    process.m_name = trace.m_name.empty() ? samples.m_name : trace.m_name;
    process.m_mpiRankId = trace.m_mpiRankId != 0 ? trace.m_mpiRankId : samples.m_mpiRankId;
    process.m_mapDamage = pSymbols->m_map.m_damage;
    return process;
}

std::set<std::string> PathsIn(const ModuleMap& map)
{
    std::set<std::string> paths;
    for (const Mapping& mapping : map.m_mappings)
    {
        paths.insert(mapping.m_path);
    }
    return paths;
}

bool IsBusier(const ProcessFacts& a, const ProcessFacts& b)
{
    return std::tuple(b.m_trace.m_totalNs, b.m_samples.m_samples, a.m_pid) <
           std::tuple(a.m_trace.m_totalNs, a.m_samples.m_samples, b.m_pid);
}

std::vector<std::pair<TraceClass, CallFacts>> ByClass(const std::vector<const NamedCalls*>& calls)
{
    std::map<TraceClass, CallFacts> classes;
    for (const NamedCalls* pCalls : calls)
    {
        AddCalls(&classes[ClassOf(*pCalls->m_pKind)], pCalls->m_facts);
    }
    return {std::make_move_iterator(classes.begin()), std::make_move_iterator(classes.end())};
}

} // namespace

SessionFacts ReadSessionFacts(const std::string& path, const SampleView& view)
{
    std::error_code error;
    if (!std::filesystem::is_directory(TraceFolder(path), error))
    {
        throw Failure(ZORV_STATUS_DAMAGED,
                      "{} is no session: it has no folder \"trace\"; name a directory that qelix run has made",
                      path);
    }
    SessionFacts session{path, ReadSettings(path)};
    const SessionRecord record = ReadSessionRecord(path);
    session.m_periodNs = std::max(session.m_settings.m_intervalNs.value_or(0), record.m_tickNs.value_or(0));
    session.m_pSymbolizer = std::make_shared<Symbolizer>();
    SampleView viewOfSession = view;
    viewOfSession.m_depth = session.m_settings.m_depth.value_or(0);
    std::map<pid_t, std::set<std::string>> mapped;
    std::vector<pid_t> recorded;
    for (const auto& [name, files] : FilesOfProcesses(path))
    {
        ProcessSymbols symbols = SymbolsOf(session.m_pSymbolizer.get(), ReadModuleMap(files.m_metadata));
        ProcessFacts process = ReadProcess(files, &symbols, viewOfSession);
        KeepWorstLocks(&session, &process.m_trace);
        recorded.push_back(static_cast<pid_t>(process.m_pid));
        mapped[recorded.back()].merge(PathsIn(symbols.m_map));
        session.m_processes.push_back(std::move(process));
    }
    std::sort(session.m_processes.begin(), session.m_processes.end(), IsBusier);
    std::sort(recorded.begin(), recorded.end());
    session.m_agentErrors = ReadAgentErrors(path);
    session.m_log = ReadAgentLogs(path);
    session.m_tree =
        MakeProcessTree(record, session.m_log, recorded,
                        [&mapped](pid_t pid, const std::string& file) { return mapped[pid].contains(file); });
    return session;
}

bool IsDamaged(const SessionFacts& session)
{
    return std::any_of(session.m_processes.begin(), session.m_processes.end(),
                       [](const ProcessFacts& process) {
                           return process.m_trace.m_damage || process.m_samples.m_damage || process.m_mapDamage;
                       });
}

uint64_t SampleCount(const SessionFacts& session)
{
    uint64_t count = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        count += process.m_samples.m_samples;
    }
    return count;
}

std::vector<std::pair<TraceClass, CallFacts>> CallsByClass(const std::vector<NamedCalls>& calls)
{
    std::vector<const NamedCalls*> pointers;
    for (const NamedCalls& named : calls)
    {
        pointers.push_back(&named);
    }
    return ByClass(pointers);
}

std::vector<std::pair<TraceClass, CallFacts>> CallsByClass(const TraceFacts& process)
{
    std::vector<const NamedCalls*> pointers;
    for (const ThreadFacts& thread : process.m_threads)
    {
        for (const NamedCalls& named : thread.m_calls)
        {
            pointers.push_back(&named);
        }
    }
    return ByClass(pointers);
}

} // namespace qelix
