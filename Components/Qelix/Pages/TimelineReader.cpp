#include "Pages/TimelineReader.h"

#include "Reader/RecordFile.h"
#include "Report/ClockShift.h"
#include "Report/CpuFacts.h"
#include "Report/ProcessFiles.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <tuple>

namespace qelix
{
namespace
{

constexpr uint64_t ZORV_PERIOD_UNKNOWN_NS = 4'000'000;
constexpr std::size_t ZORV_MOST_LOCKS = 20000; // that are told apart

struct LockId
{
    MarkedPid m_process;
    uint64_t m_address;
    const CallKind* m_pKind;
    auto operator<=>(const LockId&) const = default;
};

// What the session's facts have names for, and where its threads stand in the time line.
struct Reading
{
    Timeline m_timeline;
    std::map<LockId, std::string> m_lockNames;
    std::map<LockId, int32_t> m_lockAt;
    std::map<std::pair<const ProcessFacts*, int32_t>, uint32_t> m_threadAt;
};

// One process's file on its way.
struct RecordTaker
{
    Reading* m_pReading;
    ProcessSymbols* m_pSymbols;
    const ProcessFacts* m_pProcess;
    int64_t m_shift; // of its host's clock
    double m_nsPerSample;
    std::map<std::tuple<const CallKind*, uint64_t, bool>, uint32_t>
        m_callNames; // while modules stay where they are
    std::map<uint32_t, uint32_t> m_functionNames;

    void operator()(const PthreadRecord& call)
    {
        const CallKind* pKind = FindCallKind(call.m_hdr.m_recType, call.m_hdr.m_subType);
        const int32_t lock =
            pKind->m_isLock ? LockOf({m_pProcess->m_id, call.m_body.m_lockAddress, pKind}) : -1;
        TakeCall(call.m_hdr, pKind, call.m_body.m_funcVa, lock);
    }

    void operator()(const SyscallRecord& call)
    {
        TakeCall(call.m_hdr, FindCallKind(call.m_hdr.m_recType, call.m_hdr.m_subType), call.m_body.m_funcVa,
                 -1);
    }

    void operator()(const SampleRecord& sample)
    {
        const uint64_t time = sample.m_hdr.m_startTime;
        std::size_t own = FirstOwnFrame(m_pSymbols, sample.m_callStack, time);
        own = own < sample.m_callStack.size() ? own : 0;
        const uint64_t address = FrameAddress(m_pSymbols, sample.m_callStack, own, own, time);
        const uint32_t function = PlaceOf(m_pSymbols, address, time).m_functions.front();
        const auto [at, isNew] = m_functionNames.emplace(function, 0);
        if (isNew)
        {
            at->second = IndexOfText(&m_pReading->m_timeline.m_names,
                                     m_pSymbols->m_pSymbolizer->m_functions[function].m_name);
        }
        AddTimelineSample(&m_pReading->m_timeline, ThreadOf(sample.m_hdr.m_tid), Shifted(time, m_shift),
                          at->second);
    }

    void operator()(const TraceProcRecord& proc)
    {
        SeeThread(proc.m_hdr.m_tid, proc.m_hdr.m_startTime);
    }

    void operator()(const TraceThreadEndRecord& end)
    {
        EndThread(end.m_hdr.m_tid, end.m_hdr.m_startTime);
    }

    void operator()(const SampleProcRecord& proc)
    {
        SeeThread(proc.m_hdr.m_tid, proc.m_hdr.m_startTime);
    }

    void operator()(const SampleThreadEndRecord& end)
    {
        EndThread(end.m_hdr.m_tid, end.m_hdr.m_startTime);
    }

    template <typename T> void operator()(const T&) {}

    void SeeThread(int32_t tid, uint64_t time)
    {
        if (tid > 0)
        {
            SeeAt(&m_pReading->m_timeline.m_threads[ThreadOf(tid)].m_span, Shifted(time, m_shift));
        }
    }

    void EndThread(int32_t tid, uint64_t time)
    {
        SeeThread(tid, time);
        m_pReading->m_timeline.m_threads[ThreadOf(tid)].m_span.m_isEnded = true;
    }

    uint32_t ThreadOf(int32_t tid)
    {
        Timeline& timeline = m_pReading->m_timeline;
        const auto [at, isNew] = m_pReading->m_threadAt.emplace(
            std::pair(m_pProcess, tid), static_cast<uint32_t>(timeline.m_threads.size()));
        if (isNew)
        {
            timeline.m_threads.push_back({m_pProcess->m_id, tid, m_pProcess->m_mpiRankId, m_pProcess->m_name});
            timeline.m_threads.back().m_sampleNs = m_nsPerSample;
        }
        return at->second;
    }

    int32_t LockOf(const LockId& id)
    {
        const auto at = m_pReading->m_lockAt.find(id);
        if (at != m_pReading->m_lockAt.end())
        {
            return at->second;
        }
        const auto known = m_pReading->m_lockNames.find(id);
        const bool isTold =
            known != m_pReading->m_lockNames.end() || m_pReading->m_lockAt.size() < ZORV_MOST_LOCKS;
        const std::string name = !isTold                                  ? "(further locks)"
                                 : known != m_pReading->m_lockNames.end() ? known->second
                                                                          : fmt::format("{:#x}", id.m_address);
        const auto lock = static_cast<int32_t>(
            IndexOfText(&m_pReading->m_timeline.m_locks, fmt::format("{} {}", id.m_pKind->m_pName, name)));
        return isTold ? m_pReading->m_lockAt[id] = lock : lock;
    }

    uint32_t NameOf(const ZorvUmtRecordHdr& hdr, const CallKind* pKind, uint64_t function)
    {
        const bool isNumber = (hdr.m_flags & ZORV_UMT_FLAG_SYSCALL_ID) != 0;
        const auto [at, isNew] = m_callNames.emplace(std::tuple(pKind, function, isNumber), 0);
        if (isNew || !m_pSymbols->m_map.m_isStable)
        {
            at->second = IndexOfText(&m_pReading->m_timeline.m_names,
                                     NameOfCall(m_pSymbols, *pKind, function, isNumber, hdr.m_startTime));
        }
        return at->second;
    }

    void TakeCall(const ZorvUmtRecordHdr& hdr, const CallKind* pKind, uint64_t function, int32_t lock)
    {
        AddTimelineCall(&m_pReading->m_timeline,
                        {Shifted(hdr.m_startTime, m_shift), Shifted(hdr.m_endTime, m_shift),
                         ThreadOf(hdr.m_tid), NameOf(hdr, pKind, function), lock, TimeKindOf(*pKind)});
    }
};

void ReadInto(RecordTaker* pTaker, const std::string& path)
{
    if (path.empty())
    {
        return;
    }
    const auto pFile = OpenRecordFile(path);
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        std::visit(*pTaker, record.m_body);
    }
}

const ProcessFacts* ProcessOf(const SessionFacts& session, const ProcessFiles& files)
{
    const auto found = std::find_if(session.m_processes.begin(), session.m_processes.end(),
                                    [&files](const ProcessFacts& process) {
                                        return process.m_trace.m_path == files.m_trace &&
                                               process.m_samples.m_path == files.m_sample;
                                    });
    return found == session.m_processes.end() ? nullptr : &*found;
}

// A thread that no record saw end lasts as long as its process was seen.
void EndThreads(Reading* pReading, const ProcessFacts& process, int64_t shift)
{
    for (auto at = pReading->m_threadAt.lower_bound({&process, INT32_MIN});
         at != pReading->m_threadAt.end() && at->first.first == &process; ++at)
    {
        LifeSpan& span = pReading->m_timeline.m_threads[at->second].m_span;
        if (!span.m_isEnded && span.m_last != 0)
        {
            SeeAt(&span, Shifted(process.m_span.m_last, shift));
        }
    }
}

void NameThreads(Reading* pReading, const ProcessFacts& process)
{
    const auto name = [&](int32_t tid, const std::string& given)
    {
        const auto at = pReading->m_threadAt.find({&process, tid});
        if (at != pReading->m_threadAt.end() && !given.empty())
        {
            pReading->m_timeline.m_threads[at->second].m_name = given;
        }
    };
    for (const ThreadSamples& thread : process.m_samples.m_threads)
    {
        name(thread.m_tid, thread.m_name);
    }
    for (const ThreadFacts& thread : process.m_trace.m_threads)
    {
        name(thread.m_tid, thread.m_name);
    }
}

} // namespace

Timeline ReadTimeline(const SessionFacts& session, const TimelineBudget& budget)
{
    Reading reading;
    reading.m_timeline.m_budget = budget;
    reading.m_timeline.m_periodNs = session.m_periodNs != 0 ? session.m_periodNs : ZORV_PERIOD_UNKNOWN_NS;
    reading.m_timeline.m_runGapNs = FirstRunGapNs(reading.m_timeline);
    for (const LockFacts& lock : session.m_locks)
    {
        reading.m_lockNames[{lock.m_process, lock.m_address, lock.m_pKind}] = lock.m_name;
    }
    const ClockShifts shifts = ReadClockShifts(session.m_path);
    for (const auto& [name, files] : FilesOfProcesses(session.m_path))
    {
        const ProcessFacts* pProcess = ProcessOf(session, files);
        if (pProcess == nullptr)
        {
            continue;
        }
        ProcessSymbols symbols = SymbolsOf(session.m_pSymbolizer.get(), ReadModuleMap(files.m_metadata));
        const int64_t shift = ShiftOf(shifts, AnyFile(files));
        RecordTaker taker{&reading, &symbols, pProcess, shift, NsPerSample(session, *pProcess), {}, {}};
        ReadInto(&taker, files.m_trace);
        ReadInto(&taker, files.m_sample);
        EndThreads(&reading, *pProcess, shift);
        NameThreads(&reading, *pProcess);
    }
    return std::move(reading.m_timeline);
}

} // namespace qelix
