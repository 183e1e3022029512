// The value of a trace key: enable:threshold:callstack.
#include "Support.h"

using namespace agent;
using faults::Replace;

namespace
{

struct Value
{
    const char* m_pText;
    bool m_enable;
    uint64_t m_threshold;
    bool m_callstack;
};

class EventValue : public AgentTest, public testing::WithParamInterface<Value>
{
protected:
    void Configure(int event, const char* pText)
    {
        std::string text = pText;
        ZorvUmtConfigureEvent(event, text.data(), m_pInfo);
    }
};

TEST_P(EventValue, OverwritesTheThreeMembersAndTurnsTracingOn)
{
    ZorvUmtEvent& event = m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_LOCK];
    for (const ZorvUmtEvent before : {ZorvUmtEvent{}, ZorvUmtEvent{true, true, 99}})
    {
        event = before;
        m_pInfo->m_umtConfig.m_enable = false;
        Configure(ZORV_UMT_EVENT_LOCK, GetParam().m_pText);
        EXPECT_EQ(event.m_enable, GetParam().m_enable);
        EXPECT_EQ(event.m_threshold, GetParam().m_threshold);
        EXPECT_EQ(event.m_callstack, GetParam().m_callstack);
        EXPECT_TRUE(m_pInfo->m_umtConfig.m_enable);
    }
}

const Value g_values[] = {
    {"1:1000:1", true, 1000, true},
    {"1:1000:0", true, 1000, false},
    {"1:1000", true, 1000, false},
    {"1", true, 0, false},
    {"1\n", true, 0, false},
    {"1:500:1\n", true, 500, true},
    {"1:7\n", true, 7, false},
    {"0:5:1", false, 0, false},
    {"0", false, 0, false},
    {"", false, 0, false},
    {":", false, 0, false},
    {"\n", false, 0, false},
    {"x", false, 0, false},
    {" 1", false, 0, false},
    {"10", true, 0, false}, // only the first character counts
    {"1abc:20:19", true, 20, true},
    {"1:abc:1", true, 0, true},    // no digits are 0
    {"1:12abc:1", true, 12, true}, // leading digits, the rest ignored
    {"1:0x10:1", true, 0, true},   // base 10
    {"1::1", true, 1, false},      // empty fields do not exist for the splitter
    {":1:5:1", true, 5, true},
    {"1:18446744073709551615:1", true, 18446744073709551615ULL, true},
    {"1:18446744073709551616:1", true, 18446744073709551615ULL, true}, // strtoull's own limit
    {"1:5:2", true, 5, false},
    {"1:5:1:0", true, 5, true}, // a fourth field is nobody's
};

INSTANTIATE_TEST_SUITE_P(Table, EventValue, testing::ValuesIn(g_values));

class ConfigureEvent : public AgentTest
{
};

TEST_F(ConfigureEvent, NullValueOrRecordDoesNothing)
{
    char text[] = "1:5:1";
    ZorvUmtConfigureEvent(ZORV_UMT_EVENT_IO, nullptr, m_pInfo);
    ZorvUmtConfigureEvent(ZORV_UMT_EVENT_IO, text, nullptr);
    EXPECT_FALSE(m_pInfo->m_umtConfig.m_enable);
    EXPECT_FALSE(m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_IO].m_enable);
    EXPECT_STREQ(text, "1:5:1");
}

TEST_F(ConfigureEvent, ChangesNoOtherEvent)
{
    for (int event = 0; event < ZORV_UMT_EVENT_MAX; event++)
    {
        *m_pInfo->m_umtConfig.m_umtEventList = {};
        memset(m_pInfo->m_umtConfig.m_umtEventList, 0, sizeof m_pInfo->m_umtConfig.m_umtEventList);
        char text[] = "1:5:1";
        ZorvUmtConfigureEvent(event, text, m_pInfo);
        for (int other = 0; other < ZORV_UMT_EVENT_MAX; other++)
        {
            EXPECT_EQ(m_pInfo->m_umtConfig.m_umtEventList[other].m_enable, other == event);
        }
    }
}

// ---- the tests that the interposers make -----------------------------------------------------------------

class EventTests : public RecordingTest
{
};

TEST_F(EventTests, EnabledAndThresholdAreTheEventsOwn)
{
    EnableEvent(ZORV_UMT_EVENT_WAIT, 123);
    EXPECT_TRUE(ZorvUmtIsEventEnabled(m_pInfo, ZORV_UMT_EVENT_WAIT));
    EXPECT_FALSE(ZorvUmtIsEventEnabled(m_pInfo, ZORV_UMT_EVENT_LOCK));
    EXPECT_EQ(ZorvUmtGetEventThreshold(m_pInfo, ZORV_UMT_EVENT_WAIT), 123u);
    EXPECT_EQ(ZorvUmtGetEventThreshold(m_pInfo, ZORV_UMT_EVENT_LOCK), 0u);
}

TEST_F(EventTests, NothingIsEnabledWithoutARecord)
{
    EXPECT_FALSE(ZorvUmtIsEventEnabled(nullptr, ZORV_UMT_EVENT_WAIT));
    EXPECT_EQ(ZorvUmtGetEventThreshold(nullptr, ZORV_UMT_EVENT_WAIT), 0u);
    EXPECT_FALSE(ZorvUmtIsTraceEvent(nullptr, ZORV_UMT_EVENT_WAIT));
}

TEST_F(EventTests, AnEventIsTracedWhenEnabledAndNotStopped)
{
    EnableEvent(ZORV_UMT_EVENT_WAIT);
    EXPECT_TRUE(ZorvUmtIsTraceEvent(m_pInfo, ZORV_UMT_EVENT_WAIT));
    EXPECT_FALSE(ZorvUmtIsTraceEvent(m_pInfo, ZORV_UMT_EVENT_LOCK));
    m_pThread->m_stopCollection = true;
    EXPECT_FALSE(ZorvUmtIsTraceEvent(m_pInfo, ZORV_UMT_EVENT_WAIT));
    EXPECT_TRUE(ZorvUmtIsEventEnabled(m_pInfo, ZORV_UMT_EVENT_WAIT));
}

// A pause does not stop measuring: the pause ids decide afterwards.
TEST_F(EventTests, APauseDoesNotStopTracing)
{
    EnableEvent(ZORV_UMT_EVENT_WAIT);
    m_controller = {true, false, 7};
    EXPECT_TRUE(ZorvUmtIsTraceEvent(m_pInfo, ZORV_UMT_EVENT_WAIT));
}

} // namespace
