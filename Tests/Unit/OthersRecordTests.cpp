// Process records that somebody else has made: of the shared shape, with nothing behind the last member.
#include "Support.h"

#include <cstring>
#include <memory>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::Replace;

namespace
{

constexpr char GUARD_BYTE = 0x5A;

struct GuardedRecord
{
    ZorvUmaProfileInfo m_info;
    char m_guard[512];
};

class OthersRecord : public RecordingTest
{
protected:
    // What finalisation closes and unmaps of it is its own.
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        MakeIt();
    }

    void MakeIt()
    {
        memcpy(&m_pOther->m_info, m_pInfo, sizeof m_pOther->m_info);
        memset(m_pOther->m_guard, GUARD_BYTE, sizeof m_pOther->m_guard);
        m_pOther->m_info.m_logFd = dup(m_logFd);
        m_pOther->m_info.m_umtData.m_fd = dup(m_pInfo->m_umtData.m_fd);
        m_pOther->m_info.m_umsData.m_fd = dup(m_pInfo->m_umsData.m_fd);
        ASSERT_TRUE(ZorvUmaCreateQueue(&m_pOther->m_info));
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pOther->m_info.m_umtData, m_logFd));
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pOther->m_info.m_umsData, m_logFd));
    }

    void ExpectUntouchedBehindIt() const
    {
        for (const char byte : m_pOther->m_guard)
        {
            ASSERT_EQ(byte, GUARD_BYTE);
        }
    }

    void Capture(int count)
    {
        for (int i = 0; i < count; ++i)
        {
            ZorvUmtCapturePthreadRecord(&m_pOther->m_info, 1, 2, 3, 4, 0, ZORV_PTHREAD_LOCK_MUTEX, nullptr);
        }
    }

    std::unique_ptr<GuardedRecord> m_pOther = std::make_unique<GuardedRecord>();
};

TEST_F(OthersRecord, TakesRecordsThroughAChangeOfBuffer)
{
    Capture(600);
    EXPECT_EQ(QueuedBuffers(*m_pOther->m_info.m_umtData.m_pQueue).size(), 1u);
    EXPECT_EQ(m_pOther->m_info.m_umtData.m_lostRecordCount, 0u);
    ExpectUntouchedBehindIt();
}

TEST_F(OthersRecord, IsWrittenByAWriter)
{
    Capture(600);
    std::thread writer([this] { ZorvUmaWriterThread(&m_pOther->m_info); });
    while (ReadWhole(m_pInfo->m_umtData.m_fd).empty())
    {
        std::this_thread::yield();
    }
    __atomic_store_n(&m_pOther->m_info.m_isFlush, true, __ATOMIC_SEQ_CST);
    writer.join();
    ExpectUntouchedBehindIt();
}

TEST_F(OthersRecord, IsFinalisedAndSoIsTheNext)
{
    for (int i = 0; i < 2; ++i)
    {
        Capture(3);
        ZorvUmaFiniProcess(&m_pOther->m_info, false);
        EXPECT_EQ(ReadWhole(m_pInfo->m_umtData.m_fd).size(),
                  static_cast<size_t>(i + 1) * (3 * CALL_RECORD_SIZE + TRACE_THREAD_END_SIZE));
        EXPECT_TRUE(m_pOther->m_info.m_isFlush);
        EXPECT_EQ(m_pOther->m_info.m_umtData.m_fd, -1);
        ExpectUntouchedBehindIt();
        ASSERT_NE(ZorvUmaAllocateThreadInfo(m_pInfo), nullptr);
        MakeIt();
    }
}

TEST_F(OthersRecord, JoinsTheWriterThatItNames)
{
    Replace join("ZorvUmaPthreadJoin", Fails(0));
    m_pOther->m_info.m_writerThreadId = 4711;
    ZorvUmaFiniProcess(&m_pOther->m_info, false);
    EXPECT_EQ(join.Calls(), 1);
    ASSERT_NE(ZorvUmaAllocateThreadInfo(m_pInfo), nullptr);
}

TEST_F(OthersRecord, EndsTheThreadThatItsWrapperBegan)
{
    m_pOther->m_info.m_pid = 0;
    CallLog calls{"ZorvUmaFiniThread"};
    const ZorvUmtThreadWrapperArg arg{nullptr, nullptr, &m_pOther->m_info};
    auto pArg = static_cast<ZorvUmtThreadWrapperArg*>(malloc(sizeof arg));
    *pArg = arg;
    std::thread([&] { ZorvUmtPthreadCreateWrapper(pArg); }).join();
    ASSERT_EQ(calls.Calls().size(), 1u);
    EXPECT_EQ(calls.Calls()[0].Arg<ZorvUmaProfileInfo*>(0), &m_pOther->m_info);
    ExpectUntouchedBehindIt();
}

// ---- a record of another process -------------------------------------------------------------------------

// Whoever puts another process's id into the record is told so, also where this process allocated it.
TEST_F(RecordingTest, EndWithAnotherProcessesIdWritesAProcRecordAndSaysSo)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
    ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umsData, m_logFd));
    m_pInfo->m_pid = getpid() + 1;
    ZorvUmaFiniProcess(m_pInfo, false);
    EXPECT_EQ(Log(), (Strings{Format("INFO Finish process for (%d) is from other process (%d).", getpid() + 1,
                                     getpid())}));
    EXPECT_FALSE(m_pInfo->m_isFlush);
    ASSERT_NE(m_pThread->m_pUmtBuf, nullptr);
    const TraceHeader header = ReadAt<TraceHeader>(m_pThread->m_pUmtBuf, 0);
    EXPECT_EQ(header.m_recType, ZORV_UMT_RECORD_PROC);
    EXPECT_EQ(header.m_startTime, ~uint64_t{0});
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_dataLen, TRACE_PROC_SIZE);
    ASSERT_NE(m_pThread->m_pUmsBuf, nullptr);
    EXPECT_EQ(m_pThread->m_pUmsBuf->m_dataLen, SAMPLE_PROC_SIZE);
}

// ---- the end of a thread ---------------------------------------------------------------------------------

// Its buffers are in their queues; the addresses stay where they were until the record is freed.
TEST_F(RecordingTest, AnEndedThreadStillNamesTheBuffersThatItHandedOver)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
    ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umsData, m_logFd));
    std::thread(
        [this]
        {
            ZorvUmaPerThreadInfo* pThread = ZorvUmaAllocateThreadInfo(m_pInfo);
            pThread->m_pUmtBuf = ZorvUmaGetFreeBuffer(&m_pInfo->m_umtData);
            pThread->m_pUmsBuf = ZorvUmaGetFreeBuffer(&m_pInfo->m_umsData);
            ZorvUmaFiniThread(m_pInfo);
            ASSERT_NE(pThread->m_pUmtBuf, nullptr);
            EXPECT_EQ(pThread->m_pUmtBuf->m_state, ZORV_UMA_BUFFER_STATE_FULL);
            EXPECT_EQ(QueuedBuffers(*m_pInfo->m_umtData.m_pQueue),
                      std::vector<ZorvUmaBuffer*>{pThread->m_pUmtBuf});
            ASSERT_NE(pThread->m_pUmsBuf, nullptr);
            EXPECT_EQ(pThread->m_pUmsBuf->m_state, ZORV_UMA_BUFFER_STATE_FULL);
            ZorvUmaFreeThreadInfo();
        })
        .join();
}

TEST_F(RecordingTest, TheEndOfAThreadWithoutARecordPostsToo)
{
    CallLog posts{"ZorvUmaSemPost"};
    std::thread([this] { ZorvUmaFiniThread(m_pInfo); }).join();
    EXPECT_EQ(posts.Calls().size(), 1u);
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

// ---- the poll --------------------------------------------------------------------------------------------

// A wait that nobody's post announces is tried again all the same.
TEST_F(RecordingTest, TheWriterComesBackToItsWaitWithoutAPost)
{
    constexpr long FRUITLESS = 4;
    Replace wait("ZorvUmaSemWait",
                 [&](const Call& call) -> uint64_t
                 { return call.m_number == FRUITLESS + 1 ? 0 : ~uint64_t{0}; });
    Replace drain("ZorvUmaWriteBuffer",
                  [this](const Call&) -> uint64_t
                  {
                      __atomic_store_n(&m_pInfo->m_isFlush, true, __ATOMIC_SEQ_CST);
                      return 1;
                  });
    std::thread([this] { ZorvUmaWriterThread(m_pInfo); }).join();
    EXPECT_EQ(wait.Calls(), FRUITLESS + 1);
    EXPECT_EQ(drain.Calls(), 2) << "both streams";
}

} // namespace
