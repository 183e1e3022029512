// Trace records: parked before a call, completed after it, or written at once.
#include "Support.h"

#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::NoMemory;
using faults::Replace;

namespace
{

constexpr uint64_t START = 1000;
constexpr uint64_t END = 5000;
constexpr uint64_t LOCK = 0x1020304050607080;
constexpr uint64_t FUNCTION = 0x1122334455667788;
constexpr uint64_t VALUE = 0x99AABBCCDDEEFF00;

uint64_t ParallelRegion()
{
    return 4711;
}

class Capture : public RecordingTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        m_pInfo->m_umsConfig.m_enable = false;
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
        for (const ZorvUmaBuffer* pBuffer : BuffersOf(m_pInfo->m_umtData))
        {
            memset(pBuffer->m_pData, 0xA5, pBuffer->m_bufSize); // as an old provisional record would
        }
    }

    ZorvUmaBuffer* CachePthread()
    {
        return ZorvUmtCachePthreadRecord(m_pInfo, START, LOCK, FUNCTION, ZORV_PTHREAD_WAIT_CV);
    }

    void CapturePthread(ZorvUmaBuffer* pCache)
    {
        ZorvUmtCapturePthreadRecord(m_pInfo, START, END, LOCK, FUNCTION, -110, ZORV_PTHREAD_WAIT_CV, pCache);
    }

    ZorvUmaBuffer* CacheSyscall()
    {
        return ZorvUmtCacheSyscallRecord(m_pInfo, START, FUNCTION, ZORV_SYSCALL_TYPE_SLEEP,
                                         ZORV_UMT_EVENT_SLEEP, ZORV_UMT_FLAG_SYSCALL_ID, VALUE);
    }

    void CaptureSyscall(ZorvUmaBuffer* pCache)
    {
        ZorvUmtCaptureSysCallRecord(m_pInfo, START, END, FUNCTION, ZORV_SYSCALL_TYPE_SLEEP,
                                    ZORV_UMT_EVENT_SLEEP, ZORV_UMT_FLAG_SYSCALL_ID, VALUE, pCache);
    }

    static PthreadRecord ExpectedPthread(uint64_t endTime, int result, uint64_t parId = 0)
    {
        return {Header(ZORV_UMT_RECORD_PTHREAD, ZORV_PTHREAD_WAIT_CV, 0, endTime),
                LOCK,
                FUNCTION,
                parId,
                result,
                0,
                0};
    }

    static SyscallRecord ExpectedSyscall(uint64_t endTime, uint64_t parId = 0)
    {
        return {Header(ZORV_UMT_RECORD_SYSCALL, ZORV_SYSCALL_TYPE_SLEEP, ZORV_UMT_FLAG_SYSCALL_ID, endTime),
                FUNCTION,
                parId,
                VALUE,
                0,
                {}};
    }

    static TraceHeader Header(uint16_t type, uint16_t subType, uint16_t flags, uint64_t endTime)
    {
        return {type, 64, subType, flags, START, endTime, getpid(), static_cast<int32_t>(syscall(SYS_gettid))};
    }

    // Compares every byte, padding included.
    template <class Record>
    void ExpectRecord(const ZorvUmaBuffer* pBuffer, uint32_t offset, const Record& expected)
    {
        static_assert(sizeof expected == CALL_RECORD_SIZE);
        ASSERT_NE(pBuffer, nullptr);
        const auto hex = [](const char* pBytes)
        {
            std::string text;
            for (size_t i = 0; i < CALL_RECORD_SIZE; i++)
            {
                text += Format(i % 8 == 7 ? "%02x " : "%02x", static_cast<unsigned char>(pBytes[i]));
            }
            return text;
        };
        EXPECT_EQ(hex(pBuffer->m_pData + offset), hex(reinterpret_cast<const char*>(&expected)));
    }

    void ExpectNothingWritten()
    {
        EXPECT_EQ(m_pThread->m_pUmtBuf, nullptr);
        EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 0u);
        EXPECT_EQ(Log(), Strings{});
    }

    // No buffer, and none to be had.
    std::unique_ptr<NoMemory> RunOutOfBuffers()
    {
        while (ZorvUmaGetFreeBuffer(&m_pInfo->m_umtData) != nullptr)
        {
        }
        return std::make_unique<NoMemory>(32768);
    }

    std::string LastWarning(const char* pText)
    {
        return std::string("WARN ") + Format(pText, getpid(), static_cast<int>(syscall(SYS_gettid)));
    }
};

#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// ---- parking ---------------------------------------------------------------------------------------------

TEST_F(Capture, AParkedPthreadRecordIsProvisional)
{
    ZorvUmaBuffer* pCache = CachePthread();
    ASSERT_NE(pCache, nullptr);
    EXPECT_EQ(pCache, m_pThread->m_pUmtBuf);
    EXPECT_EQ(pCache->m_dataLen, 0u);
    EXPECT_EQ(pCache->m_cacheLen, 64u);
    ExpectRecord(pCache, 0, ExpectedPthread(NOT_ENDED, 0));
}

TEST_F(Capture, AParkedSyscallRecordIsProvisional)
{
    ZorvUmaBuffer* pCache = CacheSyscall();
    ASSERT_NE(pCache, nullptr);
    EXPECT_EQ(pCache, m_pThread->m_pUmtBuf);
    EXPECT_EQ(pCache->m_dataLen, 0u);
    EXPECT_EQ(pCache->m_cacheLen, 64u);
    ExpectRecord(pCache, 0, ExpectedSyscall(NOT_ENDED));
}

// A blocking call that never returns leaves its record in the file when one complete record stands before it.
TEST_F(Capture, ACallThatNeverReturnsReachesTheFileBehindACompleteRecord)
{
    const int fd = dup(m_pInfo->m_umtData.m_fd);
    CapturePthread(nullptr);
    CacheSyscall();
    ASSERT_TRUE(ZorvUmaFiniDataWriting(&m_pInfo->m_umtData, m_logFd, false));
    const std::string bytes = ReadWhole(fd);
    ASSERT_EQ(bytes.size(), 128u);
    TraceHeader last;
    memcpy(&last, bytes.data() + 64, sizeof last);
    EXPECT_EQ(last.m_recType, ZORV_UMT_RECORD_SYSCALL);
    EXPECT_EQ(last.m_endTime, NOT_ENDED);
}

// ---- completing ------------------------------------------------------------------------------------------

TEST_F(Capture, CompletingAPthreadRecordStoresEndAndResult)
{
    ZorvUmaBuffer* pCache = CachePthread();
    ASSERT_NE(pCache, nullptr);
    CapturePthread(pCache);
    EXPECT_EQ(pCache->m_dataLen, 64u);
    EXPECT_EQ(pCache->m_cacheLen, 64u) << "the interposer withdraws it";
    ExpectRecord(pCache, 0, ExpectedPthread(END, -110));
}

TEST_F(Capture, CompletingIgnoresTheOtherArguments)
{
    ZorvUmaBuffer* pCache = CachePthread();
    ASSERT_NE(pCache, nullptr);
    ZorvUmtCapturePthreadRecord(m_pInfo, 1, END, 2, 3, -110, ZORV_PTHREAD_JOIN, pCache);
    ExpectRecord(pCache, 0, ExpectedPthread(END, -110));
}

// Only the end is stored: value and flags are those given when it was parked.
TEST_F(Capture, CompletingASyscallRecordKeepsTheValueGivenWhenItWasParked)
{
    ZorvUmaBuffer* pCache = CacheSyscall();
    ASSERT_NE(pCache, nullptr);
    ZorvUmtCaptureSysCallRecord(m_pInfo, 1, END, 2, ZORV_SYSCALL_TYPE_IO, ZORV_UMT_EVENT_IO, 0, 12345, pCache);
    EXPECT_EQ(pCache->m_dataLen, 64u);
    ExpectRecord(pCache, 0, ExpectedSyscall(END));
}

TEST_F(Capture, CompletingChecksNothingElse)
{
    ZorvUmaBuffer* pCache = CachePthread();
    ASSERT_NE(pCache, nullptr);
    m_pThread->m_stopCollection = true;
    CapturePthread(pCache);
    EXPECT_EQ(pCache->m_dataLen, 64u);
    ExpectRecord(pCache, 0, ExpectedPthread(END, -110));
}

TEST_F(Capture, CompletingWithoutStorageDoesNothing)
{
    ZorvUmaBuffer empty{};
    CapturePthread(&empty);
    CaptureSyscall(&empty);
    EXPECT_EQ(empty.m_dataLen, 0u);
}

// ---- at once ---------------------------------------------------------------------------------------------

TEST_F(Capture, WithoutAParkedOneACompletePthreadRecordIsWritten)
{
    CapturePthread(nullptr);
    ASSERT_NE(m_pThread->m_pUmtBuf, nullptr);
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_dataLen, 64u);
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_cacheLen, 0u);
    ExpectRecord(m_pThread->m_pUmtBuf, 0, ExpectedPthread(END, -110));
}

TEST_F(Capture, WithoutAParkedOneACompleteSyscallRecordIsWritten)
{
    CaptureSyscall(nullptr);
    ASSERT_NE(m_pThread->m_pUmtBuf, nullptr);
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_dataLen, 64u);
    ExpectRecord(m_pThread->m_pUmtBuf, 0, ExpectedSyscall(END));
}

TEST_F(Capture, RecordsFollowEachOther)
{
    CapturePthread(nullptr);
    CaptureSyscall(nullptr);
    ZorvUmaBuffer* pCache = CachePthread();
    CapturePthread(pCache);
    ExpectRecord(pCache, 0, ExpectedPthread(END, -110));
    ExpectRecord(pCache, 64, ExpectedSyscall(END));
    ExpectRecord(pCache, 128, ExpectedPthread(END, -110));
    EXPECT_EQ(TraceRecords(pCache).size(), 3u);
}

// A buffer of 32,768 bytes holds 511 records: the 512th would fill it to its last byte.
TEST_F(Capture, TheLastRecordOfABufferStopsOneByteShortOfItsEnd)
{
    for (int i = 0; i < 511; i++)
    {
        CapturePthread(nullptr);
    }
    ZorvUmaBuffer* pFirst = m_pThread->m_pUmtBuf;
    EXPECT_EQ(pFirst->m_dataLen, 511u * 64);
    EXPECT_EQ(pFirst->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
    CapturePthread(nullptr);
    EXPECT_EQ(pFirst->m_state, ZORV_UMA_BUFFER_STATE_FULL);
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_dataLen, 64u);
    EXPECT_EQ(TraceRecords(pFirst).size(), 511u);
}

// A signal handler's record lands on the provisional one: it withdraws it, so that the file can be read to its
// end.
TEST_F(Capture, ACompleteRecordOverAProvisionalOneWithdrawsIt)
{
    const std::function<void()> complete[] = {[this] { CapturePthread(nullptr); },
                                              [this] { CaptureSyscall(nullptr); }};
    for (const auto& write : complete)
    {
        ZorvUmaBuffer* pCache = CachePthread();
        ASSERT_NE(pCache, nullptr);
        const uint32_t before = pCache->m_dataLen;
        write();
        EXPECT_EQ(pCache->m_cacheLen, 0u);
        EXPECT_EQ(pCache->m_dataLen, before + 64);
        EXPECT_EQ(TraceRecords(pCache).back().m_endTime, END);
    }
}

// What the interrupted call then does may not tear the file, however long the record over its own was.
TEST_F(Capture, TheInterruptedCallLeavesAFileThatCanBeRead)
{
    const std::function<void()> handlers[] = {
        [this] { CaptureSyscall(nullptr); },
        [this] { ZorvUmaWriteThreadEndRecord(m_pInfo, 0); },
        [this] { ZorvUmaWriteProcRecord(m_pInfo, 1, "name", 4, START, 0); },
    };
    for (const auto& handler : handlers)
    {
        ZorvUmaBuffer* pBuffer = ZorvUmaGetFreeBuffer(&m_pInfo->m_umtData);
        memset(pBuffer->m_pData, 0, pBuffer->m_bufSize);
        m_pThread->m_pUmtBuf = pBuffer;
        CapturePthread(nullptr);
        ZorvUmaBuffer* pCache = CachePthread();
        ASSERT_EQ(pCache, pBuffer);
        handler();
        CapturePthread(pCache);
        pCache->m_cacheLen = 0;
        EXPECT_GE(TraceRecords(pBuffer).size(), 2u);
        EXPECT_LT(pBuffer->m_dataLen, 4 * CALL_RECORD_SIZE);
    }
}

// ---- not at all ------------------------------------------------------------------------------------------

// A thread that the agent does not know writes no records and logs nothing.
TEST_F(Capture, AThreadWithoutARecordWritesAndLogsNothing)
{
    std::thread(
        [this]
        {
            EXPECT_EQ(CachePthread(), nullptr);
            EXPECT_EQ(CacheSyscall(), nullptr);
            CapturePthread(nullptr);
            CaptureSyscall(nullptr);
        })
        .join();
    ExpectNothingWritten();
}

TEST_F(Capture, AStoppedThreadWritesAndLogsNothing)
{
    m_pThread->m_stopCollection = true;
    EXPECT_EQ(CachePthread(), nullptr);
    EXPECT_EQ(CacheSyscall(), nullptr);
    CapturePthread(nullptr);
    CaptureSyscall(nullptr);
    ExpectNothingWritten();
}

TEST_F(Capture, ANullProcessRecordWritesNothing)
{
    EXPECT_EQ(ZorvUmtCachePthreadRecord(nullptr, 1, 2, 3, 1), nullptr);
    EXPECT_EQ(ZorvUmtCacheSyscallRecord(nullptr, 1, 2, 1, 1, 0, 0), nullptr);
    ZorvUmtCapturePthreadRecord(nullptr, 1, 2, 3, 4, 5, 1, nullptr);
    ZorvUmtCaptureSysCallRecord(nullptr, 1, 2, 3, 1, 1, 0, 0, nullptr);
    ExpectNothingWritten();
}

TEST_F(Capture, FailuresAreLoggedWithTheirOwnMessages)
{
    const auto noMemory = RunOutOfBuffers();
    EXPECT_EQ(CachePthread(), nullptr);
    EXPECT_EQ(Log().back(), LastWarning("Failed to cache pthread record for process (%d : %d)"));
    EXPECT_EQ(CacheSyscall(), nullptr);
    EXPECT_EQ(Log().back(), LastWarning("Failed to cache syscall record for process (%d : %d)."));
    CapturePthread(nullptr);
    EXPECT_EQ(Log().back(), LastWarning("Failed to write pthread record for process (%d : %d)"));
    CaptureSyscall(nullptr);
    EXPECT_EQ(Log().back(), LastWarning("Failed to write syscall record for process (%d : %d)."));
}

TEST_F(Capture, ARecordWithoutABufferIsCountedAsLost)
{
    const auto noMemory = RunOutOfBuffers();
    CapturePthread(nullptr);
    EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 1u);
    CaptureSyscall(nullptr);
    EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 2u);
}

TEST_F(Capture, ABufferWithoutStorageIsAFailureOfEachWriter)
{
    CapturePthread(nullptr);
    char* pStorage = m_pThread->m_pUmtBuf->m_pData;
    m_pThread->m_pUmtBuf->m_pData = nullptr;
    EXPECT_EQ(CachePthread(), nullptr);
    EXPECT_EQ(CacheSyscall(), nullptr);
    CapturePthread(nullptr);
    CaptureSyscall(nullptr);
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_dataLen, 64u);
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_cacheLen, 0u);
    m_pThread->m_pUmtBuf->m_pData = pStorage;
}

// ---- the OpenMP region -----------------------------------------------------------------------------------

TEST_F(Capture, TheParallelRegionIsAskedForWhenARecordIsFilled)
{
    m_pInfo->m_pZorvGetOpenMPParId = ParallelRegion;
    ZorvUmaBuffer* pBuffer = CachePthread();
    ExpectRecord(pBuffer, 0, ExpectedPthread(NOT_ENDED, 0, 4711));
    CapturePthread(nullptr);
    ExpectRecord(pBuffer, 0, ExpectedPthread(END, -110, 4711));
    CacheSyscall();
    ExpectRecord(pBuffer, 64, ExpectedSyscall(NOT_ENDED, 4711));
    CaptureSyscall(nullptr);
    ExpectRecord(pBuffer, 64, ExpectedSyscall(END, 4711));
}

// ---- cost ------------------------------------------------------------------------------------------------

TEST_F(Capture, NothingIsAllocatedLockedOrLookedUpOnceABufferIsHeld)
{
    CapturePthread(nullptr);
    CallLog calls{"ZorvUmaMalloc", "ZorvUmaCalloc", "ZorvUmaMmap", "ZorvUmaPthreadMutexLock", "ZorvUmaGetTid",
                  "ZorvUmaGetPid", "ZorvUmaGetCpu", "dlsym",       "ZorvUmaGetFreeBuffer",    "ZorvUmaWrite"};
    for (int i = 0; i < 100; i++)
    {
        CapturePthread(CachePthread());
        CaptureSyscall(CacheSyscall());
    }
    EXPECT_EQ(calls.Names(), Strings{});
}

// ---- completing a provisional record ---------------------------------------------------------------------

// Whatever record lies at the end of the data becomes part of it, by the size that it gives.
TEST_F(RecordingTest, ACaptureAddsTheSizeThatTheParkedRecordGives)
{
    alignas(8) char data[256] = {};
    ZorvUmaBuffer buffer{};
    buffer.m_pData = data;
    buffer.m_bufSize = sizeof data;
    buffer.m_dataLen = 32;
    buffer.m_cacheLen = CALL_RECORD_SIZE;
    TraceHeader header{};
    header.m_recSize = 96;
    memcpy(data + buffer.m_dataLen, &header, sizeof header);
    ZorvUmtCapturePthreadRecord(m_pInfo, 1, 77, 2, 3, -5, ZORV_PTHREAD_LOCK_MUTEX, &buffer);
    EXPECT_EQ(buffer.m_dataLen, 128u);
    EXPECT_EQ(ReadAt<TraceHeader>(&buffer, 32).m_endTime, 77u);
    EXPECT_EQ(ReadAt<PthreadRecord>(&buffer, 32).m_retValue, -5);

    memcpy(data + buffer.m_dataLen, &header, sizeof header);
    ZorvUmtCaptureSysCallRecord(m_pInfo, 1, 78, 3, ZORV_SYSCALL_TYPE_IO, ZORV_UMT_EVENT_IO, 0, 9, &buffer);
    EXPECT_EQ(buffer.m_dataLen, 224u);
    EXPECT_EQ(ReadAt<TraceHeader>(&buffer, 128).m_endTime, 78u);
}

} // namespace
