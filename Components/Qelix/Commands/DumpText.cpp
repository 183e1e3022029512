#include "Commands/DumpForms.h"

#include "Reader/RecordNames.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <iterator>

namespace qelix
{
namespace
{

// Appends what a record of one type holds, as " name=value".
struct TextWriter
{
    std::back_insert_iterator<std::string> m_out;
    ProcessSymbols* m_pSymbols;

    template <typename... Args> void Put(fmt::format_string<Args...> format, Args&&... args) const
    {
        fmt::format_to(m_out, format, std::forward<Args>(args)...);
    }

    void Call(const ZorvUmtRecordHdr& hdr) const
    {
        Put(" {} flags={:#x} pid={} tid={} start={} ", FindCallKind(hdr.m_recType, hdr.m_subType)->m_pName,
            hdr.m_flags, hdr.m_pid, hdr.m_tid, hdr.m_startTime);
        if (hdr.m_endTime == ZORV_TIME_NOT_ENDED)
        {
            Put("end=never");
        }
        else
        {
            Put("end={}", hdr.m_endTime);
        }
    }

    void Sample(const ZorvUmsRecordHdr& hdr) const
    {
        Put(" flags={:#x} pid={} tid={} core={} start={}", hdr.m_flags, hdr.m_pid, hdr.m_tid, hdr.m_coreId,
            hdr.m_startTime);
    }

    void Addresses(const char* pName, const std::vector<uint64_t>& addresses) const
    {
        if (!addresses.empty())
        {
            Put(" {}={:#x}", pName, fmt::join(addresses, ","));
        }
    }

    // Behind the address the name, where one is known.
    void Function(uint64_t address, uint64_t time) const
    {
        const std::string name = CallName(m_pSymbols, address, time);
        Put(" func={:#x}{}", address, name.starts_with("0x") ? "" : fmt::format("({})", PrintableText(name)));
    }

    void Frames(const std::vector<uint64_t>& stack, uint64_t time) const
    {
        const std::size_t own = FirstOwnFrame(m_pSymbols, stack, time);
        for (std::size_t i = 0; i < stack.size(); ++i)
        {
            Put("{}{}", i == 0 ? " frames=" : ",",
                PrintableText(CallName(m_pSymbols, FrameAddress(m_pSymbols, stack, i, own, time), time)));
        }
    }

    void operator()(const PthreadRecord& call) const
    {
        Call(call.m_hdr);
        Put(" lock={:#x}", call.m_body.m_lockAddress);
        Function(call.m_body.m_funcVa, call.m_hdr.m_startTime);
        Put(" par={} ret={}", call.m_body.m_parId, call.m_body.m_retValue);
        Addresses("stack", call.m_callStack);
    }

    void operator()(const SyscallRecord& call) const
    {
        Call(call.m_hdr);
        if ((call.m_hdr.m_flags & ZORV_UMT_FLAG_SYSCALL_ID) != 0)
        {
            Put(" call={}", call.m_body.m_sysCallId);
        }
        else
        {
            Function(call.m_body.m_funcVa, call.m_hdr.m_startTime);
        }
        Put(" par={} value={}", call.m_body.m_parId, call.m_body.m_sysValue);
        Addresses("stack", call.m_callStack);
    }

    void operator()(const TraceProcRecord& proc) const
    {
        Put(" pid={} tid={} start={} pthread={:#x} name=\"{}\"", proc.m_hdr.m_pid, proc.m_hdr.m_tid,
            proc.m_hdr.m_startTime, proc.m_body.m_pthreadId, PrintableText(RecordName(proc.m_body)));
    }

    void operator()(const TraceThreadEndRecord& end) const
    {
        Put(" pid={} tid={} start={} pthread={:#x}", end.m_hdr.m_pid, end.m_hdr.m_tid, end.m_hdr.m_startTime,
            end.m_body.m_pthreadId);
    }

    void operator()(const SampleRecord& sample) const
    {
        Sample(sample.m_hdr);
        Put(" par={}", sample.m_body.m_parId);
        Addresses("stack", sample.m_callStack);
        Frames(sample.m_callStack, sample.m_hdr.m_startTime);
        for (const ZorvUmsEventData& event : sample.m_events)
        {
            Put(" event={}:count={}:enabled={}:running={}", event.m_id, event.m_eventCount, event.m_timeEnabled,
                event.m_timeRunning);
        }
    }

    void operator()(const SampleProcRecord& proc) const
    {
        Sample(proc.m_hdr);
        Put(" pthread={:#x} name=\"{}\"", proc.m_body.m_pthreadId, PrintableText(RecordName(proc.m_body)));
    }

    void operator()(const SampleThreadEndRecord& end) const
    {
        Sample(end.m_hdr);
        Put(" pthread={:#x}", end.m_body.m_pthreadId);
    }

    void operator()(const SampleEventsRecord& events) const
    {
        Sample(events.m_hdr);
        Addresses("events", events.m_eventIds);
    }

    void operator()(const MmapRecord& mmap) const
    {
        Put(" pid={} address={:#x}-{:#x} time={} path=\"{}\"", mmap.m_fixed.m_hdr.m_pid,
            mmap.m_fixed.m_startAddress, mmap.m_fixed.m_endAddress, mmap.m_fixed.m_time,
            PrintableText(mmap.m_path));
    }

    void operator()(const OpaqueRecord&) const {}
};

} // namespace

std::string HeaderAsText(const RecordFile& file)
{
    const FileHeader& header = file.m_header;
    return fmt::format("{:>10}  {} file \"{}\" size={} version={} pid={} rank={}\n", 0,
                       FileKindName(file.m_kind), PrintableText(file.m_path), header.m_size,
                       header.m_fileVersion, header.m_pid, header.m_mpiRankId);
}

std::string RecordAsText(const RecordFile& file, const Record& record, ProcessSymbols* pSymbols)
{
    std::string line = fmt::format("{:>10}  {} size={}", record.m_offset,
                                   RecordTypeName(file.m_kind, record.m_type), record.m_size);
    std::visit(TextWriter{std::back_inserter(line), pSymbols}, record.m_body);
    return line + '\n';
}

} // namespace qelix
