// A thread's set-up and end, and the start routine around the program's.
#include "Support.h"

#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::FailsOn;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

void OnThread(const std::function<void()>& body)
{
    std::thread(body).join();
}

long Tid()
{
    return syscall(SYS_gettid);
}

// The calls to one of these names, by their position among all.
const Call& FirstOf(const CallLog& log, const char* pName)
{
    for (const Call& call : log.Calls())
    {
        if (std::string(call.m_pName) == pName)
        {
            return call;
        }
    }
    throw std::runtime_error(std::string(pName) + " was not called");
}

// ---- set-up ----------------------------------------------------------------------------------------------

class InitThread : public RecordingTest
{
protected:
    size_t TraceBuffers()
    {
        return BuffersOf(m_pInfo->m_umtData).size();
    }

    size_t SampleBuffers()
    {
        return BuffersOf(m_pInfo->m_umsData).size();
    }

    void ExpectUnlocked()
    {
        EXPECT_EQ(pthread_mutex_trylock(&m_pInfo->m_lock), 0);
        pthread_mutex_unlock(&m_pInfo->m_lock);
    }
};

TEST_F(InitThread, RunsUnderTheLockInThisOrder)
{
    m_pInfo->m_umsConfig.m_collectCallStack = true;
    CallLog calls{"ZorvUmaGetTime", "ZorvUmaIsCollectionStopped", "ZorvUmaAllocateCsBuf",
                  "ZorvUmaCreateBuffers", "ZorvUmaWriteProcRecord"};
    std::vector<bool> isLocked;
    Replace buffers("ZorvUmaAllocateCsBuf",
                    [&](const Call& call)
                    {
                        isLocked.push_back(pthread_mutex_trylock(&m_pInfo->m_lock) == EBUSY);
                        return call.PassOn();
                    });
    EXPECT_TRUE(ZorvUmaInitThread(m_pInfo));
    const Strings names = calls.Names();
    ASSERT_GE(names.size(), 6u);
    EXPECT_EQ((Strings{names.begin(), names.begin() + 6}),
              (Strings{"ZorvUmaGetTime", "ZorvUmaIsCollectionStopped", "ZorvUmaAllocateCsBuf",
                       "ZorvUmaCreateBuffers", "ZorvUmaCreateBuffers", "ZorvUmaWriteProcRecord"}));
    EXPECT_EQ(calls.Calls()[3].Arg<ZorvUmaData*>(0), &m_pInfo->m_umtData);
    EXPECT_EQ(calls.Calls()[4].Arg<ZorvUmaData*>(0), &m_pInfo->m_umsData);
    EXPECT_EQ(isLocked, std::vector<bool>{true});
    ExpectUnlocked();
    EXPECT_NE(m_pThread->m_pUmtCsBuf, nullptr);
    EXPECT_NE(m_pThread->m_pUmsCsBuf, nullptr);
    EXPECT_EQ(TraceBuffers(), 8u);
    EXPECT_EQ(SampleBuffers(), 8u);
}

TEST_F(InitThread, TheProcRecordCarriesStartTimeAndHandle)
{
    Replace time("ZorvUmaGetTime", Fails(777));
    CallLog calls{"ZorvUmaWriteProcRecord"};
    EXPECT_TRUE(ZorvUmaInitThread(m_pInfo));
    ASSERT_EQ(calls.Calls().size(), 1u);
    const Call& call = calls.Calls()[0];
    EXPECT_EQ(call.Arg<ZorvUmaProfileInfo*>(0), m_pInfo);
    EXPECT_EQ(call.Arg<int32_t>(1), Tid());
    EXPECT_EQ(call.m_words[2], 0u) << "the record takes the thread's name";
    EXPECT_EQ(call.Arg<int>(3), 0);
    EXPECT_EQ(call.m_words[4], 777u);
    EXPECT_EQ(call.m_words[5], pthread_self());
}

TEST_F(InitThread, NeedsAProcessRecord)
{
    CallLog calls{"ZorvUmaPthreadMutexLock"};
    EXPECT_FALSE(ZorvUmaInitThread(nullptr));
    EXPECT_TRUE(calls.Calls().empty());
}

// Finalisation holds the lock while it sets its flag: afterwards nothing is set up.
TEST_F(InitThread, OnceFinalisationHasBegunNothingIsSetUp)
{
    m_pInfo->m_isFlush = true;
    CallLog calls{"ZorvUmaAllocateCsBuf", "ZorvUmaCreateBuffers", "ZorvUmaWriteProcRecord"};
    EXPECT_FALSE(ZorvUmaInitThread(m_pInfo));
    EXPECT_TRUE(calls.Calls().empty());
    ExpectUnlocked();
}

TEST_F(InitThread, WithoutCallStackBuffersNoRecordBuffersAreMadeButTheProcRecordIsWritten)
{
    Replace callStacks("ZorvUmaAllocateCsBuf", Fails(0));
    CallLog calls{"ZorvUmaCreateBuffers", "ZorvUmaWriteProcRecord"};
    EXPECT_FALSE(ZorvUmaInitThread(m_pInfo));
    EXPECT_EQ(calls.Names(), Strings{"ZorvUmaWriteProcRecord"});
    ExpectUnlocked();
}

TEST_F(InitThread, WithoutTraceBuffersNoSampleBuffersAreMade)
{
    Replace buffers("ZorvUmaCreateBuffers", FailsOn(1, 0));
    CallLog calls{"ZorvUmaWriteProcRecord"};
    EXPECT_FALSE(ZorvUmaInitThread(m_pInfo));
    EXPECT_EQ(buffers.Calls(), 1);
    EXPECT_EQ(calls.Calls().size(), 1u);
    ExpectUnlocked();
}

TEST_F(InitThread, TheSampleBuffersAreTheLastStepOfTheResult)
{
    Replace buffers("ZorvUmaCreateBuffers", FailsOn(2, 0));
    EXPECT_FALSE(ZorvUmaInitThread(m_pInfo));
    EXPECT_EQ(TraceBuffers(), 8u);
    ExpectUnlocked();
}

TEST_F(InitThread, MakesBuffersForEnabledStreamsOnly)
{
    m_pInfo->m_umsConfig.m_enable = false;
    EXPECT_TRUE(ZorvUmaInitThread(m_pInfo));
    EXPECT_EQ(TraceBuffers(), 8u);
    EXPECT_EQ(SampleBuffers(), 0u);
}

// ---- the end ---------------------------------------------------------------------------------------------

class FiniThread : public RecordingTest
{
protected:
    struct Held
    {
        ZorvUmaBuffer* m_pTrace;
        ZorvUmaBuffer* m_pSample;
    };

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umsData, m_logFd));
    }

    // A thread with a record and a buffer of each stream, up to its end.
    Held EndThread(bool withBuffers = true)
    {
        Held held{};
        OnThread(
            [&]
            {
                ZorvUmaPerThreadInfo* pThread = ZorvUmaAllocateThreadInfo(m_pInfo);
                if (withBuffers)
                {
                    pThread->m_pUmtBuf = held.m_pTrace = ZorvUmaGetFreeBuffer(&m_pInfo->m_umtData);
                    pThread->m_pUmsBuf = held.m_pSample = ZorvUmaGetFreeBuffer(&m_pInfo->m_umsData);
                }
                for (int time = 0; time < m_times; time++)
                {
                    ZorvUmaFiniThread(m_pInfo);
                }
                m_isStopped = pThread->m_stopCollection;
                ZorvUmaFreeThreadInfo();
            });
        return held;
    }

    int Posts()
    {
        int value = 0;
        sem_getvalue(&m_pInfo->m_semaphore, &value);
        return value;
    }

    bool m_isStopped = false;
    int m_times = 1;
};

TEST_F(FiniThread, HandsItsBuffersToTheWriter)
{
    const Held held = EndThread();
    EXPECT_EQ(QueuedBuffers(*m_pInfo->m_umtData.m_pQueue), std::vector<ZorvUmaBuffer*>{held.m_pTrace});
    EXPECT_EQ(QueuedBuffers(*m_pInfo->m_umsData.m_pQueue), std::vector<ZorvUmaBuffer*>{held.m_pSample});
    EXPECT_EQ(held.m_pTrace->m_state, ZORV_UMA_BUFFER_STATE_FULL);
    EXPECT_EQ(held.m_pSample->m_state, ZORV_UMA_BUFFER_STATE_FULL);
    EXPECT_EQ(Posts(), 1) << "once";
    EXPECT_TRUE(m_isStopped);
}

TEST_F(FiniThread, QueuesABufferOnceHoweverOftenItRuns)
{
    m_times = 3;
    const Held held = EndThread();
    EXPECT_EQ(QueuedBuffers(*m_pInfo->m_umtData.m_pQueue), std::vector<ZorvUmaBuffer*>{held.m_pTrace});
    EXPECT_EQ(QueuedBuffers(*m_pInfo->m_umsData.m_pQueue), std::vector<ZorvUmaBuffer*>{held.m_pSample});
}

TEST_F(FiniThread, ItsThreadEndRecordWithHandleZeroIsTheLastOfEachBuffer)
{
    const Held held = EndThread();
    ASSERT_EQ(held.m_pTrace->m_dataLen, TRACE_THREAD_END_SIZE);
    EXPECT_EQ(ReadAt<TraceHeader>(held.m_pTrace, 0).m_recType, ZORV_UMT_RECORD_THREAD_END);
    EXPECT_EQ(ReadAt<uint64_t>(held.m_pTrace, 32), 0u);
    ASSERT_EQ(held.m_pSample->m_dataLen, SAMPLE_THREAD_END_SIZE);
    EXPECT_EQ(ReadAt<uint64_t>(held.m_pSample, 24), 0u);
}

TEST_F(FiniThread, RunsInThisOrder)
{
    CallLog calls{"ZorvUmaWriteThreadEndRecord", "ZorvUmaEnqueue", "ZorvUmaSemPost", "ZorvUmaPthreadMutexLock"};
    EndThread();
    Strings names;
    for (const Call& call : calls.Calls())
    {
        const bool isProcessLock = call.Arg<pthread_mutex_t*>(0) == &m_pInfo->m_lock;
        if (std::string(call.m_pName) != "ZorvUmaPthreadMutexLock" || isProcessLock)
        {
            names.emplace_back(call.m_pName);
        }
    }
    EXPECT_EQ(names,
              (Strings{"ZorvUmaWriteThreadEndRecord", "ZorvUmaEnqueue", "ZorvUmaEnqueue", "ZorvUmaSemPost"}));
    EXPECT_EQ(FirstOf(calls, "ZorvUmaWriteThreadEndRecord").m_words[1], 0u);
    EXPECT_EQ(FirstOf(calls, "ZorvUmaEnqueue").Arg<ZorvUmaQueue*>(0), m_pInfo->m_umsData.m_pQueue);
    EXPECT_EQ(FirstOf(calls, "ZorvUmaSemPost").Arg<sem_t*>(0), &m_pInfo->m_semaphore);
}

TEST_F(FiniThread, WithoutBuffersNothingIsQueuedButTheWriterWoken)
{
    m_pInfo->m_umtConfig.m_enable = m_pInfo->m_umsConfig.m_enable = false;
    EndThread(false);
    EXPECT_TRUE(QueuedBuffers(*m_pInfo->m_umtData.m_pQueue).empty());
    EXPECT_TRUE(QueuedBuffers(*m_pInfo->m_umsData.m_pQueue).empty());
    EXPECT_EQ(Posts(), 1);
}

TEST_F(FiniThread, AStreamThatIsOffKeepsItsBuffer)
{
    m_pInfo->m_umsConfig.m_enable = false;
    const Held held = EndThread();
    EXPECT_EQ(held.m_pSample->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
    EXPECT_TRUE(QueuedBuffers(*m_pInfo->m_umsData.m_pQueue).empty());
    EXPECT_EQ(held.m_pTrace->m_state, ZORV_UMA_BUFFER_STATE_FULL);
}

TEST_F(FiniThread, WithoutAProcessRecordDoesNothing)
{
    CallLog calls{"ZorvUmaWriteThreadEndRecord", "ZorvUmaFiniProcess", "ZorvUmaSemPost"};
    ZorvUmaFiniThread(nullptr);
    EXPECT_TRUE(calls.Calls().empty());
}

// Thread id equals process id: the main thread's end finalises the whole process.
TEST_F(FiniThread, OfTheMainThreadFinalisesTheProcess)
{
    Replace finish("ZorvUmaFiniProcess",
                   [this](const Call& call)
                   {
                       EXPECT_EQ(call.Arg<ZorvUmaProfileInfo*>(0), m_pInfo);
                       EXPECT_FALSE(call.Arg<bool>(1));
                       return 0;
                   });
    CallLog calls{"ZorvUmaWriteThreadEndRecord", "ZorvUmaSemPost"};
    ZorvUmaFiniThread(m_pInfo);
    EXPECT_EQ(finish.Calls(), 1);
    EXPECT_TRUE(calls.Calls().empty());
}

// ---- the wrapper -----------------------------------------------------------------------------------------

struct Program // what the program's start routine saw
{
    int m_runs = 0;
    bool m_hasRecord = false;
    ZorvUmaProfileInfo* m_pInfo = nullptr;
};

void* Routine(void* pArgument)
{
    auto pProgram = static_cast<Program*>(pArgument);
    pProgram->m_runs++;
    pProgram->m_hasRecord = pProgram->m_pInfo != nullptr && !ZorvUmaIsCollectionStopped(pProgram->m_pInfo);
    return pProgram;
}

class ThreadWrapper : public RecordingTest
{
protected:
    void* Run(void* (*pRoutine)(void*), ZorvUmaProfileInfo* pInfo)
    {
        // from the agent's allocator, which is libc's
        auto pBlock = static_cast<ZorvUmtThreadWrapperArg*>(malloc(sizeof(ZorvUmtThreadWrapperArg)));
        *pBlock = {pRoutine, &m_program, pInfo};
        m_pBlock = pBlock;
        m_program.m_pInfo = m_pInfo;
        void* pResult = nullptr;
        OnThread(
            [&]
            {
                m_tid = Tid();
                pResult = ZorvUmtPthreadCreateWrapper(pBlock);
            });
        return pResult;
    }

    bool WasFreed(const CallLog& frees)
    {
        return std::any_of(frees.Calls().begin(), frees.Calls().end(),
                           [this](const Call& call) { return call.Arg<void*>(0) == m_pBlock; });
    }

    Program m_program;
    void* m_pBlock = nullptr;
    long m_tid = 0;
};

TEST_F(ThreadWrapper, SurroundsTheRoutineWithSetUpAndEnd)
{
    CallLog calls{"ZorvUmaAllocateThreadInfo", "ZorvUmaInitThread", "ZorvUmaFiniThread",
                  "ZorvUmaFreeThreadInfo"};
    CallLog frees{"ZorvUmaFree"};
    EXPECT_EQ(Run(Routine, m_pInfo), &m_program);
    EXPECT_EQ(m_program.m_runs, 1);
    EXPECT_TRUE(m_program.m_hasRecord);
    EXPECT_EQ(calls.Names(), (Strings{"ZorvUmaAllocateThreadInfo", "ZorvUmaInitThread", "ZorvUmaFiniThread",
                                      "ZorvUmaFreeThreadInfo"}));
    EXPECT_TRUE(WasFreed(frees));
}

TEST_F(ThreadWrapper, ANullRoutineStillGetsSetUpAndEnd)
{
    CallLog calls{"ZorvUmaInitThread", "ZorvUmaFiniThread"};
    EXPECT_EQ(Run(nullptr, m_pInfo), nullptr);
    EXPECT_EQ(calls.Names(), (Strings{"ZorvUmaInitThread", "ZorvUmaFiniThread"}));
}

TEST_F(ThreadWrapper, ANullBlockReturnsNull)
{
    EXPECT_EQ(ZorvUmtPthreadCreateWrapper(nullptr), nullptr);
}

TEST_F(ThreadWrapper, WithoutAProcessRecordOnlyRunsTheRoutine)
{
    CallLog calls{"ZorvUmaAllocateThreadInfo", "ZorvUmaInitThread", "ZorvUmaFiniThread"};
    CallLog frees{"ZorvUmaFree"};
    EXPECT_EQ(Run(Routine, nullptr), &m_program);
    EXPECT_EQ(m_program.m_runs, 1);
    EXPECT_TRUE(calls.Calls().empty());
    EXPECT_FALSE(WasFreed(frees));
}

// By design the program's routine is not run then, and the block is kept.
TEST_F(ThreadWrapper, WithoutMemoryForTheRecordTheRoutineIsNotRun)
{
    Replace noRecord("ZorvUmaAllocateThreadInfo", Fails(0));
    CallLog frees{"ZorvUmaFree"};
    EXPECT_EQ(Run(Routine, m_pInfo), nullptr);
    EXPECT_EQ(m_program.m_runs, 0);
    EXPECT_FALSE(WasFreed(frees));
    EXPECT_EQ(Log(), Strings{Format("ERROR Failed to allocate memoey in the thread (%ld).", m_tid)});
}

TEST_F(ThreadWrapper, AFailedSetUpIsLoggedAndTheRoutineRuns)
{
    Replace init("ZorvUmaInitThread", Fails(0));
    EXPECT_EQ(Run(Routine, m_pInfo), &m_program);
    EXPECT_EQ(m_program.m_runs, 1);
    EXPECT_EQ(Log(), Strings{Format("ERROR Failed to initialize the thread (%ld).", m_tid)});
}

// ---- cancellation ----------------------------------------------------------------------------------------

// Runs this on a thread that was cancelled and has not noticed yet; true when it came to its end.
bool FinishesThoughCancelled(const std::function<void()>& body)
{
    struct Run
    {
        const std::function<void()>& m_body;
        bool m_isFinished;
    } run{body, false};
    const auto routine = [](void* pArgument) -> void*
    {
        auto pRun = static_cast<Run*>(pArgument);
        pthread_cancel(pthread_self());
        pRun->m_body();
        pRun->m_isFinished = true;
        pthread_testcancel();
        return nullptr;
    };
    pthread_t thread;
    void* pResult = nullptr;
    pthread_create(&thread, nullptr, routine, &run);
    pthread_join(thread, &pResult);
    EXPECT_EQ(pResult, PTHREAD_CANCELED) << "the cancellation is only held back";
    return run.m_isFinished;
}

using Cancellation = RecordingTest;

TEST_F(Cancellation, SetUpAndEndOfAThreadFinish)
{
    EXPECT_TRUE(FinishesThoughCancelled(
        [this]
        {
            ZorvUmaAllocateThreadInfo(m_pInfo);
            ZorvUmaInitThread(m_pInfo);
            ZorvUmaFiniThread(m_pInfo);
            ZorvUmaFreeThreadInfo();
        }));
    EXPECT_EQ(pthread_mutex_trylock(&m_pInfo->m_lock), 0) << "no lock is left held";
    EXPECT_EQ(pthread_mutex_trylock(&m_pInfo->m_umtData.m_lock), 0);
    EXPECT_EQ(pthread_mutex_trylock(&m_pInfo->m_umtData.m_pQueue->m_lock), 0);
}

// write and fsync are cancellation points; a record that is lost writes three lines.
TEST_F(Cancellation, ALostRecordIsLoggedToItsEnd)
{
    faults::NoMemory noMemory(32768);
    EXPECT_TRUE(FinishesThoughCancelled(
        [this]
        {
            ZorvUmaAllocateThreadInfo(m_pInfo);
            ZorvUmtCapturePthreadRecord(m_pInfo, 1, 2, 3, 4, 5, ZORV_PTHREAD_JOIN, nullptr);
            ZorvUmaFreeThreadInfo();
        }));
    EXPECT_EQ(Log().size(), 4u);
    EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 1u);
}

TEST_F(Cancellation, TheEndOfTheProcessFinishes)
{
    const int fd = dup(m_pInfo->m_umtData.m_fd);
    EXPECT_TRUE(FinishesThoughCancelled(
        [this]
        {
            ZorvUmaAllocateThreadInfo(m_pInfo);
            ZorvUmtCapturePthreadRecord(m_pInfo, 1, 2, 3, 4, 5, ZORV_PTHREAD_JOIN, nullptr);
            ZorvUmaFiniProcess(m_pInfo, false);
        }));
    EXPECT_EQ(ReadWhole(fd).size(), CALL_RECORD_SIZE + TRACE_THREAD_END_SIZE);
    close(fd);
}

// ---- many threads ----------------------------------------------------------------------------------------

TEST_F(ThreadWrapper, LeavesOneProcAndOneEndRecordForEachThread)
{
    constexpr int THREADS = 20;
    for (int i = 0; i < THREADS; i++)
    {
        Run(Routine, m_pInfo);
    }
    EXPECT_TRUE(ZorvUmaWriteBuffer(&m_pInfo->m_umtData, m_logFd));
    const std::string bytes = ReadWhole(m_pInfo->m_umtData.m_fd);
    int procs = 0;
    int ends = 0;
    for (size_t offset = 0; offset + sizeof(TraceHeader) <= bytes.size();)
    {
        TraceHeader header;
        memcpy(&header, bytes.data() + offset, sizeof header);
        procs += header.m_recType == ZORV_UMT_RECORD_PROC;
        ends += header.m_recType == ZORV_UMT_RECORD_THREAD_END;
        ASSERT_NE(header.m_recSize, 0);
        offset += header.m_recSize;
    }
    EXPECT_EQ(procs, THREADS);
    EXPECT_EQ(ends, THREADS);
    EXPECT_EQ(bytes.size(), THREADS * (TRACE_PROC_SIZE + TRACE_THREAD_END_SIZE));
}

// ---- what an end leaves -----------------------------------------------------------------------------------

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

} // namespace
