// Process records that somebody else has made: of the shared shape, with nothing behind the last member.
#include "Support.h"

#include <cstring>
#include <memory>
#include <sys/syscall.h>
#include <sys/wait.h>
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

// Only the process-wide record is the parent's business in a child that nobody announced.
TEST_F(OthersRecord, TakesRecordsInAForkedChild)
{
    const pid_t child = fork();
    if (child == 0)
    {
        const ZorvUmaPerThreadInfo* pThread = ZorvUmaAllocateThreadInfo(&m_pOther->m_info);
        Capture(1);
        const bool isRecorded = pThread->m_pUmtBuf != nullptr && pThread->m_pUmtBuf->m_dataLen != 0;
        _exit(isRecorded && ReadAt<TraceHeader>(pThread->m_pUmtBuf, 0).m_pid == getpid() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
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

} // namespace
