#include "Commands/DumpForms.h"

#include "Reader/RecordNames.h"

#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

// Adds the fields of one record type, named as in the layouts without their "m_".
struct JsonWriter
{
    Json& m_json;
    ProcessSymbols* m_pSymbols;

    void Trace(const ZorvUmtRecordHdr& hdr) const
    {
        m_json["flags"] = hdr.m_flags;
        m_json["startTime"] = hdr.m_startTime;
        m_json["endTime"] = hdr.m_endTime == ZORV_TIME_NOT_ENDED ? Json(nullptr) : Json(hdr.m_endTime);
        m_json["pid"] = hdr.m_pid;
        m_json["tid"] = hdr.m_tid;
    }

    void Call(const ZorvUmtRecordHdr& hdr) const
    {
        m_json["subType"] = FindCallKind(hdr.m_recType, hdr.m_subType)->m_pName;
        Trace(hdr);
    }

    void Sample(const ZorvUmsRecordHdr& hdr) const
    {
        m_json["flags"] = hdr.m_flags;
        m_json["startTime"] = hdr.m_startTime;
        m_json["pid"] = hdr.m_pid;
        m_json["tid"] = hdr.m_tid;
        m_json["coreId"] = hdr.m_coreId;
    }

    Json NameOf(uint64_t address, uint64_t time) const
    {
        std::string name = CallName(m_pSymbols, address, time);
        return name.starts_with("0x") ? Json(nullptr) : Json(std::move(name));
    }

    void operator()(const PthreadRecord& call) const
    {
        Call(call.m_hdr);
        m_json["lockAddress"] = call.m_body.m_lockAddress;
        m_json["funcVa"] = call.m_body.m_funcVa;
        m_json["funcName"] = NameOf(call.m_body.m_funcVa, call.m_hdr.m_startTime);
        m_json["parId"] = call.m_body.m_parId;
        m_json["retValue"] = call.m_body.m_retValue;
        m_json["csSize"] = call.m_body.m_csSize;
        m_json["callStack"] = call.m_callStack;
    }

    void operator()(const SyscallRecord& call) const
    {
        Call(call.m_hdr);
        const bool isNumber = (call.m_hdr.m_flags & ZORV_UMT_FLAG_SYSCALL_ID) != 0;
        m_json[isNumber ? "sysCallId" : "funcVa"] = call.m_body.m_funcVa;
        if (!isNumber)
        {
            m_json["funcName"] = NameOf(call.m_body.m_funcVa, call.m_hdr.m_startTime);
        }
        m_json["parId"] = call.m_body.m_parId;
        m_json["sysValue"] = call.m_body.m_sysValue;
        m_json["csSize"] = call.m_body.m_csSize;
        m_json["callStack"] = call.m_callStack;
    }

    void operator()(const TraceProcRecord& proc) const
    {
        Trace(proc.m_hdr);
        m_json["pthreadId"] = proc.m_body.m_pthreadId;
        m_json["name"] = RecordName(proc.m_body);
    }

    void operator()(const TraceThreadEndRecord& end) const
    {
        Trace(end.m_hdr);
        m_json["pthreadId"] = end.m_body.m_pthreadId;
    }

    void operator()(const SampleRecord& sample) const
    {
        Sample(sample.m_hdr);
        m_json["parId"] = sample.m_body.m_parId;
        m_json["csLen"] = sample.m_body.m_csLen;
        m_json["callStack"] = sample.m_callStack;
        Json frames = Json::array();
        const uint64_t time = sample.m_hdr.m_startTime;
        const std::size_t own = FirstOwnFrame(m_pSymbols, sample.m_callStack, time);
        for (std::size_t i = 0; i < sample.m_callStack.size(); ++i)
        {
            frames.push_back(NameOf(FrameAddress(m_pSymbols, sample.m_callStack, i, own, time), time));
        }
        m_json["frames"] = std::move(frames);
        Json events = Json::array();
        for (const ZorvUmsEventData& event : sample.m_events)
        {
            events.push_back({{"eventCount", event.m_eventCount},
                              {"timeEnabled", event.m_timeEnabled},
                              {"timeRunning", event.m_timeRunning},
                              {"id", event.m_id}});
        }
        m_json["numEvents"] = events.size();
        m_json["eventData"] = std::move(events);
    }

    void operator()(const SampleProcRecord& proc) const
    {
        Sample(proc.m_hdr);
        m_json["pthreadId"] = proc.m_body.m_pthreadId;
        m_json["name"] = RecordName(proc.m_body);
    }

    void operator()(const SampleThreadEndRecord& end) const
    {
        Sample(end.m_hdr);
        m_json["pthreadId"] = end.m_body.m_pthreadId;
    }

    void operator()(const SampleEventsRecord& events) const
    {
        Sample(events.m_hdr);
        m_json["numEvents"] = events.m_body.m_numEvents;
        m_json["eventIds"] = events.m_eventIds;
    }

    void operator()(const MmapRecord& mmap) const
    {
        m_json["pid"] = mmap.m_fixed.m_hdr.m_pid;
        m_json["startAddress"] = mmap.m_fixed.m_startAddress;
        m_json["endAddress"] = mmap.m_fixed.m_endAddress;
        m_json["time"] = mmap.m_fixed.m_time;
        m_json["modulePathLen"] = mmap.m_fixed.m_modulePathLen;
        m_json["isCode"] = mmap.m_fixed.m_isCode;
        m_json["modulePath"] = mmap.m_path;
    }

    void operator()(const OpaqueRecord&) const {}
};

std::string Line(const Json& json)
{
    // Names come from the program: bytes that are no UTF-8 are replaced rather than refused.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace

std::string HeaderAsJson(const RecordFile& file)
{
    return Line({{"file", file.m_path},
                 {"offset", 0},
                 {"type", "file-header"},
                 {"size", file.m_header.m_size},
                 {"kind", FileKindName(file.m_kind)},
                 {"fileVersion", file.m_header.m_fileVersion},
                 {"pid", file.m_header.m_pid},
                 {"mpiRankId", file.m_header.m_mpiRankId}});
}

std::string RecordAsJson(const RecordFile& file, const Record& record, ProcessSymbols* pSymbols)
{
    Json json = {{"file", file.m_path},
                 {"offset", record.m_offset},
                 {"type", RecordTypeName(file.m_kind, record.m_type)},
                 {"size", record.m_size}};
    std::visit(JsonWriter{json, pSymbols}, record.m_body);
    return Line(json);
}

} // namespace qelix
