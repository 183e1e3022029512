// Record buffers: files, storage, the list of all buffers, the queue of full ones, and their way into the file.
//
// A thread fills its own current buffer without a lock. A full buffer goes through the queue to the writer,
// which writes and empties it. Nobody frees or empties what another thread still fills.

#include "Linux/ZorvUserModeTrace.h"
#include "ZorvAgentUtils.h"
#include "ZorvRawSyscall.h"
#include "ZorvUserModeTraceLog.h"

#include <cerrno>
#include <initializer_list>
#include <sys/mman.h>

namespace
{

constexpr uint32_t INITIAL_BUFFERS = 8;
constexpr uint32_t PAGES_PER_BUFFER = 8;
constexpr size_t PATH_SIZE = 4096;
constexpr size_t HOST_NAME_SIZE = 256;
constexpr size_t PAGE_STEP = 4096; // granularity of the zero test; the true page size may be a multiple

} // namespace

// ---- storage ---------------------------------------------------------------------------------------------

static bool IsZero(const char* pBytes, size_t size)
{
    for (; size >= sizeof(uint64_t); pBytes += sizeof(uint64_t), size -= sizeof(uint64_t))
    {
        uint64_t word;
        __builtin_memcpy(&word, pBytes, sizeof(word));
        if (word != 0)
            return false;
    }
    for (; size != 0; pBytes++, size--)
        if (*pBytes != 0)
            return false;
    return true;
}

// Reading a page that nobody has written maps the kernel's shared zero page; writing it would cost 4 KiB for
// good.
void ZorvUmaZeroStorage(char* pStorage, size_t size)
{
    while (size != 0)
    {
        size_t toPageEnd = PAGE_STEP - reinterpret_cast<uintptr_t>(pStorage) % PAGE_STEP;
        size_t step = size < toPageEnd ? size : toPageEnd;
        if (!IsZero(pStorage, step))
            ZorvUmaMemset(pStorage, 0, step);
        pStorage += step;
        size -= step;
    }
}

// Fresh storage is read in one step of the kernel's instead of a fault a page. A kernel that does not know the
// step (before 5.14) changes nothing. madvise(2)
static void PopulateForReading(const char* pStorage, size_t size)
{
    auto begin = reinterpret_cast<uintptr_t>(pStorage) & ~(PAGE_STEP - 1);
    ZorvRawSyscall(SYS_madvise, static_cast<long>(begin),
                   static_cast<long>(reinterpret_cast<uintptr_t>(pStorage) + size - begin), MADV_POPULATE_READ);
}

static uint32_t BufferSize()
{
    long pageSize = ZorvUmaSysconf(_SC_PAGESIZE);
    return static_cast<uint32_t>(pageSize > 0 ? pageSize : PAGE_STEP) * PAGES_PER_BUFFER;
}

// An empty READY buffer with storage of its own; m_pData is null when memory is out.
static ZorvUmaBuffer MakeBuffer()
{
    ZorvUmaBuffer buffer = {};
    uint32_t size = BufferSize();
    buffer.m_pData = static_cast<char*>(ZorvUmaMalloc(size));
    if (buffer.m_pData == nullptr)
        return buffer;
    PopulateForReading(buffer.m_pData, size);
    ZorvUmaZeroStorage(buffer.m_pData, size);
    buffer.m_state = ZORV_UMA_BUFFER_STATE_READY;
    buffer.m_bufSize = size;
    return buffer;
}

// Node and storage in one mapping: for a thread that may not allocate.
static bool IsFromKernel(const ZorvUmaBuffer* pBuffer)
{
    return pBuffer->m_pData == reinterpret_cast<const char*>(pBuffer) + PAGE_STEP;
}

static void ForgetStorage(ZorvUmaBuffer* pBuffer)
{
    if (pBuffer->m_pData != nullptr && !IsFromKernel(pBuffer))
        ZorvUmaRelease(pBuffer->m_pData);
    pBuffer->m_pData = nullptr;
    pBuffer->m_dataLen = 0;
    pBuffer->m_cacheLen = 0;
    pBuffer->m_bufSize = 0;
    ZorvStoreFenced(&pBuffer->m_state, ZORV_UMA_BUFFER_STATE_NONE);
}

static void EmptyBuffer(ZorvUmaBuffer* pBuffer)
{
    ZorvUmaZeroStorage(pBuffer->m_pData, pBuffer->m_bufSize);
    ZorvStoreFenced(&pBuffer->m_dataLen, 0U);
    ZorvStoreFenced(&pBuffer->m_cacheLen, 0U);
    ZorvStoreFenced(&pBuffer->m_state, ZORV_UMA_BUFFER_STATE_READY);
}

void ZorvUmaRelease(void* pMemory)
{
    if (!t_zorvState.m_isDying)
        ZorvUmaFree(pMemory);
}

// ---- list ------------------------------------------------------------------------------------------------

// Null for a list that has a head and no end.
static ZorvUmaBuffer* LinkNode(ZorvUmaData* pData, ZorvUmaListNode* pNode)
{
    ZorvUmaBuffer* pInserted = &pNode->m_buffer;
    ZorvUmaPthreadMutexLock(&pData->m_lock);
    if (pData->m_pBufList == nullptr)
    {
        pData->m_pBufList = pNode;
        pData->m_pListEnd = pNode;
    }
    else if (pData->m_pListEnd != nullptr)
    {
        pData->m_pListEnd->m_pNext = pNode;
        pData->m_pListEnd = pNode;
    }
    else
        pInserted = nullptr;
    ZorvUmaPthreadMutexUnlock(&pData->m_lock);
    return pInserted;
}

extern "C" ZorvUmaBuffer* ZorvUmaInsertIntoList(ZorvUmaData* pData, ZorvUmaBuffer buffer)
{
    if (pData == nullptr)
        return nullptr;
    auto pNode = static_cast<ZorvUmaListNode*>(ZorvUmaMalloc(sizeof(ZorvUmaListNode)));
    if (pNode == nullptr)
        return nullptr;
    pNode->m_buffer = buffer;
    pNode->m_pNext = nullptr;
    return LinkNode(pData, pNode);
}

ZorvUmaBuffer* ZorvUmtMapNewBuffer(ZorvUmaData* pData)
{
    uint32_t size = BufferSize();
    void* pMemory =
        ZorvUmaMmap(nullptr, PAGE_STEP + size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED)
        return nullptr;
    auto pNode = static_cast<ZorvUmaListNode*>(pMemory);
    pNode->m_buffer.m_state = ZORV_UMA_BUFFER_STATE_READY;
    pNode->m_buffer.m_bufSize = size;
    pNode->m_buffer.m_pData = static_cast<char*>(pMemory) + PAGE_STEP;
    return LinkNode(pData, pNode);
}

extern "C" bool ZorvUmaCreateBuffers(ZorvUmaData* pData, int logFd)
{
    if (pData == nullptr || logFd < 0)
        return false;
    for (uint32_t i = 0; i < INITIAL_BUFFERS; i++)
    {
        ZorvUmaBuffer buffer = MakeBuffer();
        if (buffer.m_pData == nullptr)
        {
            ZORV_LOG(logFd, ERROR, "Failed to allocate the memory for buffer");
            return false;
        }
        if (ZorvUmaInsertIntoList(pData, buffer) == nullptr)
        {
            ZorvUmaFree(buffer.m_pData);
            ZORV_LOG(logFd, ERROR, "Failed to insert the buffer into list");
            return false;
        }
    }
    return true;
}

extern "C" ZorvUmaBuffer* ZorvUmtAllocateNewBuffer(ZorvUmaData* pData, int logFd)
{
    if (pData == nullptr || logFd < 0)
        return nullptr;
    ZorvUmaBuffer buffer = MakeBuffer();
    if (buffer.m_pData == nullptr)
    {
        ZORV_LOG(logFd, ERROR, "Failed to allocate the memory for buffer");
        return nullptr;
    }
    ZorvUmaBuffer* pInserted = ZorvUmaInsertIntoList(pData, buffer);
    if (pInserted == nullptr)
    {
        ZorvUmaFree(buffer.m_pData);
        ZORV_LOG(logFd, ERROR, "Failed to insert the buffer into list");
    }
    return pInserted;
}

extern "C" ZorvUmaBuffer* ZorvUmaGetFreeBuffer(ZorvUmaData* pData)
{
    if (pData == nullptr)
        return nullptr;
    ZorvUmaBuffer* pFree = nullptr;
    ZorvUmaPthreadMutexLock(&pData->m_lock);
    for (ZorvUmaListNode* pNode = pData->m_pBufList; pNode != nullptr && pFree == nullptr;
         pNode = pNode->m_pNext)
    {
        ZorvUmaBuffer* pBuffer = &pNode->m_buffer;
        if (pBuffer->m_pData != nullptr &&
            __atomic_load_n(&pBuffer->m_state, __ATOMIC_ACQUIRE) == ZORV_UMA_BUFFER_STATE_READY)
        {
            ZorvStoreFenced(&pBuffer->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
            pFree = pBuffer;
        }
    }
    ZorvUmaPthreadMutexUnlock(&pData->m_lock);
    return pFree;
}

// ---- queue -----------------------------------------------------------------------------------------------

static bool CreateStreamQueue(ZorvUmaData* pData)
{
    auto pQueue = static_cast<ZorvUmaQueue*>(ZorvUmaMalloc(sizeof(ZorvUmaQueue)));
    pData->m_pQueue = pQueue;
    if (pQueue == nullptr)
        return false;
    ZorvUmaMemset(pQueue, 0, sizeof(*pQueue));
    ZorvUmaPthreadMutexInit(&pQueue->m_lock, nullptr);
    return true;
}

extern "C" bool ZorvUmaCreateQueue(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return true;
    if (pProfileInfo->m_umsConfig.m_enable && !CreateStreamQueue(&pProfileInfo->m_umsData))
        return false;
    return !pProfileInfo->m_umtConfig.m_enable || CreateStreamQueue(&pProfileInfo->m_umtData);
}

extern "C" void ZorvUmaDestroyQueue(ZorvUmaProfileInfo* pProfileInfo)
{
    if (pProfileInfo == nullptr)
        return;
    for (ZorvUmaData* pData : {&pProfileInfo->m_umsData, &pProfileInfo->m_umtData})
    {
        if (pData->m_pQueue == nullptr)
            continue;
        ZorvUmaRelease(pData->m_pQueue);
        pData->m_pQueue = nullptr;
    }
}

extern "C" bool ZorvUmaIsQueueEmpty(ZorvUmaQueue* pQueue)
{
    return pQueue != nullptr && pQueue->m_pFront == nullptr && pQueue->m_pRear == nullptr;
}

extern "C" bool ZorvUmaEnqueue(ZorvUmaQueue* pQueue, ZorvUmaBuffer* pBuffer)
{
    if (pQueue == nullptr || pBuffer == nullptr)
        return false;
    pBuffer->m_pNext = nullptr;
    ZorvUmaPthreadMutexLock(&pQueue->m_lock);
    if (ZorvUmaIsQueueEmpty(pQueue))
        pQueue->m_pFront = pBuffer;
    else
        pQueue->m_pRear->m_pNext = pBuffer;
    pQueue->m_pRear = pBuffer;
    ZorvUmaPthreadMutexUnlock(&pQueue->m_lock);
    return true;
}

extern "C" ZorvUmaBuffer* ZorvUmaDequeue(ZorvUmaQueue* pQueue)
{
    if (pQueue == nullptr)
        return nullptr;
    ZorvUmaPthreadMutexLock(&pQueue->m_lock);
    ZorvUmaBuffer* pBuffer = ZorvUmaIsQueueEmpty(pQueue) ? nullptr : pQueue->m_pFront;
    if (pBuffer != nullptr)
    {
        pQueue->m_pFront = pBuffer->m_pNext;
        if (pQueue->m_pFront == nullptr)
            pQueue->m_pRear = nullptr;
        pBuffer->m_pNext = nullptr;
    }
    ZorvUmaPthreadMutexUnlock(&pQueue->m_lock);
    return pBuffer;
}

// ---- files -----------------------------------------------------------------------------------------------

extern "C" bool ZorvUmaOpenFileForWrite(const char* pDirPath, int* pFd, const char* pFileName,
                                        const char* pFormat, int logFd)
{
    if (pDirPath == nullptr || pFd == nullptr || pFileName == nullptr || pFormat == nullptr || logFd < 0)
        return false;
    char hostName[HOST_NAME_SIZE] = {};
    if (ZorvUmaGetHostName(hostName, sizeof(hostName)) != 0)
    {
        ZORV_LOG(logFd, ERROR, "Failed to get hostname : %s.", ZorvUmaStrerror(errno));
        return false;
    }
    char path[PATH_SIZE] = {};
    ZorvUmaSnprintf(path, sizeof(path), "%s/%s_%s_%d.%s", pDirPath, pFileName, hostName, ZorvUmaGetPid(),
                    pFormat);
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    *pFd = fnOpenFile(path, flags, 0644);
    if (*pFd < 0)
    {
        ZORV_LOG(logFd, ERROR, "Failed to open the file (%s) : %s.", path, ZorvUmaStrerror(errno));
        return false;
    }
    return true;
}

static bool WriteBytes(int fd, const char* pBytes, uint32_t size)
{
    return ZorvUmaWriteWhole(fd, pBytes, size) == static_cast<ssize_t>(size);
}

extern "C" bool ZorvUmaInitDataWriting(ZorvUmaData* pData, const char* pDirPath, const char* pFileName,
                                       const char* pFormat, int logFd)
{
    if (pData == nullptr || pDirPath == nullptr || pFileName == nullptr || pFormat == nullptr || logFd < 0)
        return false;
    if (pData->m_pBufList != nullptr)
    {
        for (ZorvUmaListNode* pNode = pData->m_pBufList; pNode != nullptr; pNode = pNode->m_pNext)
            ForgetStorage(&pNode->m_buffer);
        // Only the head goes: a thread may still hold the address of a buffer in any other node.
        ZorvUmaFree(pData->m_pBufList);
        pData->m_pBufList = nullptr;
    }
    ZorvUmaPthreadMutexInit(&pData->m_lock, nullptr);
    return ZorvUmaOpenFileForWrite(pDirPath, &pData->m_fd, pFileName, pFormat, logFd) &&
           ZorvUmaCreateBuffers(pData, logFd);
}

extern "C" bool ZorvUmaWriteBuffer(ZorvUmaData* pData, int logFd)
{
    if (pData == nullptr || logFd < 0)
        return false;
    bool isWritten = false;
    while (ZorvUmaBuffer* pBuffer = ZorvUmaDequeue(pData->m_pQueue))
    {
        if (pBuffer->m_pData == nullptr || pBuffer->m_state != ZORV_UMA_BUFFER_STATE_FULL)
            continue;
        isWritten = WriteBytes(pData->m_fd, pBuffer->m_pData, pBuffer->m_dataLen);
        if (isWritten)
            EmptyBuffer(pBuffer);
        else
            ZORV_LOG(logFd, ERROR, "Failed to write buffer from global list to file.");
    }
    return isWritten;
}

// Whether another living thread may still write into the buffer, now that the process is being finalised.
static bool IsHeldByOther(const ZorvUmaBuffer* pBuffer)
{
    const ZorvUmaProfileInfo* pProfileInfo = ZorvUmaGetProfileInfo();
    const ZorvProcessState* pState = ZorvUmaStateOf(pProfileInfo);
    if (pProfileInfo == nullptr || pState->m_finalisingTid == 0)
        return false;
    if (pState->m_keepsStorage)
        return true;
    if (pBuffer->m_state != ZORV_UMA_BUFFER_STATE_IN_USE)
        return false;
    const ZorvUmaPerThreadInfo* pOwn = t_zorvState.m_pInfo;
    if (pOwn != nullptr &&
        (pBuffer == pOwn->m_pUmtBuf || pBuffer == pOwn->m_pUmsBuf || pBuffer == t_zorvState.m_pUmtSpareBuf))
        return false;
    return __atomic_load_n(&pState->m_threadCount, __ATOMIC_SEQ_CST) > (pOwn != nullptr ? 1U : 0U);
}

// True when the storage is gone, false when another thread keeps it.
static bool WriteAndFreeBuffer(const ZorvUmaData* pData, ZorvUmaBuffer* pBuffer, int logFd)
{
    uint32_t dataLen = __atomic_load_n(&pBuffer->m_dataLen, __ATOMIC_SEQ_CST);
    uint32_t cacheLen = __atomic_load_n(&pBuffer->m_cacheLen, __ATOMIC_SEQ_CST);
    if (dataLen != 0 && !WriteBytes(pData->m_fd, pBuffer->m_pData, dataLen + cacheLen))
        ZORV_LOG_AS(logFd, ERROR, "ZorvUmaFiniDataWriting",
                    "Failed to write buffer from global array to file.");
    if (IsHeldByOther(pBuffer))
        return false;
    ForgetStorage(pBuffer);
    pBuffer->m_pNext = nullptr;
    return true;
}

extern "C" bool ZorvUmaFiniDataWriting(ZorvUmaData* pData, int logFd, bool)
{
    if (pData == nullptr || logFd < 0)
        return false;
    ZorvUmaWriteBuffer(pData, logFd);

    bool isHeadFree = true;
    for (ZorvUmaListNode* pNode = pData->m_pBufList; pNode != nullptr; pNode = pNode->m_pNext)
        if (pNode->m_buffer.m_pData != nullptr && !WriteAndFreeBuffer(pData, &pNode->m_buffer, logFd) &&
            pNode == pData->m_pBufList)
            isHeadFree = false;
    // The others stay: a thread may still hold the address of a buffer in any of them.
    if (isHeadFree)
        ZorvUmaRelease(pData->m_pBufList);
    pData->m_pBufList = nullptr;

    ZorvUmaSyncAndClose(&pData->m_fd);
    if (pData->m_isTrace)
        ZORV_LOG(logFd, INFO, "Lost trace records count = %lu",
                 static_cast<unsigned long>(pData->m_lostRecordCount));
    else
        ZORV_LOG(logFd, INFO, "Lost sample records count = %lu",
                 static_cast<unsigned long>(pData->m_lostRecordCount));
    return true;
}
