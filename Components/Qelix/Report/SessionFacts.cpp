#include "Report/SessionFacts.h"

#include "Report/ClockShift.h"
#include "Report/LockNames.h"
#include "Report/ProcessFiles.h"
#include "Report/ProcessSurvey.h"
#include "Report/SampleWeight.h"
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

// What the processes of a session have in common while they are read, one after the other.
struct Reading
{
    SampleView m_samples;
    const SessionView& m_view;
    uint64_t m_start; // of the session
    ClockShifts m_shifts;
    DataFiles m_dataFiles;
};

void KeepWorstLocks(SessionFacts* pSession, TraceFacts* pProcess, std::size_t kept)
{
    std::vector<LockFacts>& locks = pSession->m_locks;
    pSession->m_lockCount += pProcess->m_locks.size();
    pSession->m_foldedLocks += pProcess->m_foldedLocks;
    std::move(pProcess->m_locks.begin(), pProcess->m_locks.end(), std::back_inserter(locks));
    pProcess->m_locks.clear();
    pProcess->m_locks.shrink_to_fit();
    std::sort(locks.begin(), locks.end(), IsWorseLock);
    locks.resize(std::min(locks.size(), kept));
}

// A process may be wanted by its name, and threads by theirs, and locks go by the order in which all of them
// were used: all of that may stand anywhere in the files. Nothing where everything is wanted.
std::optional<SurveyedProcess> SurveyFor(const RecordFilter& wanted, const ProcessFiles& files)
{
    if (wanted.m_threads.empty() && wanted.m_processes.empty() && !wanted.m_from && !wanted.m_to)
    {
        return std::nullopt;
    }
    std::vector<Damage> told; // by the reading that follows
    return SurveyProcess("", files, {}, &told);
}

std::optional<ProcessFilter> FilterOf(const ProcessFiles& files, const std::optional<SurveyedProcess>& survey,
                                      const Reading& reading)
{
    const RecordFilter& wanted = reading.m_view.m_filter;
    const int64_t shift = ShiftOf(reading.m_shifts, AnyFile(files));
    ProcessFilter filter{{}, wanted.m_classes};
    if (wanted.m_from)
    {
        filter.m_from = Shifted(SaturatingAdd(reading.m_start, *wanted.m_from), -shift);
    }
    if (wanted.m_to)
    {
        filter.m_to = Shifted(SaturatingAdd(reading.m_start, *wanted.m_to), -shift);
    }
    if (survey && !MatchesAny(wanted.m_processes, survey->m_name, survey->m_pid))
    {
        return std::nullopt;
    }
    if (survey && !wanted.m_threads.empty())
    {
        filter.m_tids.emplace();
        for (const auto& [tid, thread] : survey->m_threads)
        {
            if (MatchesAny(wanted.m_threads, thread.m_name, tid))
            {
                filter.m_tids->insert(tid);
            }
        }
    }
    return filter;
}

ProcessFacts ReadProcess(const ProcessFiles& files, ProcessSymbols* pSymbols, Reading* pReading,
                         const std::optional<SurveyedProcess>& survey, const ProcessFilter& filter)
{
    ProcessFacts process;
    process.m_trace.m_isEmpty = true;
    if (!files.m_trace.empty())
    {
        process.m_trace = ReadTraceFacts(files.m_trace, pSymbols, filter);
        if (!process.m_trace.m_locks.empty())
        {
            NameLocks(&process.m_trace, survey ? survey->m_lockUses : UsesOf(process.m_trace.m_locks),
                      DataImagesOf(&pReading->m_dataFiles, pSymbols->m_map));
        }
    }
    if (!files.m_sample.empty() && !pReading->m_view.m_isWithoutSamples)
    {
        process.m_samples = ReadSampleFacts(files.m_sample, pSymbols, pReading->m_samples, filter);
    }
    const TraceFacts& trace = process.m_trace;
    const ProcessSamples& samples = process.m_samples;
    process.m_id = MarkedPidInFileName(AnyFile(files));
    const int64_t told = trace.m_id.m_pid != 0 ? trace.m_id.m_pid : samples.m_pid;
    process.m_id.m_pid = told != 0 ? static_cast<pid_t>(told) : process.m_id.m_pid;
    process.m_name = trace.m_name.empty() ? samples.m_name : trace.m_name;
    process.m_mpiRankId = trace.m_mpiRankId != 0 ? trace.m_mpiRankId : samples.m_mpiRankId;
    process.m_mapDamage = pSymbols->m_map.m_damage;
    process.m_span = trace.m_span;
    Join(&process.m_span, samples.m_span);
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
    return std::tuple(b.m_trace.m_totalNs, b.m_samples.m_samples, a.m_id) <
           std::tuple(a.m_trace.m_totalNs, a.m_samples.m_samples, b.m_id);
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

// Of a job's directory one of the sessions in it; empty when it is none.
std::string FirstRankIn(const std::string& path)
{
    std::string first;
    std::error_code error;
    for (std::filesystem::directory_iterator at(path, error), end; !error && at != end; at.increment(error))
    {
        std::error_code none;
        const std::string inner = at->path();
        if (at->path().filename().string().starts_with("rank=") &&
            std::filesystem::is_directory(TraceFolder(inner), none) && (first.empty() || inner < first))
        {
            first = inner;
        }
    }
    return first;
}

void RequireSession(const std::string& path)
{
    std::error_code error;
    if (!std::filesystem::is_directory(TraceFolder(path), error))
    {
        if (const std::string rank = FirstRankIn(path); !rank.empty())
        {
            throw Failure(
                ZORV_FAILURE_NO_SESSION,
                "{} is a job with a session for each rank: name one of them, as {}; qelix ranks {} compares "
                "them, qelix merge makes one session of all",
                path, rank, path)
                .At(path);
        }
        throw NoSession(path);
    }
}

RecordedFiles FilesOfRun(const SessionRecord& record)
{
    RecordedFiles files{record.m_buildIds, record.m_machine.m_bootId, {}};
    if (record.m_start)
    {
        files.m_startTime = static_cast<int64_t>(record.m_start->m_realtimeNs / 1'000'000'000);
    }
    return files;
}

} // namespace

SessionFacts ReadSessionFacts(const std::string& path, const SampleView& samples, const SessionView& view)
{
    RequireSession(path);
    SessionFacts session;
    session.m_path = path;
    session.m_record = ReadSessionRecord(path);
    session.m_settings = ReadSettings(path);
    session.m_bytes = BytesIn(path);
    session.m_periodNs = SampleClockOf(session.m_settings, session.m_record).m_periodNs;
    session.m_pSymbolizer = std::make_shared<Symbolizer>();
    session.m_pSymbolizer->m_recorded = FilesOfRun(session.m_record);
    const std::map<std::string, ProcessFiles> filesOf = FilesOfProcesses(path);
    const ClockShifts shifts = ReadClockShifts(path);
    Reading reading{
        samples, view, view.m_filter.m_from || view.m_filter.m_to ? FirstTime(filesOf, shifts) : 0, shifts, {}};
    reading.m_samples.m_depth = session.m_settings.m_depth.value_or(0);
    std::map<MarkedPid, std::set<std::string>> mapped;
    std::vector<MarkedPid> recorded;
    for (const auto& [name, files] : filesOf)
    {
        const std::optional<SurveyedProcess> survey = SurveyFor(view.m_filter, files);
        const std::optional<ProcessFilter> filter = FilterOf(files, survey, reading);
        if (!filter)
        {
            continue;
        }
        ProcessSymbols symbols = SymbolsOf(session.m_pSymbolizer.get(), ReadModuleMap(files.m_metadata));
        ProcessFacts process = ReadProcess(files, &symbols, &reading, survey, *filter);
        KeepWorstLocks(&session, &process.m_trace, view.m_locksKept);
        Join(&session.m_span, Shifted(process.m_span, ShiftOf(shifts, AnyFile(files))));
        recorded.push_back(process.m_id);
        mapped[recorded.back()].merge(PathsIn(symbols.m_map));
        session.m_processes.push_back(std::move(process));
    }
    std::sort(session.m_processes.begin(), session.m_processes.end(), IsBusier);
    std::sort(recorded.begin(), recorded.end());
    session.m_agentErrors = ReadAgentErrors(path);
    session.m_log = ReadAgentLogs(path);
    session.m_tree = MakeProcessTree(session.m_record, session.m_log, recorded,
                                     [&mapped](const MarkedPid& process, const std::string& file)
                                     { return mapped[process].contains(file); });
    return session;
}

bool IsDamaged(const SessionFacts& session)
{
    return std::any_of(session.m_processes.begin(), session.m_processes.end(),
                       [](const ProcessFacts& process) {
                           return process.m_trace.m_damage || process.m_samples.m_damage || process.m_mapDamage;
                       });
}

uint64_t WallNs(const SessionFacts& session)
{
    const std::optional<ClockPair>& start = session.m_record.m_start;
    const std::optional<ClockPair>& end = session.m_record.m_end;
    const bool isSeen = start && end && end->m_monotonicNs > start->m_monotonicNs;
    return std::max(LengthOf(session.m_span), isSeen ? end->m_monotonicNs - start->m_monotonicNs : 0);
}

uint64_t CallCount(const TraceFacts& process)
{
    uint64_t count = 0;
    for (const ThreadFacts& thread : process.m_threads)
    {
        for (const NamedCalls& calls : thread.m_calls)
        {
            count += calls.m_facts.m_calls;
        }
    }
    return count;
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
