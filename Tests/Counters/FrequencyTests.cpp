// Ticks of the time-stamp counter in one second, with a counter of the test's own.
#include "CounterSupport.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/perf_event.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

constexpr int COUNTER_FD = 900;

class Frequency : public CounterTest
{
protected:
    // The two readings of a counter that a kernel gives without the group layout.
    int Measure(uint64_t first, uint64_t second, long result = 32)
    {
        m_counters.m_openResults = {COUNTER_FD};
        std::vector<size_t> sizes;
        Replace read("ZorvUmaRead",
                     [&](const Call& call) -> uint64_t
                     {
                         if (call.Arg<int>(0) != COUNTER_FD)
                         {
                             return call.PassOn();
                         }
                         sizes.push_back(call.Arg<size_t>(2));
                         memcpy(call.Arg<void*>(1), sizes.size() == 1 ? &first : &second, sizeof first);
                         return result;
                     });
        std::vector<int> closed;
        Replace close("ZorvUmaClose",
                      [&](const Call& call) -> uint64_t
                      {
                          if (call.Arg<int>(0) != COUNTER_FD)
                          {
                              return call.PassOn();
                          }
                          closed.push_back(COUNTER_FD);
                          return 0;
                      });
        const int status = ZorvGetP0FreqFromPerf(&m_frequency);
        EXPECT_EQ(sizes, (std::vector<size_t>{32, 32}));
        EXPECT_EQ(closed, std::vector<int>{COUNTER_FD});
        EXPECT_EQ(m_counters.m_switched,
                  (std::vector<Switched>{{COUNTER_FD, ENABLE, -1}, {COUNTER_FD, DISABLE, -1}}));
        return status;
    }

    uint64_t ReadFormat(size_t counter) const
    {
        perf_event_attr attributes{};
        const std::vector<uint8_t>& bytes = m_counters.m_opened[counter].m_attributes;
        memcpy(&attributes, bytes.data(), std::min(sizeof attributes, bytes.size()));
        return attributes.read_format;
    }

    uint64_t m_frequency = 77;
};

TEST_F(Frequency, IsTheDifferenceOfTwoReadings)
{
    EXPECT_EQ(Measure(1000, 3500001000), 0);
    EXPECT_EQ(m_frequency, 3500000000u);
    ASSERT_EQ(m_counters.m_opened.size(), 1u);
    EXPECT_EQ(m_counters.m_opened[0].m_group, -1);
    EXPECT_EQ(ReadFormat(0), 15u) << "as for every counter";
}

// What a kernel does that wants room for a group's layout where the group bit is set.
TEST_F(Frequency, OfACounterThatIsNotReadAsAGroupIsMeasuredAlone)
{
    m_counters.m_openResults = {COUNTER_FD, COUNTER_FD};
    long reads = 0;
    Replace read("ZorvUmaRead",
                 [&](const Call& call) -> uint64_t
                 {
                     if (call.Arg<int>(0) != COUNTER_FD)
                     {
                         return call.PassOn();
                     }
                     if (++reads == 1)
                     {
                         errno = ENOSPC;
                         return ~uint64_t{0};
                     }
                     const uint64_t count = reads == 2 ? 5 : 25;
                     memcpy(call.Arg<void*>(1), &count, sizeof count);
                     return 32;
                 });
    Replace close("ZorvUmaClose",
                  [&](const Call& call) -> uint64_t
                  { return call.Arg<int>(0) == COUNTER_FD ? 0 : call.PassOn(); });
    EXPECT_EQ(ZorvGetP0FreqFromPerf(&m_frequency), 0);
    EXPECT_EQ(m_frequency, 20u);
    ASSERT_EQ(m_counters.m_opened.size(), 2u);
    EXPECT_EQ(ReadFormat(1), 7u);
}

TEST_F(Frequency, OfZeroFails)
{
    EXPECT_EQ(Measure(5, 5), -1);
    EXPECT_EQ(m_frequency, 0u);
}

TEST_F(Frequency, ThatCannotBeReadFails)
{
    EXPECT_EQ(Measure(0, 3, -1), -1);
    EXPECT_EQ(m_frequency, 0u);
}

TEST_F(Frequency, IsMeasuredAlsoWhenTheCounterCannotBeSwitched)
{
    m_counters.m_switchErrors[COUNTER_FD] = EIO;
    EXPECT_EQ(Measure(1, 3), 0);
    EXPECT_EQ(m_frequency, 2u);
    EXPECT_EQ(ErrorText(), "stopPERFPmcCounting failed for fd (900) : Input/output error.");
}

TEST_F(Frequency, WithoutAPlaceForItFails)
{
    EXPECT_EQ(ZorvGetP0FreqFromPerf(nullptr), -1);
    EXPECT_TRUE(m_counters.m_opened.empty());
}

TEST_F(Frequency, WithoutACounterFails)
{
    m_counters.m_openResults = {-EACCES, -EACCES};
    EXPECT_EQ(ZorvGetP0FreqFromPerf(&m_frequency), -1);
    EXPECT_EQ(m_frequency, 0u);
    EXPECT_EQ(ErrorText(), "configureMsrPmcEvent failed : Permission denied.");
}

} // namespace
