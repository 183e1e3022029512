// The module map: which file was mapped where, for turning addresses into modules later.

#include "ZorvAgentUtils.h"
#include "ZorvMetadataTypes.h"

#include <cerrno>

ssize_t (*g_pWriteMmapBytes)(int fd, const void* pBuf, size_t count) = ZorvUmaWrite;

namespace
{

constexpr size_t LINE_SIZE = 5120;
constexpr size_t MAX_TOKENS = 16;

// Fields of a line of the listing.
constexpr size_t RANGE_TOKEN = 0;
constexpr size_t PERMISSIONS_TOKEN = 1;
constexpr size_t PATH_TOKEN = 5;

} // namespace

static uint64_t MonotonicTime()
{
    timespec now;
    if (ZorvUmaClockGetTime(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
}

// Words behind the sixteenth are left out.
static void SplitLine(char* pLine, char* pTokens[MAX_TOKENS])
{
    char* pState = nullptr;
    size_t count = 0;
    for (char* pToken = strtok_r(pLine, " ", &pState); pToken != nullptr && count < MAX_TOKENS;
         pToken = strtok_r(nullptr, " ", &pState))
        pTokens[count++] = pToken;
}

static bool WriteLine(char* pLine, uint64_t time, pid_t pid, int fd)
{
    char* pTokens[MAX_TOKENS] = {};
    SplitLine(pLine, pTokens);
    char* pPath = pTokens[PATH_TOKEN];
    if (pTokens[RANGE_TOKEN] == nullptr || pTokens[PERMISSIONS_TOKEN] == nullptr || pPath == nullptr ||
        ZorvUmaStrchr(pTokens[PERMISSIONS_TOKEN], 'x') == nullptr)
        return true;

    char* pState = nullptr;
    const char* pStart = strtok_r(pTokens[RANGE_TOKEN], "-", &pState);
    const char* pEnd = pStart == nullptr ? nullptr : strtok_r(nullptr, "-", &pState);
    if (pEnd == nullptr)
        return true;
    uint64_t start = ZorvUmaStrtoul(pStart, nullptr, 16);
    uint64_t end = ZorvUmaStrtoul(pEnd, nullptr, 16);

    pPath[ZorvUmaStrcspn(pPath, "\n")] = '\0';
    int length = static_cast<int>(ZorvUmaStrlen(pPath));
    return length == 0 || fnWriteMmapRecord(time, start, end, fd, pPath, length, pid);
}

extern "C" bool fnWriteProcessMaps(pid_t pid, int fd)
{
    uint64_t time = MonotonicTime();
    if (fd < 0)
        return false;
    char path[64] = {};
    ZorvUmaSnprintf(path, sizeof(path), "/proc/%d/maps", pid);
    FILE* pFile = ZorvUmaFileOpen(path, "r");
    if (pFile == nullptr)
        return false;
    auto pLine = static_cast<char*>(ZorvUmaMalloc(LINE_SIZE));
    if (pLine == nullptr)
    {
        ZorvUmaFileClose(pFile);
        return true;
    }

    bool isWritten = true;
    ZorvUmaMemset(pLine, 0, LINE_SIZE);
    while (ZorvUmaFileGets(pLine, LINE_SIZE, pFile) != nullptr)
    {
        isWritten = WriteLine(pLine, time, pid, fd) && isWritten;
        ZorvUmaMemset(pLine, 0, LINE_SIZE);
    }
    ZorvUmaFree(pLine);
    ZorvUmaFileClose(pFile);
    return isWritten;
}

extern "C" bool fnWriteMmapRecord(uint64_t time, uint64_t startAddr, uint64_t endAddr, int fd,
                                  const char* pFilePath, int pathLen, pid_t pid)
{
    if (pFilePath == nullptr || fd < 0 || pathLen < 0)
        return false;
    // A record's size has 16 bits; a longer path would carry a wrapped one and end every reader's walk.
    auto size = static_cast<uint16_t>(pathLen + ZORV_MMAP_RECORD_BASE_SIZE);
    if (size != pathLen + ZORV_MMAP_RECORD_BASE_SIZE)
        return false;
    auto pRecord = static_cast<ZorvMmapRecord*>(ZorvUmaMalloc(size));
    if (pRecord == nullptr)
        return false;
    *pRecord = {{ZORV_METADATA_RECORD_MMAP, size, static_cast<uint32_t>(pid)},
                startAddr,
                endAddr,
                time,
                static_cast<uint16_t>(pathLen),
                true,
                0,
                0};
    char* pPath = reinterpret_cast<char*>(pRecord + 1);
    ZorvUmaMemcpy(pPath, pFilePath, static_cast<size_t>(pathLen));
    pPath[pathLen] = '\0';
    bool isWritten = g_pWriteMmapBytes(fd, pRecord, size) == size;
    ZorvUmaFree(pRecord);
    return isWritten;
}
