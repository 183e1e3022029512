// Layout of the metadata file (.meta): one header, then one record for each executable mapping.
// Little-endian; records follow each other without padding, so all but the first may be unaligned.
#pragma once

#include "ZorvUserModeTraceTypes.h"

enum ZorvMetadataFileVersion : uint16_t
{
    ZORV_METADATA_FILE_VERSION_NONE = 0,
    ZORV_METADATA_FILE_VERSION_1_0 = 1,
};

enum ZorvMetadataRecordType : uint16_t
{
    ZORV_METADATA_RECORD_MMAP = 0,
    ZORV_METADATA_RECORD_PROC = 1,       // other producers of the format
    ZORV_METADATA_RECORD_KERNFUNC = 2,   // other producers of the format
    ZORV_METADATA_RECORD_DEVICEINFO = 3, // other producers of the format
};

struct ZorvMetadataFileHdr
{
    uint64_t m_magicNum; // ZORV_FILE_MAGIC_NUM
    uint32_t m_pid;
    uint16_t m_reserved;
    uint16_t m_fileVersion; // ZORV_METADATA_FILE_VERSION_1_0
};
using ZorvMetadataFileHdrT = ZorvMetadataFileHdr;

struct ZorvMetadataRecordHdr
{
    uint16_t m_recType; // ZorvMetadataRecordType
    uint16_t m_recSize; // bytes, this header included
    uint32_t m_pid;
};
using ZorvMetadataRecordHdrT = ZorvMetadataRecordHdr;

struct ZorvMmapRecord // m_modulePathLen path bytes and one zero byte follow
{
    ZorvMetadataRecordHdr m_hdr;
    uint64_t m_startAddress;
    uint64_t m_endAddress; // first address behind the mapping
    uint64_t m_time;
    uint16_t m_modulePathLen; // bytes, without the terminating zero
    bool m_isCode;            // always 1
    uint8_t m_isReserved1;
    uint32_t m_isReserved2;
};
using ZorvMmapRecordT = ZorvMmapRecord;

// What a record measures beside its path: the fixed part and the terminating zero.
constexpr uint16_t ZORV_MMAP_RECORD_BASE_SIZE = sizeof(ZorvMmapRecord) + 1;

static_assert(sizeof(ZorvMetadataFileHdr) == 16);
ZORV_ASSERT_FIELD(ZorvMetadataFileHdr, m_magicNum, 0, 8);
ZORV_ASSERT_FIELD(ZorvMetadataFileHdr, m_pid, 8, 4);
ZORV_ASSERT_FIELD(ZorvMetadataFileHdr, m_reserved, 12, 2);
ZORV_ASSERT_FIELD(ZorvMetadataFileHdr, m_fileVersion, 14, 2);

static_assert(sizeof(ZorvMetadataRecordHdr) == 8);
ZORV_ASSERT_FIELD(ZorvMetadataRecordHdr, m_recType, 0, 2);
ZORV_ASSERT_FIELD(ZorvMetadataRecordHdr, m_recSize, 2, 2);
ZORV_ASSERT_FIELD(ZorvMetadataRecordHdr, m_pid, 4, 4);

static_assert(sizeof(ZorvMmapRecord) == 40);
ZORV_ASSERT_FIELD(ZorvMmapRecord, m_startAddress, 8, 8);
ZORV_ASSERT_FIELD(ZorvMmapRecord, m_endAddress, 16, 8);
ZORV_ASSERT_FIELD(ZorvMmapRecord, m_time, 24, 8);
ZORV_ASSERT_FIELD(ZorvMmapRecord, m_modulePathLen, 32, 2);
ZORV_ASSERT_FIELD(ZorvMmapRecord, m_isCode, 34, 1);
ZORV_ASSERT_FIELD(ZorvMmapRecord, m_isReserved1, 35, 1);
ZORV_ASSERT_FIELD(ZorvMmapRecord, m_isReserved2, 36, 4);
static_assert(ZORV_MMAP_RECORD_BASE_SIZE == 41);
