// Readings: differences, groups, and what a failing read gives.
#include "CounterSupport.h"

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

constexpr uint64_t UNTOUCHED = 0xABABABABABABABAB;

constexpr PmcData NOTHING = {UNTOUCHED, UNTOUCHED, UNTOUCHED, UNTOUCHED};

class Reading : public CounterTest
{
protected:
    // What is read, with one untouched entry more than there are counters.
    std::vector<PmcData> Read(int expected = 1, uint32_t type = ZORV_PMC_TYPE_CORE)
    {
        std::vector<PmcData> data(65, NOTHING);
        EXPECT_EQ(ZorvReadPerfEvent(type, data.data()), expected);
        while (data.size() > 1 && data[data.size() - 2] == NOTHING)
        {
            data.pop_back();
        }
        EXPECT_EQ(data.back(), NOTHING);
        data.pop_back();
        if (data.size() == 1 && data[0] == NOTHING)
        {
            data.clear();
        }
        return data;
    }

    // The reading of a group of the given counters.
    static GroupReading Group(uint64_t enabled, uint64_t running, const std::vector<Member>& members)
    {
        return {1, members.size(), enabled, running, members};
    }

    void Answer(size_t group, const GroupReading& reading)
    {
        m_counters.m_readings[m_counters.Leaders().at(group)].push_back(reading);
    }
};

using Data = std::vector<PmcData>;

// ---- values ----------------------------------------------------------------------------------------------

TEST_F(Reading, TheFirstGivesTheCountSinceTheOpen)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(2)), 0);
    Answer(0, Group(1000, 900, {{500, 71}, {7, 72}}));
    EXPECT_EQ(Read(), (Data{{500, 1000, 900, 71}, {7, 1000, 900, 72}}));
}

TEST_F(Reading, LaterOnesGiveDifferencesOfCountsAndTotalsOfTimes)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(2)), 0);
    Answer(0, Group(1000, 900, {{500, 71}, {7, 72}}));
    Answer(0, Group(3000, 2900, {{750, 71}, {7, 72}}));
    Answer(0, Group(3001, 2901, {{751, 71}, {9, 72}}));
    Read();
    EXPECT_EQ(Read(), (Data{{250, 3000, 2900, 71}, {0, 3000, 2900, 72}}));
    EXPECT_EQ(Read(), (Data{{1, 3001, 2901, 71}, {2, 3001, 2901, 72}}));
}

TEST_F(Reading, ACounterThatWrappedReadsOneLess)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    Answer(0, Group(1, 1, {{0xFFFFFFFFFFFFFFF0, 71}}));
    Answer(0, Group(2, 2, {{0x10, 71}}));
    Answer(0, Group(3, 3, {{0x11, 71}}));
    EXPECT_EQ(Read()[0].m_value, 0xFFFFFFFFFFFFFFF0u);
    EXPECT_EQ(Read()[0].m_value, 0x1Fu);
    EXPECT_EQ(Read()[0].m_value, 1u) << "the raw value is the next one's base";
}

TEST_F(Reading, IsOneReadOf120BytesAGroup)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
    Answer(0, Group(1, 1, {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}}));
    Answer(1, Group(8, 8, {{7, 7}, {8, 8}}));
    const Data data = Read();
    ASSERT_EQ(data.size(), 8u);
    for (uint64_t i = 0; i < 8; i++)
    {
        EXPECT_EQ(data[i], (PmcData{i + 1, i < 6 ? 1u : 8u, i < 6 ? 1u : 8u, i + 1}));
    }
    const std::vector<int> leaders = m_counters.Leaders();
    EXPECT_EQ(m_counters.m_read, (std::vector<std::pair<int, size_t>>{{leaders[0], 120}, {leaders[1], 120}}));
}

TEST_F(Reading, AGroupHasAtMostSixMembers)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(7)), 0);
    GroupReading tooMany = Group(1, 1, {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}});
    tooMany.m_nr = 7;
    Answer(0, tooMany);
    Answer(1, Group(1, 1, {{9, 9}}));
    const Data data = Read();
    ASSERT_EQ(data.size(), 7u);
    EXPECT_EQ(data[6].m_value, 9u);
}

TEST_F(Reading, MoreMembersThanAThreadCanHaveAreNotTaken)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), 0);
    Answer(0, Group(1, 1, {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}}));
    EXPECT_EQ(Read(1, ZORV_PMC_TYPE_PERF).size(), 4u);
}

TEST_F(Reading, TheKindsHaveValuesOfTheirOwn)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), 0);
    Answer(0, Group(1, 1, {{100, 1}}));
    Answer(1, Group(1, 1, {{4000, 2}}));
    Answer(0, Group(2, 2, {{101, 1}}));
    Answer(1, Group(2, 2, {{4004, 2}}));
    EXPECT_EQ(Read(1, ZORV_PMC_TYPE_CORE)[0].m_value, 100u);
    EXPECT_EQ(Read(1, ZORV_PMC_TYPE_PERF)[0].m_value, 4000u);
    EXPECT_EQ(Read(1, ZORV_PMC_TYPE_CORE)[0].m_value, 1u);
    EXPECT_EQ(Read(1, ZORV_PMC_TYPE_PERF)[0].m_value, 4u);
}

// ---- failing reads ---------------------------------------------------------------------------------------

const GroupReading END_OF_FILE = {0, 0, 0, 0, {}};

TEST_F(Reading, AGroupThatFailsInTheMiddleIsPassedOver)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(13)), 0);
    const GroupReading six = Group(1, 1, {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}});
    Answer(0, six);
    Answer(1, END_OF_FILE);
    Answer(2, Group(3, 3, {{99, 13}}));
    const Data data = Read(1);
    ASSERT_EQ(data.size(), 7u) << "the next group follows without a gap";
    EXPECT_EQ(data[6], (PmcData{99, 3, 3, 13}));
    EXPECT_EQ(ErrorText(), Format("Failed to read counter values for group fd (%d).", m_counters.Leaders()[1]));
}

TEST_F(Reading, TheLastGroupsFailureIsTheResult)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(7)), 0);
    Answer(0, Group(1, 1, {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}}));
    Answer(1, END_OF_FILE);
    EXPECT_EQ(Read(-1).size(), 6u);
    EXPECT_EQ(ErrorText(), Format("Failed to read counter values for group fd (%d).", m_counters.Leaders()[1]));
}

TEST_F(Reading, AResultOfMinusOneCountsAsSuccess)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    GroupReading failed = Group(5, 4, {{42, 71}});
    failed.m_result = -1;
    Answer(0, failed);
    EXPECT_EQ(Read(1), (Data{{42, 5, 4, 71}})) << "what stands in the buffer is taken";
    EXPECT_EQ(ErrorText(), "");
}

TEST_F(Reading, AResultOfMinusOneThatWroteNothingGivesNothing)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(7)), 0);
    Answer(0, Group(1, 1, {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}}));
    Answer(1, {-1, 0, 0, 0, {}});
    EXPECT_EQ(Read(1).size(), 6u);
}

// ---- refusals --------------------------------------------------------------------------------------------

TEST_F(Reading, ATypeThatWasNotConfigured)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    EXPECT_TRUE(Read(-1, ZORV_PMC_TYPE_PERF).empty());
    EXPECT_EQ(ErrorText(), "PMC data collection was not configured.");
}

TEST_F(Reading, WithInvalidArguments)
{
    PmcData data[1];
    EXPECT_EQ(ZorvReadPerfEvent(2, data), -1);
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
    ASSERT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), -1);
    EXPECT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, nullptr), -1);
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
}

TEST_F(Reading, BeforeInitialisation)
{
    OnAnotherThread(
        []
        {
            PmcData data[1];
            EXPECT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), -1);
            EXPECT_EQ(ErrorText(), "NO ERROR");
            faults::NoMemory noCoreArrays(64 * sizeof(int), 64 * sizeof(int) + 1);
            ASSERT_EQ(ZorvInitializePcmAgent(), -1);
            EXPECT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), -1);
            EXPECT_EQ(ErrorText(), "PMC data collection was not initialized.");
            ZorvFiniPcmAgent();
        });
}

TEST_F(Reading, WithoutProcessRecord)
{
    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    PmcData data[1];
    EXPECT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), -1);
    EXPECT_EQ(ErrorText(), "");
}

// ---- signal context --------------------------------------------------------------------------------------

TEST_F(Reading, AllocatesNothingLooksNothingUpAndTakesNoLock)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(7)), 0);
    for (int i = 0; i < 2; i++)
    {
        Answer(0, Group(1, 1, {{1, 1}}));
        Answer(1, END_OF_FILE);
    }
    Read(-1); // the wrappers have found their functions, as after the agent's start
    const auto pRead = ZorvReadPerfEvent.Address();
    std::vector<PmcData> data(8);
    static const char* const forbidden[] = {"ZorvUmaMalloc", "ZorvUmaCalloc",           "ZorvUmaFree",
                                            "ZorvUmaMmap",   "ZorvUmaPthreadMutexLock", "dlsym",
                                            "dlvsym"};
    long calls = 0;
    {
        std::vector<std::unique_ptr<Replace>> watched;
        for (const char* pName : forbidden)
        {
            watched.push_back(std::make_unique<Replace>(pName,
                                                        [&](const Call& call)
                                                        {
                                                            calls++;
                                                            return call.PassOn();
                                                        }));
        }
        pRead(ZORV_PMC_TYPE_CORE, data.data());
    }
    EXPECT_EQ(calls, 0);
}

} // namespace
