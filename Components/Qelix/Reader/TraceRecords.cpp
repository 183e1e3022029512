#include "Reader/RecordNames.h"
#include "Reader/RecordParser.h"

#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_HDR = sizeof(ZorvUmtRecordHdr);

std::string CheckIds(const ZorvUmtRecordHdr& hdr)
{
    if (hdr.m_pid <= 0)
    {
        return fmt::format("{} is no process id", hdr.m_pid);
    }
    // -1 stands for "another thread" in the record of a thread that was renamed from outside.
    const bool isRenamed = hdr.m_recType == ZORV_UMT_RECORD_PROC && hdr.m_tid == -1;
    return hdr.m_tid > 0 || isRenamed ? "" : fmt::format("{} is no thread id", hdr.m_tid);
}

// A time of 0 says that the clock failed, so only two real times can be compared.
std::string CheckCallTimes(const ZorvUmtRecordHdr& hdr)
{
    if (hdr.m_endTime != 0 && hdr.m_endTime < hdr.m_startTime)
    {
        return fmt::format("a call ends ({}) before it starts ({})", hdr.m_endTime, hdr.m_startTime);
    }
    return "";
}

std::string CheckCallHeader(const ZorvUmtRecordHdr& hdr, uint16_t allowedFlags)
{
    if (FindCallKind(hdr.m_recType, hdr.m_subType) == nullptr)
    {
        return fmt::format("record type {} has no sub-type {}", hdr.m_recType, hdr.m_subType);
    }
    if ((hdr.m_flags & ~allowedFlags) != 0)
    {
        return fmt::format("unknown record flags {:#x}", hdr.m_flags);
    }
    if (std::string reason = CheckIds(hdr); !reason.empty())
    {
        return reason;
    }
    return CheckCallTimes(hdr);
}

// Pthread and system-call records differ in their body only.
template <typename T> std::string ParseCall(Bytes bytes, uint16_t allowedFlags, Record* pRecord)
{
    T& call = *BodyOf<T>(pRecord);
    call.m_hdr = CopyFrom<ZorvUmtRecordHdr>(bytes, 0);
    call.m_body = CopyFrom<decltype(call.m_body)>(bytes, ZORV_HDR);
    const std::size_t fixedSize = ZORV_HDR + sizeof(call.m_body);
    if (bytes.size() != fixedSize + call.m_body.m_csSize * sizeof(uint64_t))
    {
        return fmt::format("a record of {} bytes says that it carries {} call-stack entries", bytes.size(),
                           call.m_body.m_csSize);
    }
    CopyArray(bytes, fixedSize, call.m_body.m_csSize, &call.m_callStack);
    return CheckCallHeader(call.m_hdr, allowedFlags);
}

std::string ParsePthread(Bytes bytes, Record* pRecord)
{
    return ParseCall<PthreadRecord>(bytes, ZORV_UMT_FLAG_NONE, pRecord);
}

std::string ParseSyscall(Bytes bytes, Record* pRecord)
{
    return ParseCall<SyscallRecord>(bytes, ZORV_UMT_FLAG_SYSCALL_ID, pRecord);
}

// Proc and thread-end records: exact size, no sub-type, no flags.
template <typename T> std::string ParseThreadEvent(Bytes bytes, Record* pRecord)
{
    T event;
    if (bytes.size() != ZORV_HDR + sizeof(event.m_body))
    {
        return fmt::format("a record of {} bytes where {} are due", bytes.size(),
                           ZORV_HDR + sizeof(event.m_body));
    }
    event.m_hdr = CopyFrom<ZorvUmtRecordHdr>(bytes, 0);
    event.m_body = CopyFrom<decltype(event.m_body)>(bytes, ZORV_HDR);
    if (event.m_hdr.m_subType != 0 || event.m_hdr.m_flags != 0)
    {
        return fmt::format("sub-type {} and flags {:#x} where none are due", event.m_hdr.m_subType,
                           event.m_hdr.m_flags);
    }
    if (std::string reason = CheckIds(event.m_hdr); !reason.empty())
    {
        return reason;
    }
    pRecord->m_body = event;
    return "";
}

std::string ParseProc(Bytes bytes, Record* pRecord)
{
    if (std::string reason = ParseThreadEvent<TraceProcRecord>(bytes, pRecord); !reason.empty())
    {
        return reason;
    }
    const auto& proc = std::get<TraceProcRecord>(pRecord->m_body);
    if (proc.m_hdr.m_endTime != 0 || proc.m_body.m_reserved != 0)
    {
        return "a proc record with an end time or reserved bytes that are not zero";
    }
    return "";
}

std::string ParseThreadEnd(Bytes bytes, Record* pRecord)
{
    if (std::string reason = ParseThreadEvent<TraceThreadEndRecord>(bytes, pRecord); !reason.empty())
    {
        return reason;
    }
    const auto& end = std::get<TraceThreadEndRecord>(pRecord->m_body);
    if (end.m_hdr.m_startTime != end.m_hdr.m_endTime)
    {
        return "a thread-end record whose start and end differ";
    }
    return "";
}

std::string ParseReserved(Bytes, Record* pRecord)
{
    pRecord->m_body = OpaqueRecord{};
    return "";
}

constexpr RecordRule g_rules[] = {
    {ZORV_UMT_RECORD_PTHREAD, ZORV_UMT_CALL_RECORD_SIZE, ParsePthread},
    {ZORV_UMT_RECORD_SYSCALL, ZORV_UMT_CALL_RECORD_SIZE, ParseSyscall},
    {ZORV_UMT_RECORD_PROC, ZORV_UMT_PROC_RECORD_SIZE, ParseProc},
    {ZORV_UMT_RECORD_THREAD_END, ZORV_UMT_THREAD_END_RECORD_SIZE, ParseThreadEnd},
    {ZORV_UMT_RECORD_MEMORY, ZORV_HDR, ParseReserved},
    {ZORV_UMT_RECORD_MMAP, ZORV_HDR, ParseReserved},
    {ZORV_UMT_RECORD_METADATA, ZORV_HDR, ParseReserved},
};

} // namespace

FileRules TraceFileRules()
{
    return {ZORV_HDR, offsetof(ZorvUmtRecordHdr, m_recType), offsetof(ZorvUmtRecordHdr, m_recSize), true,
            g_rules};
}

} // namespace qelix
