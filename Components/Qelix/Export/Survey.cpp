#include "Export/Survey.h"

#include "Reader/RecordFile.h"
#include "Reader/RecordNames.h"
#include "Report/ClockShift.h"
#include "Report/ThreadNames.h"
#include "Session/AgentConfiguration.h"
#include "Session/Failure.h"
#include "Session/ProcessWatch.h"
#include "Session/SessionDirectory.h"
#include "Session/SessionRecord.h"
#include "Symbols/ModuleMap.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace qelix
{
namespace
{

struct Surveyor
{
    SurveyedProcess* m_pProcess;
    std::vector<NameFact>* m_pNames;

    // The clock can fail (0), and a call may not have returned.
    void Time(uint64_t time) const
    {
        if (time != 0 && time != ZORV_TIME_NOT_ENDED)
        {
            Widen(&m_pProcess->m_span, Shifted(time, m_pProcess->m_clockShiftNs));
        }
    }

    void Call(const ZorvUmtRecordHdr& hdr) const
    {
        ++m_pProcess->m_threads[hdr.m_tid].m_calls;
        Time(hdr.m_startTime);
        Time(hdr.m_endTime);
    }

    template <typename T> void Name(const T& proc) const
    {
        m_pNames->push_back({proc.m_hdr.m_tid, proc.m_body.m_pthreadId, proc.m_hdr.m_startTime,
                             std::string(RecordName(proc.m_body))});
        Time(proc.m_hdr.m_startTime);
        if (proc.m_hdr.m_tid > 0)
        {
            m_pProcess->m_threads[proc.m_hdr.m_tid];
        }
    }

    void operator()(const PthreadRecord& call) const
    {
        Call(call.m_hdr);
    }
    void operator()(const SyscallRecord& call) const
    {
        Call(call.m_hdr);
    }
    void operator()(const TraceProcRecord& proc) const
    {
        Name(proc);
    }
    void operator()(const SampleProcRecord& proc) const
    {
        Name(proc);
    }
    void operator()(const TraceThreadEndRecord& end) const
    {
        Time(end.m_hdr.m_startTime);
    }
    void operator()(const SampleThreadEndRecord& end) const
    {
        Time(end.m_hdr.m_startTime);
    }
    void operator()(const SampleEventsRecord& events) const
    {
        m_pProcess->m_events = events.m_eventIds;
    }

    void operator()(const SampleRecord& sample) const
    {
        ++m_pProcess->m_threads[sample.m_hdr.m_tid].m_samples;
        Time(sample.m_hdr.m_startTime);
    }

    template <typename T> void operator()(const T&) const {}
};

void SurveyFile(const std::string& path, const Surveyor& surveyor, std::vector<Damage>* pDamages)
{
    if (path.empty())
    {
        return;
    }
    const auto pFile = OpenRecordFile(path);
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        std::visit(surveyor, record.m_body);
    }
    if (pFile->m_header.m_isPresent)
    {
        surveyor.m_pProcess->m_pid = pFile->m_header.m_pid;
        surveyor.m_pProcess->m_rank = pFile->m_header.m_mpiRankId;
    }
    if (pFile->m_damage)
    {
        pDamages->push_back(*pFile->m_damage);
    }
}

SurveyedProcess SurveyProcess(const std::string& key, const ProcessFiles& files, const ClockShifts& shifts,
                              std::vector<Damage>* pDamages)
{
    SurveyedProcess process;
    process.m_key = key;
    process.m_files = files;
    process.m_pid = PidInFileName(AnyFile(files));
    process.m_clockShiftNs = ShiftOf(shifts, AnyFile(files));
    std::vector<NameFact> names;
    const Surveyor surveyor{&process, &names};
    SurveyFile(files.m_sample, surveyor, pDamages);
    SurveyFile(files.m_trace, surveyor, pDamages);
    if (const std::optional<Damage> damage = ReadModuleMap(files.m_metadata).m_damage)
    {
        pDamages->push_back(*damage);
    }
    for (auto& [tid, name] : LastNames(std::move(names)))
    {
        process.m_threads[tid].m_name = name;
    }
    if (const auto main = process.m_threads.find(static_cast<int32_t>(process.m_pid));
        main != process.m_threads.end())
    {
        process.m_name = main->second.m_name;
    }
    return process;
}

bool IsSession(const std::string& path)
{
    std::error_code error;
    return std::filesystem::is_directory(TraceFolder(path), error);
}

std::vector<std::string> SessionsIn(const std::string& path)
{
    if (IsSession(path))
    {
        return {path};
    }
    std::vector<std::string> sessions;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(path, error))
    {
        if (entry.path().filename().string().starts_with("rank=") && IsSession(entry.path()))
        {
            sessions.push_back(entry.path());
        }
    }
    std::sort(sessions.begin(), sessions.end());
    if (sessions.empty())
    {
        throw Failure(ZORV_FAILURE_NO_SESSION,
                      "{} is no session: it has no folder \"trace\"; name a directory that qelix run has made",
                      path)
            .At(path);
    }
    return sessions;
}

bool IsEmpty(const TimeSpan& span)
{
    return span.m_first > span.m_last;
}

// Viewers tell processes apart by their ids alone.
void ChooseShownPids(SessionSurvey* pSurvey)
{
    constexpr int64_t pidsOfAKernel = int64_t{1} << 22;
    std::set<int64_t> taken;
    for (SurveyedProcess& process : pSurvey->m_processes)
    {
        process.m_shownPid = process.m_pid;
        while (!taken.insert(process.m_shownPid).second)
        {
            process.m_shownPid += pidsOfAKernel;
        }
    }
}

// A process of which no time is known lies where the session does.
void SettleSpans(SessionSurvey* pSurvey)
{
    if (IsEmpty(pSurvey->m_span))
    {
        pSurvey->m_span = {0, 0};
    }
    for (SurveyedProcess& process : pSurvey->m_processes)
    {
        process.m_span = IsEmpty(process.m_span) ? pSurvey->m_span : process.m_span;
    }
}

} // namespace

void Widen(TimeSpan* pSpan, uint64_t time)
{
    pSpan->m_first = std::min(pSpan->m_first, time);
    pSpan->m_last = std::max(pSpan->m_last, time);
}

SessionSurvey SurveySession(const std::string& path)
{
    SessionSurvey survey;
    survey.m_path = path;
    for (const std::string& session : SessionsIn(path))
    {
        const uint64_t interval = ReadSettings(session).m_intervalNs.value_or(0);
        const SessionRecord record = ReadSessionRecord(session);
        survey.m_periodNs = std::max({survey.m_periodNs, interval, record.m_tickNs.value_or(0)});
        survey.m_clocks = survey.m_clocks ? survey.m_clocks : record.m_start;
        const ClockShifts shifts = ReadClockShifts(session);
        for (const auto& [key, files] : FilesOfProcesses(session))
        {
            SurveyedProcess process = SurveyProcess(key, files, shifts, &survey.m_damages);
            if (!IsEmpty(process.m_span))
            {
                Widen(&survey.m_span, process.m_span.m_first);
                Widen(&survey.m_span, process.m_span.m_last);
            }
            survey.m_processes.push_back(std::move(process));
        }
    }
    SettleSpans(&survey);
    ChooseShownPids(&survey);
    return survey;
}

} // namespace qelix
