// Ticks of the time-stamp counter in one second, with a counter of the test's own.
#include "CounterSupport.h"

#include <cstring>
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

    uint64_t m_frequency = 77;
};

TEST_F(Frequency, IsTheDifferenceOfTwoReadings)
{
    EXPECT_EQ(Measure(1000, 3500001000), 0);
    EXPECT_EQ(m_frequency, 3500000000u);
    ASSERT_EQ(m_counters.m_opened.size(), 1u);
    EXPECT_EQ(m_counters.m_opened[0].m_group, -1);
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
