// The records of the agent's files as values: each is the layout's own structures, copied out of the file
// after its sizes were checked, and what follows them.
#pragma once

#include "ZorvMetadataTypes.h"
#include "ZorvUserModeTraceTypes.h"

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace qelix
{

enum FileKind
{
    ZORV_FILE_TRACE,
    ZORV_FILE_SAMPLE,
    ZORV_FILE_METADATA,
};

struct FileHeader
{
    bool m_isPresent = false; // an empty file is one whose stream was never switched on
    int64_t m_pid = 0;
    int32_t m_mpiRankId = 0; // not in metadata files
    uint16_t m_fileVersion = 0;
    uint16_t m_size = 0; // bytes
};

struct PthreadRecord
{
    ZorvUmtRecordHdr m_hdr;
    ZorvUmtPthreadRecord m_body;
    std::vector<uint64_t> m_callStack;
};

struct SyscallRecord
{
    ZorvUmtRecordHdr m_hdr;
    ZorvUmtSyscallRecord m_body;
    std::vector<uint64_t> m_callStack;
};

struct TraceProcRecord
{
    ZorvUmtRecordHdr m_hdr;
    ZorvUmtProcRecord m_body;
};

struct TraceThreadEndRecord
{
    ZorvUmtRecordHdr m_hdr;
    ZorvUmtThreadEndRecord m_body;
};

struct SampleRecord
{
    ZorvUmsRecordHdr m_hdr;
    ZorvUmsIpRecord m_body;
    std::vector<uint64_t> m_callStack;
    std::vector<ZorvUmsEventData> m_events;
};

struct SampleProcRecord
{
    ZorvUmsRecordHdr m_hdr;
    ZorvUmsProcRecord m_body;
};

struct SampleThreadEndRecord
{
    ZorvUmsRecordHdr m_hdr;
    ZorvUmsThreadEndRecord m_body;
};

struct SampleEventsRecord
{
    ZorvUmsRecordHdr m_hdr;
    ZorvUmsEventMetaData m_body;
    std::vector<uint64_t> m_eventIds;
};

struct MmapRecord
{
    ZorvMmapRecord m_fixed;
    std::string m_path;
};

// A type that the format reserves, or that another producer of the format writes: its body is not known.
struct OpaqueRecord
{
};

using RecordBody =
    std::variant<OpaqueRecord, PthreadRecord, SyscallRecord, TraceProcRecord, TraceThreadEndRecord,
                 SampleRecord, SampleProcRecord, SampleThreadEndRecord, SampleEventsRecord, MmapRecord>;

struct Record
{
    uint64_t m_offset = 0; // in the file
    uint16_t m_type = 0;   // as the file's kind numbers them
    uint16_t m_size = 0;   // bytes, the record's header included
    RecordBody m_body;
};

} // namespace qelix
