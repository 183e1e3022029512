// Pause, stop, the pause-id rule, and the writer's wait that never waits.
#include "Support.h"

#include <thread>

using namespace agent;
using faults::Call;
using faults::Fails;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

// ---- flags -----------------------------------------------------------------------------------------------

using Flags = RecordingTest;

TEST_F(Flags, ReadAsUnsetWithoutRecordOrPointer)
{
    m_controller = {true, true, 9};
    EXPECT_FALSE(ZorvUmaIsPauseSet(nullptr));
    EXPECT_FALSE(ZorvUmaIsStopSet(nullptr));
    EXPECT_EQ(ZorvUmaCurrentPauseId(nullptr), 0u);
    m_pInfo->m_pIsPaused = nullptr;
    m_pInfo->m_pIsStopped = nullptr;
    EXPECT_FALSE(ZorvUmaIsPauseSet(m_pInfo));
    EXPECT_FALSE(ZorvUmaIsStopSet(m_pInfo));
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 0u);
}

// Any non-zero byte of the controller counts, not only 1.
TEST_F(Flags, ReadTheWholeByte)
{
    for (int byte = 0; byte < 256; byte++)
    {
        memset(static_cast<void*>(&m_controller.m_isPause), byte, 1);
        memset(static_cast<void*>(&m_controller.m_isStop), byte, 1);
        EXPECT_EQ(ZorvUmaIsPauseSet(m_pInfo), byte != 0) << byte;
        EXPECT_EQ(ZorvUmaIsStopSet(m_pInfo), byte != 0) << byte;
        EXPECT_EQ(ZorvUmaIsCollectionStopped(m_pInfo), byte != 0) << byte;
    }
}

TEST_F(Flags, ThePauseIdCountsOnlyWhilePaused)
{
    m_controller.m_pauseId = 7;
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 0u);
    m_controller.m_isPause = true;
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 7u);
    m_pInfo->m_pPauseId = nullptr;
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 0u);
}

TEST_F(Flags, APauseWithoutAnIdReadsAsNoPause)
{
    m_controller = {true, false, 0};
    EXPECT_TRUE(ZorvUmaIsPauseSet(m_pInfo));
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 0u);
}

TEST_F(Flags, SamePauseIdIsTrueOnlyForOneAndTheSamePause)
{
    const uint64_t ids[] = {0, 1, 7, 8, 1ULL << 32, MINUS_ONE};
    for (const uint64_t start : ids)
    {
        for (const uint64_t end : ids)
        {
            EXPECT_EQ(ZorvUmaIsSamePauseId(start, end), start != 0 && start == end) << start << " " << end;
        }
    }
}

// ---- stopped ---------------------------------------------------------------------------------------------

using Stopped = RecordingTest;

TEST_F(Stopped, NotWhileEverythingRuns)
{
    EXPECT_FALSE(ZorvUmaIsCollectionStopped(m_pInfo));
}

TEST_F(Stopped, WithoutAProcessRecord)
{
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(nullptr));
}

TEST_F(Stopped, OnAThreadWithoutARecord)
{
    std::thread([&] { EXPECT_TRUE(ZorvUmaIsCollectionStopped(m_pInfo)); }).join();
}

TEST_F(Stopped, BeforeTheProcessIsInitialised)
{
    m_pInfo->m_isProcessInitialized = false;
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(m_pInfo));
}

TEST_F(Stopped, OnceFinalisationHasBegun)
{
    m_pInfo->m_isFlush = true;
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(m_pInfo));
}

TEST_F(Stopped, OnAThreadThatStopped)
{
    m_pThread->m_stopCollection = true;
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(m_pInfo));
}

TEST_F(Stopped, WhenTheControllerStops)
{
    m_controller.m_isStop = true;
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(m_pInfo));
}

TEST_F(Stopped, NotByAPause)
{
    m_controller = {true, false, 7};
    EXPECT_FALSE(ZorvUmaIsCollectionStopped(m_pInfo));
}

// The controller's block comes last: an earlier reason answers without reading it.
TEST_F(Stopped, TheControllersFlagIsReadLast)
{
    m_pInfo->m_pIsStopped = reinterpret_cast<bool*>(8); // reading it would end the test program
    m_pThread->m_stopCollection = true;
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(m_pInfo));
    m_pThread->m_stopCollection = false;
    m_pInfo->m_isFlush = true;
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(m_pInfo));
    m_pInfo->m_isFlush = false;
    m_pInfo->m_isProcessInitialized = false;
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(m_pInfo));
}

TEST_F(Stopped, SetStopCollectionIsTheThreadsOwn)
{
    ZorvUmaSetStopCollection(true);
    EXPECT_TRUE(m_pThread->m_stopCollection);
    ZorvUmaSetStopCollection(false);
    EXPECT_FALSE(m_pThread->m_stopCollection);
    std::thread([] { ZorvUmaSetStopCollection(true); }).join(); // no record: no effect
    EXPECT_FALSE(m_pThread->m_stopCollection);
}

// ---- the semaphore ---------------------------------------------------------------------------------------

using SemWait = RecordingTest;

TEST_F(SemWait, TakesAPendingPost)
{
    sem_post(&m_pInfo->m_semaphore);
    sem_post(&m_pInfo->m_semaphore);
    EXPECT_EQ(ZorvUmaSemWait(m_pInfo), 0);
    EXPECT_EQ(ZorvUmaSemWait(m_pInfo), 0);
    EXPECT_EQ(ZorvUmaSemWait(m_pInfo), -1);
}

// A wait that blocked would never come back: nobody posts.
TEST_F(SemWait, NeverBlocks)
{
    EXPECT_EQ(ZorvUmaSemWait(m_pInfo), -1);
}

TEST_F(SemWait, AsksOnceWithADeadlineLongPast)
{
    Replace wait("ZorvUmaSemTimedWait",
                 [this](const Call& call)
                 {
                     EXPECT_EQ(call.Arg<sem_t*>(0), &m_pInfo->m_semaphore);
                     EXPECT_EQ(call.Arg<timespec*>(1)->tv_sec, 0);
                     EXPECT_EQ(call.Arg<timespec*>(1)->tv_nsec, 10'000'000);
                     errno = ETIMEDOUT;
                     return MINUS_ONE;
                 });
    EXPECT_EQ(ZorvUmaSemWait(m_pInfo), -1);
    EXPECT_EQ(wait.Calls(), 1);
}

TEST_F(SemWait, IsRepeatedWhileInterrupted)
{
    Replace wait("ZorvUmaSemTimedWait",
                 [](const Call& call)
                 {
                     errno = EINTR;
                     return call.m_number < 4 ? MINUS_ONE : 0;
                 });
    EXPECT_EQ(ZorvUmaSemWait(m_pInfo), 0);
    EXPECT_EQ(wait.Calls(), 4);
}

TEST_F(SemWait, AnyOtherErrorEndsIt)
{
    Replace wait("ZorvUmaSemTimedWait", Fails(MINUS_ONE, EINVAL));
    EXPECT_EQ(ZorvUmaSemWait(m_pInfo), -1);
    EXPECT_EQ(wait.Calls(), 1);
}

} // namespace
