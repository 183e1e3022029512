#include "Reader/RecordParser.h"

#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_HDR = sizeof(ZorvMetadataRecordHdr);

std::string CheckMapping(const ZorvMmapRecord& fixed)
{
    if (fixed.m_endAddress < fixed.m_startAddress)
    {
        return fmt::format("a mapping ends ({:#x}) before it starts ({:#x})", fixed.m_endAddress,
                           fixed.m_startAddress);
    }
    return "";
}

std::string ParseMmap(Bytes bytes, Record* pRecord)
{
    // The flag is read as a byte first: a bool that holds another value than 0 or 1 may not be copied.
    const auto isCode = CopyFrom<uint8_t>(bytes, offsetof(ZorvMmapRecord, m_isCode));
    if (isCode != 1)
    {
        return fmt::format("the code flag of a mapping is {}", isCode);
    }
    MmapRecord mmap{CopyFrom<ZorvMmapRecord>(bytes, 0), ""};
    const std::size_t length = mmap.m_fixed.m_modulePathLen;
    if (bytes.size() != ZORV_MMAP_RECORD_BASE_SIZE + length)
    {
        return fmt::format("a record of {} bytes says that its path has {}", bytes.size(), length);
    }
    const char* pPath = reinterpret_cast<const char*>(bytes.data()) + sizeof(ZorvMmapRecord);
    if (std::memchr(pPath, 0, length + 1) != pPath + length)
    {
        return "a module path does not end where its length says";
    }
    mmap.m_path.assign(pPath, length);
    std::string reason = CheckMapping(mmap.m_fixed);
    pRecord->m_body = std::move(mmap);
    return reason;
}

std::string ParseForeign(Bytes, Record* pRecord)
{
    pRecord->m_body = OpaqueRecord{};
    return "";
}

constexpr RecordRule g_rules[] = {
    {ZORV_METADATA_RECORD_MMAP, ZORV_MMAP_RECORD_BASE_SIZE, ParseMmap},
    {ZORV_METADATA_RECORD_PROC, ZORV_HDR, ParseForeign},
    {ZORV_METADATA_RECORD_KERNFUNC, ZORV_HDR, ParseForeign},
    {ZORV_METADATA_RECORD_DEVICEINFO, ZORV_HDR, ParseForeign},
};

} // namespace

FileRules MetadataFileRules()
{
    return {ZORV_HDR, offsetof(ZorvMetadataRecordHdr, m_recType), offsetof(ZorvMetadataRecordHdr, m_recSize),
            false, g_rules};
}

} // namespace qelix
