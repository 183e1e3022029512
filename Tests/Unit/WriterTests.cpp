// The writer thread's start routine, run on a thread of the test.
#include "Support.h"

#include <algorithm>
#include <sched.h>
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

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

class Writer : public RecordingTest
{
protected:
    // Runs the routine to its end; the agent ends it by returning.
    void* Run(ZorvUmaProfileInfo* pInfo)
    {
        void* pResult = this;
        std::thread(
            [&]
            {
                m_tid = syscall(SYS_gettid);
                pResult = ZorvUmaWriterThread(pInfo);
                pthread_getname_np(pthread_self(), m_threadName, sizeof m_threadName);
                m_leftRecord = !ZorvUmaIsCollectionStopped(m_pInfo);
            })
            .join();
        return pResult;
    }

    // One pass of the loop: the flag is set when the controller's stop flag is asked for.
    Replace StopAfter(long passes)
    {
        return Replace("ZorvUmaIsStopSet",
                       [=, this](const Call& call)
                       {
                           m_pInfo->m_isFlush = call.m_number >= passes;
                           return 0;
                       });
    }

    Strings ExitLines(unsigned long overruns = 0)
    {
        return {Format("INFO Timer overrun count (%lu).", overruns),
                Format("INFO Exit from the writer thread (%ld).", m_tid)};
    }

    long m_tid = 0;
    char m_threadName[32] = {};
    bool m_leftRecord = false;
};

TEST_F(Writer, WithoutARecordReturnsAtOnce)
{
    EXPECT_EQ(Run(nullptr), nullptr);
    EXPECT_EQ(Log(), Strings{});
    EXPECT_STRNE(m_threadName, "ZorUmtWriter");
}

TEST_F(Writer, WithoutMemoryForItsRecordSaysSo)
{
    Replace noRecord("ZorvUmaAllocateThreadInfo", Fails(0));
    EXPECT_EQ(Run(m_pInfo), nullptr);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to allocate memory in writer thread."});
    EXPECT_STRNE(m_threadName, "ZorUmtWriter");
}

TEST_F(Writer, WithFinalisationBegunLogsTheTwoExitLinesAndEnds)
{
    m_pInfo->m_isFlush = true;
    m_pInfo->m_timerOverrunCnt = 12345678901;
    CallLog waits{"ZorvUmaSemWait"};
    EXPECT_EQ(Run(m_pInfo), nullptr);
    Strings expected = ExitLines(12345678901);
    expected.insert(expected.begin(), Format("INFO Writer thread id is (%ld).", m_tid));
    EXPECT_EQ(Log(), expected);
    EXPECT_TRUE(waits.Calls().empty());
}

TEST_F(Writer, NamesItself)
{
    m_pInfo->m_isFlush = true;
    Run(m_pInfo);
    EXPECT_STREQ(m_threadName, "ZorUmtWriter");
}

TEST_F(Writer, FreesItsThreadRecord)
{
    m_pInfo->m_isFlush = true;
    CallLog frees{"ZorvUmaFreeThreadInfo"};
    Run(m_pInfo);
    EXPECT_EQ(frees.Calls().size(), 1u);
    m_pInfo->m_isFlush = false;
    Run(nullptr);
    EXPECT_FALSE(m_leftRecord);
}

// Exiting through libc would make it load its unwinder, which aborts a program without a free descriptor.
TEST_F(Writer, EndsByReturning)
{
    m_pInfo->m_isFlush = true;
    CallLog exits{"ZorvUmaPthreadExit"};
    EXPECT_EQ(Run(m_pInfo), nullptr);
    EXPECT_TRUE(exits.Calls().empty());
}

// ---- where it runs ---------------------------------------------------------------------------------------

class WriterAffinity : public Writer
{
protected:
    // The CPUs that the writer asks for, with this many configured.
    int CpusAskedFor(uint64_t configured)
    {
        m_pInfo->m_isFlush = true;
        Replace count("ZorvUmaSysconf", [=](const Call& call)
                      { return call.Arg<int>(0) == _SC_NPROCESSORS_CONF ? configured : call.PassOn(); });
        int asked = -1;
        Replace affinity("ZorvUmaPthreadSetAffinity",
                         [&](const Call& call)
                         {
                             EXPECT_EQ(call.m_words[1], 128u);
                             const cpu_set_t* pSet = call.Arg<const cpu_set_t*>(2);
                             asked = CPU_COUNT(pSet);
                             for (int cpu = 0; cpu < asked; cpu++)
                             {
                                 EXPECT_TRUE(CPU_ISSET(cpu, pSet)) << "without a gap";
                             }
                             return 0;
                         });
        Run(m_pInfo);
        return asked;
    }
};

TEST_F(WriterAffinity, EveryConfiguredCpuIsAllowed)
{
    EXPECT_EQ(CpusAskedFor(1), 1);
    EXPECT_EQ(CpusAskedFor(6), 6);
    EXPECT_EQ(CpusAskedFor(1024), 1024);
}

TEST_F(WriterAffinity, TheSetHoldsNoMoreThanItsBits)
{
    EXPECT_EQ(CpusAskedFor(1025), 1024);
    EXPECT_EQ(CpusAskedFor(100000), 1024);
}

TEST_F(WriterAffinity, AnUnknownCountChangesNothing)
{
    EXPECT_EQ(CpusAskedFor(0), -1);
    EXPECT_EQ(CpusAskedFor(MINUS_ONE), -1);
}

// ---- the loop --------------------------------------------------------------------------------------------

class WriterLoop : public Writer
{
protected:
    // The streams drained, in order, while each wait answers this.
    std::string DrainedWhen(uint64_t waitResult, long passes = 1)
    {
        std::string drained;
        Replace wait("ZorvUmaSemWait", Fails(waitResult));
        Replace drain("ZorvUmaWriteBuffer",
                      [&](const Call& call)
                      {
                          EXPECT_EQ(call.Arg<int>(1), m_logFd);
                          drained += call.Arg<ZorvUmaData*>(0) == &m_pInfo->m_umsData ? 's' : 't';
                          return 1;
                      });
        const Replace stop = StopAfter(passes);
        Run(m_pInfo);
        m_waits = wait.Calls();
        return drained;
    }

    long m_waits = 0;
};

TEST_F(WriterLoop, APostDrainsSamplesThenTraces)
{
    EXPECT_EQ(DrainedWhen(0), "st");
}

TEST_F(WriterLoop, EachWaitThatSucceedsDrainsOnce)
{
    EXPECT_EQ(DrainedWhen(0, 3), "ststst");
    EXPECT_EQ(m_waits, 3) << "one attempt a pass";
}

TEST_F(WriterLoop, NoPostDrainsNothing)
{
    EXPECT_EQ(DrainedWhen(MINUS_ONE, 3), "");
    EXPECT_GE(m_waits, 1);
}

TEST_F(WriterLoop, WithSamplingDisabledOnlyTheTraceQueueIsDrained)
{
    m_pInfo->m_umsConfig.m_enable = false;
    EXPECT_EQ(DrainedWhen(0), "t");
}

TEST_F(WriterLoop, WithTracingDisabledOnlyTheSampleQueueIsDrained)
{
    m_pInfo->m_umtConfig.m_enable = false;
    EXPECT_EQ(DrainedWhen(0), "s");
}

TEST_F(WriterLoop, OnePostWritesEveryQueuedBuffer)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
    const auto buffers = BuffersOf(m_pInfo->m_umtData);
    for (int i = 0; i < 5; i++)
    {
        FillBuffer(buffers[i], 100, static_cast<char>('a' + i));
        buffers[i]->m_state = ZORV_UMA_BUFFER_STATE_FULL;
        ZorvUmaEnqueue(m_pInfo->m_umtData.m_pQueue, buffers[i]);
    }
    sem_post(&m_pInfo->m_semaphore);
    const Replace stop = StopAfter(1);
    Run(m_pInfo);
    std::string expected;
    for (int i = 0; i < 5; i++)
    {
        expected += std::string(100, static_cast<char>('a' + i));
    }
    EXPECT_EQ(ReadWhole(m_pInfo->m_umtData.m_fd), expected);
}

TEST_F(WriterLoop, TheControllersStopFinalisesFromTheWriter)
{
    m_controller.m_isStop = true;
    Replace finish("ZorvUmaFiniProcess",
                   [this](const Call& call)
                   {
                       EXPECT_EQ(call.Arg<ZorvUmaProfileInfo*>(0), m_pInfo);
                       EXPECT_TRUE(call.Arg<bool>(1));
                       m_pInfo->m_isFlush = true;
                       return 0;
                   });
    Run(m_pInfo);
    EXPECT_EQ(finish.Calls(), 1);
}

TEST_F(WriterLoop, AStopAfterFinalisationHasBegunFinalisesNothing)
{
    Replace finish("ZorvUmaFiniProcess", Fails(0));
    Replace stop("ZorvUmaIsStopSet",
                 [this](const Call&)
                 {
                     m_pInfo->m_isFlush = true;
                     return 1;
                 });
    Run(m_pInfo);
    EXPECT_EQ(finish.Calls(), 0);
}

TEST_F(WriterLoop, EndsSoonAfterFinalisationHasBegunOnAnotherThread)
{
    std::thread finaliser;
    Replace wait("ZorvUmaSemWait",
                 [&](const Call& call)
                 {
                     if (call.m_number == 1)
                     {
                         finaliser = std::thread([this] { m_pInfo->m_isFlush = true; });
                     }
                     return MINUS_ONE;
                 });
    Run(m_pInfo);
    finaliser.join();
    const Strings log = Log();
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ((Strings{log.end() - 2, log.end()}), ExitLines());
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

// What the writer finds undone when it starts is tried, and told, like a change.
TEST_F(RecordingTest, CountersThatCannotBeResumedAreToldOnceAlsoAtTheStart)
{
    m_pInfo->m_umsConfig.m_nbrEvents = 1;
    m_pInfo->m_isPcmAgentPaused = true; // and nothing of the counters is set up
    Replace wait("ZorvUmaSemWait",
                 [this](const Call& call) -> uint64_t
                 {
                     __atomic_store_n(&m_pInfo->m_isFlush, call.m_number >= 3, __ATOMIC_SEQ_CST);
                     return ~uint64_t{0};
                 });
    std::thread([this] { ZorvUmaWriterThread(m_pInfo); }).join();
    const Strings log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "ERROR Failed to resume the PMC event collection - NO ERROR."),
              1);
    EXPECT_TRUE(m_pInfo->m_isPcmAgentPaused);
}

} // namespace
