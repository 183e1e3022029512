// The capture of a sample, called as a function; this program stands in for the unwinder.
#include "Support.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <sys/syscall.h>
#include <thread>
#include <ucontext.h>
#include <unistd.h>

using namespace agent;
using faults::CallLog;
using faults::Replace;

namespace
{

struct Unwinding
{
    int m_result = 0;
    int m_calls = 0;
    int m_size = 0;
    void** m_ppBuffer = nullptr;
    bool m_wasStopped = false;
    const ZorvUmaPerThreadInfo* m_pThread = nullptr;
};
Unwinding g_unwinding;

} // namespace

extern "C" int unw_backtrace(void** ppBuffer, int size)
{
    ++g_unwinding.m_calls;
    g_unwinding.m_size = size;
    g_unwinding.m_ppBuffer = ppBuffer;
    g_unwinding.m_wasStopped = g_unwinding.m_pThread != nullptr && g_unwinding.m_pThread->m_stopCollection;
    for (int i = 0; i < g_unwinding.m_result; ++i)
    {
        ppBuffer[i] = reinterpret_cast<void*>(uintptr_t{0x1000} + static_cast<uintptr_t>(i));
    }
    return g_unwinding.m_result;
}

namespace
{

struct SampleBody
{
    uint64_t m_parId;
    uint32_t m_reserved;
    uint32_t m_csLen;
    uint64_t m_callStack[2];
};

constexpr uint32_t TWO_FRAMES_SIZE = sizeof(SampleHeader) + sizeof(SampleBody);

// Nothing but the state that the capture itself asks for: the handler was never installed.
class SampleCapture : public RecordingTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umsData, m_logFd));
        m_pInfo->m_umaConfig.m_callStackDepth = 5;
        m_pInfo->m_umsConfig.m_recLength = 40;
        m_pInfo->m_umsConfig.m_configFlags = ZORV_UMS_CS;
        m_pThread->m_pUmsCsBuf = static_cast<void**>(calloc(13, sizeof(void*)));
        g_unwinding = {};
        g_unwinding.m_result = 2;
        g_unwinding.m_pThread = m_pThread;
    }

    uint32_t Written() const
    {
        return m_pThread->m_pUmsBuf == nullptr ? 0 : m_pThread->m_pUmsBuf->m_dataLen;
    }

    void Handle(int code, void* pInfo, void* pContext)
    {
        siginfo_t info{};
        info.si_signo = SIGPROF;
        info.si_code = code;
        info.si_overrun = 3;
        info.si_value.sival_ptr = pInfo;
        m_handler(SIGPROF, &info, pContext);
    }

    Function<void(ZorvUmaProfileInfo*)> m_capture{"ZorvUmsCaptureSampleRecord"};
    Function<void(int, siginfo_t*, void*)> m_handler{"ZorvUmsSignalHandler"};
};

TEST_F(SampleCapture, WritesWhatTheUnwinderFound)
{
    m_capture(m_pInfo);
    EXPECT_EQ(g_unwinding.m_calls, 1);
    EXPECT_EQ(g_unwinding.m_size, 13) << "the depth and 8";
    EXPECT_EQ(g_unwinding.m_ppBuffer, m_pThread->m_pUmsCsBuf);
    EXPECT_TRUE(g_unwinding.m_wasStopped);
    EXPECT_FALSE(m_pThread->m_stopCollection);
    ASSERT_EQ(Written(), TWO_FRAMES_SIZE);
    const SampleHeader header = ReadAt<SampleHeader>(m_pThread->m_pUmsBuf, 0);
    EXPECT_EQ(header.m_pid, getpid());
    EXPECT_EQ(header.m_tid, syscall(SYS_gettid));
    EXPECT_EQ(header.m_recType, 3);
    EXPECT_EQ(header.m_recSize, TWO_FRAMES_SIZE);
    EXPECT_EQ(header.m_flags, ZORV_UMS_CS);
    const SampleBody body = ReadAt<SampleBody>(m_pThread->m_pUmsBuf, sizeof header);
    EXPECT_EQ(body.m_parId, 0u);
    EXPECT_EQ(body.m_reserved, 0u);
    EXPECT_EQ(body.m_csLen, 2u);
    EXPECT_EQ(body.m_callStack[0], 0x1000u);
    EXPECT_EQ(body.m_callStack[1], 0x1001u);
}

// The buffer was made by the same sum.
TEST_F(SampleCapture, AsksForNoMoreThanADepthThatWrapsLeaves)
{
    m_pInfo->m_umaConfig.m_callStackDepth = 0xFFFFFFFA;
    m_capture(m_pInfo);
    EXPECT_EQ(g_unwinding.m_size, 2);
    EXPECT_EQ(Written(), TWO_FRAMES_SIZE);
}

TEST_F(SampleCapture, OfAnEmptyStackWritesAndCountsNothing)
{
    for (const int result : {0, -1, -6})
    {
        g_unwinding.m_result = result;
        m_capture(m_pInfo);
    }
    EXPECT_EQ(g_unwinding.m_calls, 3);
    EXPECT_EQ(Written(), 0u);
    EXPECT_EQ(m_pInfo->m_umsData.m_lostRecordCount, 0u);
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(SampleCapture, WithoutABufferForTheStackDoesNotUnwind)
{
    m_pThread->m_pUmsCsBuf = nullptr;
    m_capture(m_pInfo);
    EXPECT_EQ(g_unwinding.m_calls, 0);
}

TEST_F(SampleCapture, WhileStoppedOrPausedDoesNotUnwind)
{
    m_controller.m_isPause = true;
    m_capture(m_pInfo);
    m_controller.m_isPause = false;
    m_controller.m_isStop = true;
    m_capture(m_pInfo);
    EXPECT_EQ(g_unwinding.m_calls, 0);
}

TEST_F(SampleCapture, WithoutAFreeBufferIsCountedAsLost)
{
    while (ZorvUmaGetFreeBuffer(&m_pInfo->m_umsData) != nullptr)
    {
    }
    m_capture(m_pInfo);
    EXPECT_EQ(m_pInfo->m_umsData.m_lostRecordCount, 1u);
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(SampleCapture, TheHandlerTakesOnlyTheTimersSignal)
{
    for (const int code : {SI_USER, SI_QUEUE, SI_TKILL, SI_KERNEL})
    {
        Handle(code, m_pInfo, nullptr);
    }
    Handle(SI_TIMER, nullptr, nullptr);
    m_handler(SIGPROF, nullptr, nullptr);
    EXPECT_EQ(g_unwinding.m_calls, 0);
    EXPECT_EQ(m_pInfo->m_timerOverrunCnt, 0u);
}

TEST_F(SampleCapture, TheHandlerAddsTheOverrunAndKeepsErrno)
{
    ucontext_t context{};
    errno = EDOM;
    Handle(SI_TIMER, m_pInfo, nullptr);
    Handle(SI_TIMER, m_pInfo, &context);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(m_pInfo->m_timerOverrunCnt, 6u);
    EXPECT_EQ(Written(), 2 * TWO_FRAMES_SIZE);
}

// No return from a signal would give it back.
TEST_F(SampleCapture, CalledAsAFunctionTheHandlerLeavesTheSignalMaskAlone)
{
    const auto readMask = []
    {
        uint64_t mask = 0;
        syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, &mask, sizeof mask);
        return mask;
    };
    const uint64_t before = readMask();
    ucontext_t context{};
    m_pInfo->m_umsConfig.m_nbrEvents = 1;
    m_pInfo->m_umsConfig.m_recLength = 80;
    Handle(SI_TIMER, m_pInfo, nullptr);
    Handle(SI_TIMER, m_pInfo, &context);
    EXPECT_EQ(readMask(), before);
    EXPECT_EQ(Written(), 2 * (TWO_FRAMES_SIZE + 40));
}

} // namespace
