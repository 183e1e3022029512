#include "Reader/RecordParser.h"

#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_HDR = sizeof(ZorvUmsRecordHdr);
constexpr uint16_t ZORV_ALL_FLAGS = ZORV_UMS_CS | ZORV_UMS_PMC;

std::string CheckHeader(const ZorvUmsRecordHdr& hdr)
{
    if (hdr.m_pid <= 0)
    {
        return fmt::format("{} is no process id", hdr.m_pid);
    }
    const bool isRenamed = hdr.m_recType == ZORV_UMS_RECORD_PROC && hdr.m_tid == -1;
    if (hdr.m_tid <= 0 && !isRenamed)
    {
        return fmt::format("{} is no thread id", hdr.m_tid);
    }
    return (hdr.m_flags & ~ZORV_ALL_FLAGS) == 0 ? "" : fmt::format("unknown record flags {:#x}", hdr.m_flags);
}

std::string ParseProc(Bytes bytes, Record* pRecord)
{
    SampleProcRecord proc{CopyFrom<ZorvUmsRecordHdr>(bytes, 0), CopyFrom<ZorvUmsProcRecord>(bytes, ZORV_HDR)};
    if (bytes.size() != ZORV_UMS_PROC_RECORD_SIZE || proc.m_body.m_reserved != 0)
    {
        return fmt::format("a proc record of {} bytes or with reserved bytes that are not zero", bytes.size());
    }
    pRecord->m_body = proc;
    return CheckHeader(proc.m_hdr);
}

std::string ParseThreadEnd(Bytes bytes, Record* pRecord)
{
    SampleThreadEndRecord end{CopyFrom<ZorvUmsRecordHdr>(bytes, 0),
                              CopyFrom<ZorvUmsThreadEndRecord>(bytes, ZORV_HDR)};
    if (bytes.size() != ZORV_UMS_THREAD_END_RECORD_SIZE || end.m_hdr.m_flags != 0)
    {
        return fmt::format("a thread-end record of {} bytes with flags {:#x}", bytes.size(), end.m_hdr.m_flags);
    }
    pRecord->m_body = end;
    return CheckHeader(end.m_hdr);
}

std::string ParseEvents(Bytes bytes, Record* pRecord)
{
    SampleEventsRecord events{
        CopyFrom<ZorvUmsRecordHdr>(bytes, 0), CopyFrom<ZorvUmsEventMetaData>(bytes, ZORV_HDR), {}};
    const std::size_t fixedSize = ZORV_HDR + sizeof(ZorvUmsEventMetaData);
    const uint64_t count = events.m_body.m_numEvents;
    if (bytes.size() != fixedSize + count * sizeof(uint64_t) || events.m_body.m_reserved != 0)
    {
        return fmt::format("a record of {} bytes says that it lists {} events", bytes.size(), count);
    }
    CopyArray(bytes, fixedSize, count, &events.m_eventIds);
    std::string reason = CheckHeader(events.m_hdr);
    pRecord->m_body = std::move(events);
    return reason;
}

// The counters stand behind the call stack. The record's size has been compared with both counts by then.
std::string ParseCounters(Bytes bytes, std::size_t offset, SampleRecord* pSample)
{
    const auto info = CopyFrom<ZorvUmsEventInfo>(bytes, offset);
    const std::size_t dataAt = offset + sizeof(info);
    const uint64_t count = info.m_numEvents;
    if (bytes.size() != dataAt + count * sizeof(ZorvUmsEventData) || info.m_reserved != 0)
    {
        return fmt::format("a sample of {} bytes says that it carries {} counters", bytes.size(), count);
    }
    CopyArray(bytes, dataAt, count, &pSample->m_events);
    return "";
}

std::string ParseSample(Bytes bytes, Record* pRecord)
{
    SampleRecord& sample = *BodyOf<SampleRecord>(pRecord);
    sample.m_hdr = CopyFrom<ZorvUmsRecordHdr>(bytes, 0);
    sample.m_body = CopyFrom<ZorvUmsIpRecord>(bytes, ZORV_HDR);
    sample.m_events.clear();
    if (std::string reason = CheckHeader(sample.m_hdr); !reason.empty())
    {
        return reason;
    }
    const bool hasCounters = (sample.m_hdr.m_flags & ZORV_UMS_PMC) != 0;
    const std::size_t stackAt = ZORV_HDR + sizeof(ZorvUmsIpRecord);
    const uint64_t stackEnd = stackAt + uint64_t{sample.m_body.m_csLen} * sizeof(uint64_t);
    const uint64_t leastSize = stackEnd + (hasCounters ? sizeof(ZorvUmsEventInfo) : 0);
    if (sample.m_body.m_csLen == 0 || sample.m_body.m_reserved != 0 || bytes.size() < leastSize)
    {
        return fmt::format("a sample of {} bytes says that it carries {} stack entries", bytes.size(),
                           sample.m_body.m_csLen);
    }
    CopyArray(bytes, stackAt, sample.m_body.m_csLen, &sample.m_callStack);
    std::string reason;
    if (hasCounters)
    {
        reason = ParseCounters(bytes, stackEnd, &sample);
    }
    else if (bytes.size() != stackEnd)
    {
        reason = fmt::format("a sample of {} bytes whose stack ends after {}", bytes.size(), stackEnd);
    }
    return reason;
}

std::string ParseReserved(Bytes, Record* pRecord)
{
    pRecord->m_body = OpaqueRecord{};
    return "";
}

constexpr RecordRule g_rules[] = {
    {ZORV_UMS_RECORD_PROC, ZORV_UMS_PROC_RECORD_SIZE, ParseProc},
    {ZORV_UMS_RECORD_MMAP, ZORV_HDR, ParseReserved},
    {ZORV_UMS_RECORD_SAMPLE, ZORV_HDR + sizeof(ZorvUmsIpRecord), ParseSample},
    {ZORV_UMS_RECORD_METADATA, ZORV_HDR + sizeof(ZorvUmsEventMetaData), ParseEvents},
    {ZORV_UMS_RECORD_THREAD_END, ZORV_UMS_THREAD_END_RECORD_SIZE, ParseThreadEnd},
};

} // namespace

FileRules SampleFileRules()
{
    return {ZORV_HDR, offsetof(ZorvUmsRecordHdr, m_recType), offsetof(ZorvUmsRecordHdr, m_recSize), true,
            g_rules};
}

} // namespace qelix
