#include "Reader/RecordFile.h"

#include "Reader/RecordNames.h"
#include "Reader/RecordParser.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qelix
{
namespace
{

// A record's size has 16 bits, so the largest one fits many times.
constexpr std::size_t ZORV_BUFFER_SIZE = 262144;

FileRules RulesOf(FileKind kind)
{
    switch (kind)
    {
    case ZORV_FILE_TRACE:
        return TraceFileRules();
    case ZORV_FILE_SAMPLE:
        return SampleFileRules();
    case ZORV_FILE_METADATA:
        break;
    }
    return MetadataFileRules();
}

bool SetDamage(RecordFile* pFile, DamageKind kind, std::string reason)
{
    pFile->m_isEnded = true;
    pFile->m_damage = Damage{kind, pFile->m_path, pFile->m_offset, std::move(reason)};
    return false;
}

std::size_t Available(const RecordFile& file)
{
    return file.m_end - file.m_begin;
}

Bytes Window(const RecordFile& file, std::size_t size)
{
    return {file.m_buffer.data() + file.m_begin, size};
}

void Consume(RecordFile* pFile, std::size_t size)
{
    pFile->m_begin += size;
    pFile->m_offset += size;
}

// Makes `wanted` bytes available if the file has as many. False only when the file cannot be read.
bool Fill(RecordFile* pFile, std::size_t wanted)
{
    if (Available(*pFile) >= wanted)
    {
        return true;
    }
    std::byte* pBuffer = pFile->m_buffer.data();
    std::memmove(pBuffer, pBuffer + pFile->m_begin, Available(*pFile));
    pFile->m_end -= pFile->m_begin;
    pFile->m_begin = 0;
    while (pFile->m_end < wanted)
    {
        const ssize_t count = read(pFile->m_fd, pBuffer + pFile->m_end, pFile->m_buffer.size() - pFile->m_end);
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count < 0)
        {
            return SetDamage(pFile, ZORV_DAMAGE_UNREADABLE, fmt::format("cannot be read: {}", strerror(errno)));
        }
        if (count == 0)
        {
            break;
        }
        pFile->m_end += static_cast<std::size_t>(count);
    }
    return true;
}

bool OpenDescriptor(RecordFile* pFile)
{
    // Without O_NONBLOCK the open of a pipe would wait for its other end.
    pFile->m_fd = open(pFile->m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (pFile->m_fd < 0)
    {
        return SetDamage(pFile, ZORV_DAMAGE_UNREADABLE, fmt::format("cannot be opened: {}", strerror(errno)));
    }
    struct stat status;
    if (fstat(pFile->m_fd, &status) != 0 || !S_ISREG(status.st_mode))
    {
        return SetDamage(pFile, ZORV_DAMAGE_UNREADABLE, "is not a regular file");
    }
    return true;
}

bool CheckHeader(RecordFile* pFile, uint64_t magic, uint16_t dueVersion, bool isReservedZero)
{
    if (magic != ZORV_FILE_MAGIC_NUM)
    {
        return SetDamage(pFile, ZORV_DAMAGE_UNKNOWN_FILE,
                         fmt::format("does not begin as a {} file does", FileKindName(pFile->m_kind)));
    }
    if (pFile->m_header.m_fileVersion != dueVersion)
    {
        return SetDamage(pFile, ZORV_DAMAGE_VERSION,
                         fmt::format("has file version {}, this reader knows version {}",
                                     pFile->m_header.m_fileVersion, dueVersion));
    }
    if (pFile->m_header.m_pid <= 0 || pFile->m_header.m_pid > INT32_MAX)
    {
        return SetDamage(pFile, ZORV_DAMAGE_CORRUPT, fmt::format("{} is no process id", pFile->m_header.m_pid));
    }
    if (!isReservedZero)
    {
        return SetDamage(pFile, ZORV_DAMAGE_CORRUPT, "reserved bytes of the file header are not zero");
    }
    return true;
}

bool TakeStreamHeader(RecordFile* pFile)
{
    const auto raw = CopyFrom<ZorvUmtFileHdr>(Window(*pFile, sizeof(ZorvUmtFileHdr)), 0);
    pFile->m_header = {true, raw.m_pid, raw.m_mpiRankId, raw.m_fileVersion, sizeof(raw)};
    return CheckHeader(pFile, raw.m_magicNum, ZORV_UMT_FILE_VERSION_1_1,
                       raw.m_reserved1 == 0 && raw.m_reserved2 == 0);
}

bool TakeMetadataHeader(RecordFile* pFile)
{
    const auto raw = CopyFrom<ZorvMetadataFileHdr>(Window(*pFile, sizeof(ZorvMetadataFileHdr)), 0);
    pFile->m_header = {true, raw.m_pid, 0, raw.m_fileVersion, sizeof(raw)};
    return CheckHeader(pFile, raw.m_magicNum, ZORV_METADATA_FILE_VERSION_1_0, raw.m_reserved == 0);
}

void ReadFileHeader(RecordFile* pFile)
{
    const bool isMetadata = pFile->m_kind == ZORV_FILE_METADATA;
    const std::size_t size = isMetadata ? sizeof(ZorvMetadataFileHdr) : sizeof(ZorvUmtFileHdr);
    if (!Fill(pFile, size))
    {
        return;
    }
    if (Available(*pFile) == 0)
    {
        pFile->m_isEnded = true; // a stream that was never switched on
        return;
    }
    if (Available(*pFile) < size)
    {
        SetDamage(pFile, ZORV_DAMAGE_TRUNCATED,
                  fmt::format("ends after {} of the {} bytes of the file header", Available(*pFile), size));
        return;
    }
    if (isMetadata ? TakeMetadataHeader(pFile) : TakeStreamHeader(pFile))
    {
        Consume(pFile, size);
    }
    else
    {
        pFile->m_header.m_isPresent = false;
    }
}

const RecordRule* FindRule(const FileRules& rules, uint16_t type)
{
    const auto rule = std::find_if(rules.m_rules.begin(), rules.m_rules.end(),
                                   [type](const RecordRule& candidate) { return candidate.m_type == type; });
    return rule == rules.m_rules.end() ? nullptr : &*rule;
}

// In the short moment between the end of a call and the withdrawal of its provisional record the last write
// of a process can add 64 bytes of zeroes.
bool StopAtEndMark(RecordFile* pFile)
{
    struct stat status;
    pFile->m_isEnded = true;
    if (fstat(pFile->m_fd, &status) == 0 && static_cast<uint64_t>(status.st_size) > pFile->m_offset)
    {
        pFile->m_unreadBytes = static_cast<uint64_t>(status.st_size) - pFile->m_offset;
    }
    return false;
}

bool SetTruncated(RecordFile* pFile, std::size_t due)
{
    return SetDamage(pFile, ZORV_DAMAGE_TRUNCATED,
                     fmt::format("the file ends after {} of the {} bytes of a record", Available(*pFile), due));
}

bool TakeRecord(RecordFile* pFile, const FileRules& rules, Record* pRecord)
{
    const Bytes header = Window(*pFile, rules.m_headerSize);
    const auto type = CopyFrom<uint16_t>(header, rules.m_typeAt);
    const auto size = CopyFrom<uint16_t>(header, rules.m_sizeAt);
    if (type == 0 && rules.m_hasEndMark)
    {
        return StopAtEndMark(pFile);
    }
    const RecordRule* pRule = FindRule(rules, type);
    if (pRule == nullptr)
    {
        return SetDamage(pFile, ZORV_DAMAGE_CORRUPT, fmt::format("unknown record type {}", type));
    }
    if (size < pRule->m_fixedSize)
    {
        return SetDamage(pFile, ZORV_DAMAGE_CORRUPT,
                         fmt::format("a {} record of {} bytes, the least is {}",
                                     RecordTypeName(pFile->m_kind, type), size, pRule->m_fixedSize));
    }
    if (!Fill(pFile, size))
    {
        return false;
    }
    if (Available(*pFile) < size)
    {
        return SetTruncated(pFile, size);
    }
    pRecord->m_offset = pFile->m_offset;
    pRecord->m_type = type;
    pRecord->m_size = size;
    if (std::string reason = pRule->m_parse(Window(*pFile, size), pRecord); !reason.empty())
    {
        return SetDamage(pFile, ZORV_DAMAGE_CORRUPT, std::move(reason));
    }
    Consume(pFile, size);
    return true;
}

} // namespace

RecordFile::~RecordFile()
{
    if (m_fd >= 0)
    {
        close(m_fd);
    }
}

std::optional<FileKind> FileKindOf(const std::string& path)
{
    if (path.ends_with(".umt"))
    {
        return ZORV_FILE_TRACE;
    }
    if (path.ends_with(".ums"))
    {
        return ZORV_FILE_SAMPLE;
    }
    if (path.ends_with(".meta"))
    {
        return ZORV_FILE_METADATA;
    }
    return std::nullopt;
}

std::unique_ptr<RecordFile> OpenRecordFile(const std::string& path)
{
    auto pFile = std::make_unique<RecordFile>();
    pFile->m_path = path;
    const std::optional<FileKind> kind = FileKindOf(path);
    if (!kind)
    {
        SetDamage(pFile.get(), ZORV_DAMAGE_UNKNOWN_FILE, "its name ends in none of .umt, .ums and .meta");
        return pFile;
    }
    pFile->m_kind = *kind;
    pFile->m_buffer.resize(ZORV_BUFFER_SIZE);
    if (OpenDescriptor(pFile.get()))
    {
        ReadFileHeader(pFile.get());
    }
    return pFile;
}

bool NextRecord(RecordFile* pFile, Record* pRecord)
{
    if (pFile->m_isEnded)
    {
        return false;
    }
    const FileRules rules = RulesOf(pFile->m_kind);
    if (!Fill(pFile, rules.m_headerSize))
    {
        return false;
    }
    if (Available(*pFile) == 0)
    {
        pFile->m_isEnded = true;
        return false;
    }
    if (Available(*pFile) < rules.m_headerSize)
    {
        return SetTruncated(pFile, rules.m_headerSize);
    }
    return TakeRecord(pFile, rules, pRecord);
}

} // namespace qelix
