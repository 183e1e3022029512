// Percentiles against values that are known or computed the plain way.
#include "Report/DurationHistogram.h"
#include "Report/Report.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <vector>

using namespace qelix;

namespace
{

DurationHistogram HistogramOf(const std::vector<uint64_t>& values)
{
    DurationHistogram histogram;
    for (const uint64_t value : values)
    {
        AddDuration(&histogram, value);
    }
    return histogram;
}

uint64_t NearestRank(std::vector<uint64_t> values, unsigned percent)
{
    std::sort(values.begin(), values.end());
    return values[std::max<std::size_t>(1, (values.size() * percent + 99) / 100) - 1];
}

} // namespace

TEST(Histogram, NothingHasPercentile0)
{
    EXPECT_EQ(Percentile(DurationHistogram{}, 50), 0u);
}

TEST(Histogram, OneValueIsEveryPercentile)
{
    for (const uint64_t value :
         {uint64_t{0}, uint64_t{1}, uint64_t{127}, uint64_t{128}, uint64_t{1234567}, UINT64_MAX})
    {
        const DurationHistogram histogram = HistogramOf({value});
        EXPECT_EQ(Percentile(histogram, 50), value);
        EXPECT_EQ(Percentile(histogram, 99), value);
    }
}

TEST(Histogram, NearestRankOfFewValues)
{
    const DurationHistogram even = HistogramOf({40, 10, 30, 20});
    EXPECT_EQ(Percentile(even, 50), 20u);
    EXPECT_EQ(Percentile(even, 51), 30u);
    EXPECT_EQ(Percentile(even, 99), 40u);
    EXPECT_EQ(Percentile(even, 1), 10u);
    EXPECT_EQ(Percentile(even, 100), 40u);
}

TEST(Histogram, OneInAHundredIsBeyondP99)
{
    std::vector<uint64_t> values(99, 1'000'000);
    values.push_back(5'000'000'000);
    EXPECT_EQ(Percentile(HistogramOf(values), 99), 1'000'000u);
    values.push_back(5'000'000'000);
    EXPECT_EQ(Percentile(HistogramOf(values), 99), 5'000'000'000u);
}

TEST(Histogram, SmallValuesAreExact)
{
    std::vector<uint64_t> values;
    for (uint64_t value = 0; value < 256; ++value)
    {
        values.push_back(value % 128);
    }
    for (unsigned percent = 1; percent <= 100; ++percent)
    {
        EXPECT_EQ(Percentile(HistogramOf(values), percent), NearestRank(values, percent));
    }
}

TEST(Histogram, AnyValuesAreWithin1PercentAndInTheirOrder)
{
    std::mt19937_64 random(7);
    std::vector<uint64_t> values;
    for (int i = 0; i < 20000; ++i)
    {
        values.push_back(random() >> (random() % 64));
    }
    const DurationHistogram histogram = HistogramOf(values);
    uint64_t last = 0;
    for (unsigned percent = 1; percent <= 100; ++percent)
    {
        const auto exact = static_cast<double>(NearestRank(values, percent));
        const uint64_t found = Percentile(histogram, percent);
        EXPECT_NEAR(static_cast<double>(found), exact, exact * 0.01 + 0.5) << percent;
        EXPECT_GE(found, last);
        last = found;
    }
}

TEST(Duration, ThreeDigitsThatMatter)
{
    EXPECT_EQ(DurationText(0), "0 ns");
    EXPECT_EQ(DurationText(999), "999 ns");
    EXPECT_EQ(DurationText(1000), "1.00 µs");
    EXPECT_EQ(DurationText(12345), "12.3 µs");
    EXPECT_EQ(DurationText(999400), "999 µs");
    EXPECT_EQ(DurationText(999500), "1.00 ms");
    EXPECT_EQ(DurationText(250000000), "250 ms");
    EXPECT_EQ(DurationText(9995000000), "10.0 s");
    EXPECT_EQ(DurationText(123400000000), "123 s");
}
