// Counts the records of trace files, so that a benchmark can say that none was lost.
//
//   BenchCountRecords FILE...
//
// Prints "TYPE SUBTYPE COUNT" for each kind found in all the files together. A file that is damaged, or does
// not end with its last record, is reported with the offset; status 1.
#include "ZorvUserModeTraceTypes.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

using Counts = std::map<std::pair<unsigned, unsigned>, unsigned long>;

struct Bytes
{
    const char* m_pData;
    size_t m_size;
};

static bool MapFile(const char* pPath, Bytes* pBytes)
{
    struct stat status = {};
    const int fd = open(pPath, O_RDONLY | O_CLOEXEC);
    void* pData = MAP_FAILED;
    if (fd >= 0 && fstat(fd, &status) == 0 && status.st_size > 0)
        pData = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    if (fd >= 0)
        close(fd);
    *pBytes = {static_cast<const char*>(pData), static_cast<size_t>(status.st_size)};
    return pData != MAP_FAILED;
}

static bool HasFileHeader(Bytes bytes)
{
    ZorvUmtFileHdr header;
    if (bytes.m_size < sizeof header)
        return false;
    std::memcpy(&header, bytes.m_pData, sizeof header);
    return header.m_magicNum == ZORV_FILE_MAGIC_NUM && header.m_fileVersion == ZORV_UMT_FILE_VERSION_1_1;
}

// The offset at which counting stopped: the file's size when every record is whole.
static size_t CountInto(Bytes bytes, Counts* pCounts)
{
    size_t offset = sizeof(ZorvUmtFileHdr);
    if (!HasFileHeader(bytes))
        return 0;
    while (bytes.m_size - offset >= sizeof(ZorvUmtRecordHdr))
    {
        ZorvUmtRecordHdr header;
        std::memcpy(&header, bytes.m_pData + offset, sizeof header);
        const bool isWhole = header.m_recSize >= sizeof header && header.m_recSize <= bytes.m_size - offset;
        if (header.m_recType == ZORV_UMT_RECORD_NONE || !isWhole)
            return offset;
        ++(*pCounts)[{header.m_recType, header.m_subType}];
        offset += header.m_recSize;
    }
    return offset;
}

int main(int argc, char** argv)
{
    Counts counts;
    int status = argc > 1 ? 0 : 2;
    for (int i = 1; i < argc; i++)
    {
        Bytes bytes = {};
        const size_t end = MapFile(argv[i], &bytes) ? CountInto(bytes, &counts) : 0;
        if (end != bytes.m_size || end == 0)
        {
            std::fprintf(stderr, "%s: damaged at byte %zu of %zu\n", argv[i], end, bytes.m_size);
            status = 1;
        }
    }
    for (const auto& [kind, count] : counts)
        std::printf("%u %u %lu\n", kind.first, kind.second, count);
    return status;
}
