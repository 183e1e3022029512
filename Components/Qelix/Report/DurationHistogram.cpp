#include "Report/DurationHistogram.h"

#include <algorithm>
#include <bit>
#include <utility>
#include <vector>

namespace qelix
{
namespace
{

constexpr unsigned ZORV_STEP_BITS = 7; // 128 buckets for each power of two

uint32_t BucketOf(uint64_t value)
{
    const unsigned width = std::bit_width(value);
    if (width <= ZORV_STEP_BITS)
    {
        return static_cast<uint32_t>(value); // one bucket a value
    }
    const unsigned shift = width - 1 - ZORV_STEP_BITS;
    const auto step = static_cast<uint32_t>(value >> shift) & ((1U << ZORV_STEP_BITS) - 1);
    return ((shift + 1) << ZORV_STEP_BITS) + step;
}

} // namespace

uint64_t SaturatingAdd(uint64_t a, uint64_t b)
{
    return a + std::min(b, UINT64_MAX - a);
}

void AddDuration(DurationHistogram* pHistogram, uint64_t nanoseconds)
{
    DurationBucket& bucket = pHistogram->m_buckets[BucketOf(nanoseconds)];
    ++bucket.m_count;
    bucket.m_sum += nanoseconds;
    ++pHistogram->m_count;
}

void AddDurations(DurationHistogram* pHistogram, const DurationHistogram& more)
{
    for (const auto& [index, bucket] : more.m_buckets)
    {
        DurationBucket& own = pHistogram->m_buckets[index];
        own.m_count += bucket.m_count;
        own.m_sum += bucket.m_sum;
    }
    pHistogram->m_count += more.m_count;
}

uint64_t Percentile(const DurationHistogram& histogram, unsigned percent)
{
    std::vector<std::pair<uint32_t, DurationBucket>> buckets(histogram.m_buckets.begin(),
                                                             histogram.m_buckets.end());
    std::sort(buckets.begin(), buckets.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    const uint64_t rank = std::max<uint64_t>(1, (histogram.m_count * percent + 99) / 100);
    uint64_t seen = 0;
    for (const auto& [index, bucket] : buckets)
    {
        seen += bucket.m_count;
        if (seen >= rank)
        {
            return static_cast<uint64_t>(bucket.m_sum / bucket.m_count);
        }
    }
    return 0;
}

} // namespace qelix
