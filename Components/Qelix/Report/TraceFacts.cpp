#include "Report/TraceFacts.h"

#include "Reader/RecordFile.h"
#include "Report/TraceGathering.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/syscall.h>

namespace qelix
{
namespace
{

bool IsWanted(const ProcessFilter& filter, const CallKind& kind)
{
    const std::vector<TraceClass>& classes = filter.m_classes;
    return classes.empty() || std::find(classes.begin(), classes.end(), ClassOf(kind)) != classes.end();
}

GatheredThread& ThreadOf(TraceGathering* pGathering, int32_t tid)
{
    if (pGathering->m_pLastThread == nullptr || pGathering->m_lastTid != tid)
    {
        pGathering->m_lastTid = tid;
        pGathering->m_pLastThread = &pGathering->m_threads[tid];
    }
    return *pGathering->m_pLastThread;
}

// A moment of the thread's life; only what lies in the times asked for counts.
void NoteTime(TraceGathering* pGathering, LifeSpan* pSpan, uint64_t time)
{
    if (time == ZORV_TIME_NOT_ENDED)
    {
        return;
    }
    pGathering->m_lastTime = std::max(pGathering->m_lastTime, time);
    if (time != 0)
    {
        const ProcessFilter& filter = pGathering->m_filter;
        SeeAt(pSpan, std::clamp(time, std::max<uint64_t>(filter.m_from, 1), filter.m_to));
    }
}

void SeeRecord(TraceGathering* pGathering, const ZorvUmtRecordHdr& hdr)
{
    const uint64_t time = hdr.m_endTime == ZORV_TIME_NOT_ENDED ? hdr.m_startTime : hdr.m_endTime;
    pGathering->m_lastOfAll = std::max(pGathering->m_lastOfAll, time);
}

void NoteNeverReturned(TraceGathering* pGathering, const ZorvUmtRecordHdr& hdr, const CallKey& key,
                       uint64_t address)
{
    NeverReturned call;
    call.m_tid = hdr.m_tid;
    call.m_pKind = key.m_pKind;
    call.m_name = NameOfKey(pGathering->m_pSymbols, key, hdr.m_startTime);
    call.m_address = address;
    call.m_startTime = hdr.m_startTime;
    pGathering->m_process.m_neverReturned.push_back(std::move(call));
}

void NoteTimes(TraceGathering* pGathering, const ZorvUmtRecordHdr& hdr)
{
    LifeSpan& span = ThreadOf(pGathering, hdr.m_tid).m_span;
    NoteTime(pGathering, &span, hdr.m_startTime);
    NoteTime(pGathering, &span, hdr.m_endTime);
}

void CountCall(TraceGathering* pGathering, const ZorvUmtRecordHdr& hdr, const CallKey& key, uint64_t address)
{
    CallsOfKey& calls = ThreadOf(pGathering, hdr.m_tid).m_calls[key];
    if (calls.m_facts.m_calls == 0)
    {
        calls.m_firstTime = hdr.m_startTime;
    }
    AddCall(&calls.m_facts, hdr);
    if (hdr.m_endTime == ZORV_TIME_NOT_ENDED)
    {
        NoteNeverReturned(pGathering, hdr, key, address);
    }
}

// The part of the call that was asked for; nothing when that is none.
template <typename T> const CallKind* CutCall(TraceGathering* pGathering, T* pCall)
{
    const ProcessFilter& filter = pGathering->m_filter;
    const CallKind* pKind = FindCallKind(pCall->m_hdr.m_recType, pCall->m_hdr.m_subType);
    SeeRecord(pGathering, pCall->m_hdr);
    if (!IsWanted(filter, pCall->m_hdr.m_tid))
    {
        return nullptr;
    }
    NoteTimes(pGathering, pCall->m_hdr);
    const bool isWanted =
        IsWanted(filter, *pKind) && CutToTimes(filter, &pCall->m_hdr.m_startTime, &pCall->m_hdr.m_endTime);
    return isWanted ? pKind : nullptr;
}

struct RecordTaker
{
    TraceGathering* m_pGathering;

    void operator()(PthreadRecord& call) const
    {
        if (const CallKind* pKind = CutCall(m_pGathering, &call))
        {
            CountCall(m_pGathering, call.m_hdr, {pKind, call.m_body.m_funcVa, false},
                      call.m_body.m_lockAddress);
            if (pKind->m_isLock)
            {
                AddLockCall(&m_pGathering->m_locks, pKind, call);
            }
        }
    }

    void operator()(SyscallRecord& call) const
    {
        if (const CallKind* pKind = CutCall(m_pGathering, &call))
        {
            const bool isNumber = (call.m_hdr.m_flags & ZORV_UMT_FLAG_SYSCALL_ID) != 0;
            CountCall(m_pGathering, call.m_hdr, {pKind, call.m_body.m_funcVa, isNumber}, 0);
        }
    }

    void operator()(const TraceProcRecord& proc) const
    {
        SeeRecord(m_pGathering, proc.m_hdr);
        m_pGathering->m_names.push_back(NameIn(proc));
        if (proc.m_hdr.m_tid > 0 && IsWanted(m_pGathering->m_filter, proc.m_hdr.m_tid))
        {
            NoteTime(m_pGathering, &ThreadOf(m_pGathering, proc.m_hdr.m_tid).m_span, proc.m_hdr.m_startTime);
        }
    }

    void operator()(const TraceThreadEndRecord& end) const
    {
        SeeRecord(m_pGathering, end.m_hdr);
        m_pGathering->m_lastEnd = std::max(m_pGathering->m_lastEnd, end.m_hdr.m_startTime);
        if (IsWanted(m_pGathering->m_filter, end.m_hdr.m_tid))
        {
            LifeSpan& span = ThreadOf(m_pGathering, end.m_hdr.m_tid).m_span;
            NoteTime(m_pGathering, &span, end.m_hdr.m_startTime);
            span.m_isEnded = true;
        }
    }

    template <typename T> void operator()(const T&) const {}
};

} // namespace

std::string NameOfCall(ProcessSymbols* pSymbols, const CallKind& kind, uint64_t function, bool isNumber,
                       uint64_t time)
{
    if (isNumber)
    {
        return function == SYS_futex ? "futex" : fmt::format("syscall({})", function);
    }
    const std::string name = CallName(pSymbols, function, time);
    return name.starts_with("0x") ? fmt::format("{} {}", kind.m_pName, name) : name;
}

TraceClass ClassOf(const CallKind& kind)
{
    // The classes of system calls have the numbers of the records' sub-types.
    static_assert(ZORV_CLASS_SLEEP == static_cast<int>(ZORV_SYSCALL_TYPE_SLEEP) &&
                  ZORV_CLASS_SYSCALL == static_cast<int>(ZORV_SYSCALL_TYPE_OTHER));
    return kind.m_recType == ZORV_UMT_RECORD_PTHREAD ? ZORV_CLASS_PTHREAD
                                                     : static_cast<TraceClass>(kind.m_subType);
}

TraceFacts ReadTraceFacts(const std::string& path, ProcessSymbols* pSymbols, const ProcessFilter& filter)
{
    TraceGathering gathering{{}, pSymbols, filter};
    const auto pFile = OpenRecordFile(path);
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        std::visit(RecordTaker{&gathering}, record.m_body);
    }
    TraceFacts& process = gathering.m_process;
    process.m_path = path;
    process.m_isEmpty = !pFile->m_header.m_isPresent;
    process.m_id = {MarkedPidInFileName(path).m_mark, static_cast<pid_t>(pFile->m_header.m_pid)};
    process.m_mpiRankId = pFile->m_header.m_mpiRankId;
    process.m_damage = pFile->m_damage;
    process.m_unreadBytes = pFile->m_unreadBytes;
    // Whoever ends a process in order writes the end of its own thread as the last record of all.
    process.m_isCutOff =
        !process.m_isEmpty && (gathering.m_lastOfAll == 0 || gathering.m_lastEnd != gathering.m_lastOfAll);
    SettleTrace(&gathering);
    return process;
}

} // namespace qelix
