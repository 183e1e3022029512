#include "Report/ProcessSurvey.h"

#include "Reader/RecordFile.h"
#include "Report/LifeSpan.h"
#include "Report/ThreadNames.h"
#include "Session/ProcessWatch.h"
#include "Symbols/ModuleMap.h"

#include <algorithm>
#include <optional>

namespace qelix
{
namespace
{

struct Surveyor
{
    SurveyedProcess* m_pProcess;
    std::vector<NameFact>* m_pNames;
    LockTable* m_pLocks;

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
        m_pNames->push_back(NameIn(proc));
        Time(proc.m_hdr.m_startTime);
        if (proc.m_hdr.m_tid > 0)
        {
            m_pProcess->m_threads[proc.m_hdr.m_tid];
        }
    }

    void operator()(const PthreadRecord& call) const
    {
        Call(call.m_hdr);
        const CallKind* pKind = FindCallKind(call.m_hdr.m_recType, call.m_hdr.m_subType);
        if (pKind->m_isLock)
        {
            AddLockCall(m_pLocks, pKind, call);
        }
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

struct TimeTaker
{
    LifeSpan* m_pSpan;
    int64_t m_shift;

    template <typename T> void operator()(const T& record) const
    {
        if constexpr (requires { record.m_hdr.m_startTime; })
        {
            SeeAt(m_pSpan, Shifted(record.m_hdr.m_startTime, m_shift));
        }
    }
};

} // namespace

void Widen(TimeSpan* pSpan, uint64_t time)
{
    pSpan->m_first = std::min(pSpan->m_first, time);
    pSpan->m_last = std::max(pSpan->m_last, time);
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
    LockTable locks;
    const Surveyor surveyor{&process, &names, &locks};
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
    process.m_lockUses = UsesOf(SettledLocks(&locks, {}));
    return process;
}

uint64_t FirstTime(const std::map<std::string, ProcessFiles>& filesOf, const ClockShifts& shifts)
{
    constexpr int fewRecords = 64; // the first one of a thread tells when it began, and blocks follow in order
    LifeSpan span;
    for (const auto& [name, files] : filesOf)
    {
        for (const std::string& path : {files.m_trace, files.m_sample})
        {
            const auto pFile = path.empty() ? nullptr : OpenRecordFile(path);
            Record record;
            for (int i = 0; pFile != nullptr && i < fewRecords && NextRecord(pFile.get(), &record); ++i)
            {
                std::visit(TimeTaker{&span, ShiftOf(shifts, path)}, record.m_body);
            }
        }
    }
    return span.m_last == 0 ? 0 : span.m_first;
}

} // namespace qelix
