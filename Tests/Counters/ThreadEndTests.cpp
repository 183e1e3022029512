// Threads end, processes fork and the lists are walked at the same time: no descriptor of the program is
// touched, no lock stays held, nothing is freed under anybody.
#include "CounterSupport.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

using ThreadEnd = CounterTest;

class Event
{
public:
    void Set()
    {
        const std::lock_guard guard(m_lock);
        m_isSet = true;
        m_changed.notify_all();
    }

    void Wait()
    {
        std::unique_lock guard(m_lock);
        m_changed.wait(guard, [this] { return m_isSet; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_isSet = false;
};

// ---- leaders of ended threads ----------------------------------------------------------------------------

TEST_F(ThreadEnd, TheGroupsOfAnEndedThreadAreSkipped)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    OnAnotherThread(
        []
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), 0);
            ASSERT_EQ(ZorvFiniPcmAgent(), 0);
        });
    const int own = m_counters.Leaders()[0];
    EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0);
    EXPECT_EQ(m_counters.m_switched, (std::vector<Switched>{{own, DISABLE, 1}}));
}

TEST_F(ThreadEnd, OnlyTheEndedThreadsGroupsAreSkippedWhenItsNumbersComeBack)
{
    int reused = -1;
    const auto configureOn = [&](bool isEnding)
    {
        OnAnotherThread(
            [&, isEnding]
            {
                ASSERT_EQ(ZorvInitializePcmAgent(), 0);
                ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
                reused = m_counters.Leaders().back();
                if (isEnding)
                {
                    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
                }
            });
    };
    configureOn(true);
    const int first = reused;
    configureOn(false);
    ASSERT_EQ(reused, first) << "the lowest free number comes back";
    EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0);
    EXPECT_EQ(m_counters.m_switched, (std::vector<Switched>{{reused, DISABLE, 1}}));
}

TEST_F(ThreadEnd, LeadersLeaveTheListBeforeTheyAreClosed)
{
    OnAnotherThread(
        [this]
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(13)), 0);
            Replace close("ZorvUmaClose",
                          [](const Call& call)
                          {
                              EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0);
                              return call.PassOn();
                          });
            ASSERT_EQ(ZorvFiniPcmAgent(), 0);
            EXPECT_EQ(close.Calls(), 13);
        });
    EXPECT_TRUE(m_counters.m_switched.empty());
}

// A walk that has read a leader's number must not find the number closed, or the program's.
TEST_F(ThreadEnd, ALeaderIsNotClosedWhileAWalkIsSwitchingIt)
{
    Event configured;
    Event isSwitching;
    std::atomic<bool> hasSwitched = false;
    std::atomic<bool> wasClosedEarly = false;
    Replace close("ZorvUmaClose",
                  [&](const Call& call)
                  {
                      wasClosedEarly = wasClosedEarly || !hasSwitched;
                      return call.PassOn();
                  });
    std::thread ending(
        [&]
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
            configured.Set();
            isSwitching.Wait();
            wasClosedEarly = false; // what was closed so far are the system's files
            ASSERT_EQ(ZorvFiniPcmAgent(), 0);
        });
    configured.Wait();
    m_counters.m_onSwitch = [&](int fd)
    {
        isSwitching.Set();
        std::this_thread::sleep_for(
            std::chrono::milliseconds(100)); // the other thread has all the time to be wrong
        EXPECT_TRUE(IsOpen(fd));
        hasSwitched = true;
    };
    EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0);
    ending.join();
    EXPECT_FALSE(wasClosedEarly);
}

// ---- the process record ----------------------------------------------------------------------------------

TEST_F(ThreadEnd, TheMainThreadsEndLeavesWhatAWalkIsUsing)
{
    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    std::vector<uint64_t> shared; // the process record and the nodes
    std::atomic<bool> isFinished = false;
    {
        Replace remember("ZorvUmaMalloc",
                         [&](const Call& call)
                         {
                             shared.push_back(call.PassOn());
                             return shared.back();
                         });
        ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
    }
    ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    {
        Replace remember("ZorvUmaMalloc",
                         [&](const Call& call)
                         {
                             shared.push_back(call.PassOn());
                             return shared.back();
                         });
        ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(13)), 0);
    }
    ASSERT_EQ(shared.size(), 4u);

    Event isSwitching;
    m_counters.m_onSwitch = [&](int)
    {
        isSwitching.Set();
        while (!isFinished)
        {
            std::this_thread::yield();
        }
    };
    std::thread walking([] { EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0); });
    isSwitching.Wait();
    bool isFreed = false;
    {
        Replace free("ZorvUmaFree",
                     [&](const Call& call)
                     {
                         isFreed = isFreed || std::count(shared.begin(), shared.end(), call.m_words[0]) != 0;
                         return call.PassOn();
                     });
        EXPECT_EQ(ZorvFiniPcmAgent(), 0);
    }
    isFinished = true;
    walking.join();
    EXPECT_FALSE(isFreed);
    EXPECT_EQ(ZorvStopPerfEventAllThreads(), -1);
}

// ---- fork ------------------------------------------------------------------------------------------------

TEST_F(ThreadEnd, AForkedChildHasNoRecordsOfItsParent)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
    EXPECT_EQ(Configure(2, Events(1)), -1);
    InOwnProcess(
        [this]
        {
            EXPECT_EQ(ErrorText(), "NO ERROR");
            EXPECT_EQ(ZorvGetErrorNum(), -1);
            EXPECT_EQ(ZorvStopPerfEvent(), -1);
            EXPECT_EQ(ZorvStopPerfEventAllThreads(), -1);
            EXPECT_EQ(ZorvFiniPcmAgent(), -1);
            EXPECT_TRUE(m_counters.m_switched.empty()) << "they are the parent's counters";
            for (const int fd : m_counters.Fds())
            {
                EXPECT_FALSE(IsOpen(fd)) << fd;
            }
        });
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
    EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0);
    EXPECT_EQ(m_counters.m_switched.size(), 2u);
    for (const int fd : m_counters.Fds())
    {
        EXPECT_TRUE(IsOpen(fd)) << fd;
    }
}

TEST_F(ThreadEnd, AForkedChildMakesRecordsOfItsOwn)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(2)), 0);
    InOwnProcess(
        [this]
        {
            m_counters.m_opened.clear();
            ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
            EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0);
            EXPECT_EQ(m_counters.m_switched, (std::vector<Switched>{{m_counters.Fds()[0], DISABLE, 1}}));
            EXPECT_EQ(ZorvFiniPcmAgent(), 0);
        });
}

// The lock belongs to a thread that the child does not have.
TEST_F(ThreadEnd, ALockHeldAtTheForkIsNotHeldInTheChild)
{
    Event isHeld;
    Event isForked;
    std::atomic<bool> isHolding = true;
    Replace unlock("ZorvUmaPthreadMutexUnlock",
                   [&](const Call& call)
                   {
                       if (isHolding.exchange(false))
                       {
                           isHeld.Set();
                           isForked.Wait();
                       }
                       return call.PassOn();
                   });
    std::thread holder(
        []
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
            ASSERT_EQ(ZorvFiniPcmAgent(), 0);
        });
    isHeld.Wait();
    InOwnProcess(
        []
        {
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), -1);
            ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
        });
    isForked.Set();
    holder.join();
}

// The walk belongs to a thread that the child does not have: nobody waits for its end.
TEST_F(ThreadEnd, AWalkUnderWayAtTheForkIsNotUnderWayInTheChild)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    Event isWalking;
    Event isForked;
    std::atomic<bool> isFirst = true;
    m_counters.m_onSwitch = [&](int)
    {
        if (isFirst.exchange(false))
        {
            isWalking.Set();
            isForked.Wait();
        }
    };
    std::thread walker([] { EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0); });
    isWalking.Wait();
    InOwnProcess(
        []
        {
            size_t allocations = 0;
            Replace malloc("ZorvUmaMalloc",
                           [&](const Call& call)
                           {
                               allocations++;
                               return call.PassOn();
                           });
            Replace free("ZorvUmaFree",
                         [&](const Call& call)
                         {
                             allocations -= call.m_words[0] != 0;
                             return call.PassOn();
                         });
            ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            EXPECT_EQ(ZorvFiniPcmAgent(), 0);
            EXPECT_EQ(allocations, 0u) << "the child's record counts no user that the parent had";
        });
    isForked.Set();
    walker.join();
}

} // namespace
