// Enabling and disabling: one thread's counters, and the groups of all threads.
#include "CounterSupport.h"

#include <thread>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

using Switches = std::vector<Switched>;

// The two directions differ in a request and in words.
struct Direction
{
    const char* m_pName;
    Function<int()> m_thread;
    Function<int()> m_allThreads;
    unsigned long m_request;
    std::string m_threadFunction;
    std::string m_groupFunction;
    std::string m_verb;
};

void PrintTo(const Direction& direction, std::ostream* pOut)
{
    *pOut << direction.m_pName;
}

const Direction g_directions[] = {
    {"Start", ZorvStartPerfEvent, ZorvStartPerfEventAllThreads, ENABLE, "startPERFPmcCounting",
     "startPERFGroupPmcCounting", "start"},
    {"Stop", ZorvStopPerfEvent, ZorvStopPerfEventAllThreads, DISABLE, "stopPERFPmcCounting",
     "stopPERFGroupPmcCounting", "stop"},
};

class Switching : public CounterTest, public testing::WithParamInterface<Direction>
{
protected:
    static Switches All(const std::vector<int>& fds, long flags)
    {
        Switches switches;
        for (const int fd : fds)
        {
            switches.push_back({fd, GetParam().m_request, flags});
        }
        return switches;
    }

    const Direction& m_direction = GetParam();
};

INSTANTIATE_TEST_SUITE_P(Counters, Switching, testing::ValuesIn(g_directions),
                         [](const auto& info) { return info.param.m_pName; });

// ---- one thread ------------------------------------------------------------------------------------------

TEST_P(Switching, EveryCounterOfTheThreadOneByOneMsrFirst)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
    std::vector<int> expected = m_counters.Fds();
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00, 0xFF01}), 0);
    const std::vector<int> all = m_counters.Fds();
    expected.insert(expected.begin(), all.begin() + 8, all.end());

    EXPECT_EQ(m_direction.m_thread(), 0);
    EXPECT_EQ(m_counters.m_switched, All(expected, -1)) << "without the group flag";
}

TEST_P(Switching, WithoutCountersThereIsNothingToDo)
{
    EXPECT_EQ(m_direction.m_thread(), 0);
    EXPECT_EQ(m_direction.m_allThreads(), 0);
    EXPECT_TRUE(m_counters.m_switched.empty());
    EXPECT_EQ(ErrorText(), "");
}

TEST_P(Switching, TheThreadsFirstFailureEndsIt)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(3)), 0);
    const std::vector<int> fds = m_counters.Fds();
    m_counters.m_switchErrors[fds[1]] = EBADF;
    EXPECT_EQ(m_direction.m_thread(), -1);
    EXPECT_EQ(m_counters.m_switched, All({fds[0], fds[1]}, -1));
    EXPECT_EQ(ErrorText(), Format("%s failed for fd (%d) : Bad file descriptor.",
                                  m_direction.m_threadFunction.c_str(), fds[1]));
    EXPECT_EQ(ZorvGetErrorNum(), 0) << "only a failed open is remembered as a number";
}

TEST_P(Switching, WithoutThreadRecordFails)
{
    OnAnotherThread(
        [this]
        {
            EXPECT_EQ(m_direction.m_thread(), -1);
            EXPECT_EQ(ErrorText(), "NO ERROR");
        });
}

TEST_P(Switching, WithoutProcessRecordFails)
{
    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    EXPECT_EQ(m_direction.m_allThreads(), -1);
    ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    EXPECT_EQ(m_direction.m_thread(), -1);
    EXPECT_EQ(m_direction.m_allThreads(), -1);
    EXPECT_EQ(ErrorText(), "");
}

TEST_P(Switching, BeforeInitialisationFails)
{
    OnAnotherThread(
        [this]
        {
            faults::NoMemory noCoreArrays(64 * sizeof(int), 64 * sizeof(int) + 1);
            ASSERT_EQ(ZorvInitializePcmAgent(), -1);
            EXPECT_EQ(m_direction.m_thread(), -1);
            EXPECT_EQ(ErrorText(), "PMC data collection was not initialized.");
            ZorvFiniPcmAgent();
        });
}

TEST_P(Switching, ATypeWhoseConfigurationFailedIsLeftOut)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00, 0xFF04}), -1);
    const std::vector<int> fds = m_counters.Fds();
    EXPECT_EQ(m_direction.m_thread(), 0);
    EXPECT_EQ(m_counters.m_switched, All({fds[0]}, -1));
}

// ---- all threads -----------------------------------------------------------------------------------------

TEST_P(Switching, EveryGroupOfEveryThreadThroughItsLeaderMsrFirst)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
    std::thread other(
        []
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00, 0xFF01}), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
        });
    other.join(); // a thread that ended without ZorvFiniPcmAgent has left its counters open
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);

    const std::vector<int> leaders = m_counters.Leaders(); // core 6, core 2, msr, core 1, core 1
    ASSERT_EQ(leaders.size(), 5u);
    EXPECT_EQ(m_direction.m_allThreads(), 0);
    EXPECT_EQ(m_counters.m_switched, All({leaders[2], leaders[0], leaders[1], leaders[3], leaders[4]}, 1));
}

TEST_P(Switching, AGroupThatFailsEndsTheWalkWithBothTexts)
{
    std::vector<std::string> texts;
    Replace format("ZorvUmaVsnprintf",
                   [&](const Call& call)
                   {
                       const uint64_t result = call.PassOn();
                       texts.emplace_back(call.Arg<const char*>(0));
                       return result;
                   });
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(13)), 0);
    texts.clear();
    const std::vector<int> leaders = m_counters.Leaders();
    m_counters.m_switchErrors[leaders[1]] = EIO;
    EXPECT_EQ(m_direction.m_allThreads(), -1);
    EXPECT_EQ(m_counters.m_switched, All({leaders[0], leaders[1]}, 1));
    const std::string last = "Failed to " + m_direction.m_verb + " the perf PMC collection for type = 1.";
    EXPECT_EQ(texts, (Strings{Format("%s failed for fd (%d) : Input/output error.",
                                     m_direction.m_groupFunction.c_str(), leaders[1]),
                              last}));
    EXPECT_EQ(ErrorText(), last);
}

TEST_P(Switching, AnMsrGroupThatFailsKeepsTheCoreGroupsAsTheyAre)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), 0);
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    const std::vector<int> leaders = m_counters.Leaders();
    m_counters.m_switchErrors[leaders[0]] = EIO;
    EXPECT_EQ(m_direction.m_allThreads(), -1);
    EXPECT_EQ(m_counters.m_switched, All({leaders[0]}, 1));
    EXPECT_EQ(ErrorText(), "Failed to " + m_direction.m_verb + " the perf PMC collection for type = 0.");
}

TEST_P(Switching, AThreadWithoutRecordMaySwitchAllThreads)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    OnAnotherThread(
        [this]
        {
            EXPECT_EQ(m_direction.m_allThreads(), 0);
            m_counters.m_switchErrors[m_counters.Leaders()[0]] = EIO;
            EXPECT_EQ(m_direction.m_allThreads(), -1);
            EXPECT_EQ(ErrorText(), "NO ERROR");
        });
    EXPECT_EQ(m_counters.m_switched.size(), 2u);
}

TEST_P(Switching, TheWalkTakesNoLock)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
    Replace lock("ZorvUmaPthreadMutexLock", [](const Call& call) { return call.PassOn(); });
    EXPECT_EQ(m_direction.m_allThreads(), 0);
    EXPECT_EQ(lock.Calls(), 0);
}

// ---- texts -----------------------------------------------------------------------------------------------

using ErrorTexts = CounterTest;

TEST_F(ErrorTexts, AreOverwrittenAndEndInTwoZeroes)
{
    PmcData data[1];
    ASSERT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), -1);
    const std::string before = "PMC data collection was not configured.";
    ASSERT_EQ(ErrorText(), before);
    ASSERT_EQ(ZorvReadPerfEvent(2, data), -1);
    const std::string after = "Invalid arguements are passed.";
    ASSERT_EQ(ErrorText(), after);

    const char* pText = ZorvGetErrorMsg();
    EXPECT_EQ(pText[after.size() + 1], '\0') << "the byte behind the terminator";
    EXPECT_EQ(std::string(pText + after.size() + 2), before.substr(after.size() + 2)) << "the rest is left";
}

TEST_F(ErrorTexts, AreFormattedIntoAtMost4095Bytes)
{
    faults::CallLog format({"ZorvUmaVsnprintf"});
    ASSERT_EQ(ZorvReadPerfEvent(2, nullptr), -1);
    ASSERT_EQ(format.Calls().size(), 1u);
    EXPECT_EQ(format.Calls()[0].Arg<size_t>(1), 4095u);
    EXPECT_EQ(format.Calls()[0].Arg<const char*>(0), ZorvGetErrorMsg());
}

TEST_F(ErrorTexts, ThatCannotBeFormattedChangeNothingBehindThem)
{
    ASSERT_EQ(ZorvReadPerfEvent(2, nullptr), -1);
    Replace format("ZorvUmaVsnprintf", faults::Fails(~uint64_t{0}));
    ASSERT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, nullptr), -1);
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
}

TEST_F(ErrorTexts, LongerThanTheRoomLeaveTheRestOfMemoryAlone)
{
    ASSERT_EQ(ZorvReadPerfEvent(2, nullptr), -1);
    Replace format("ZorvUmaVsnprintf", [](const Call&) { return 100000000; });
    ASSERT_EQ(ZorvReadPerfEvent(2, nullptr), -1);
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
}

} // namespace
