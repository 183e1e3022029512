#include "Report/DurationHistogram.h"

#include <algorithm>
#include <bit>
#include <iterator>

namespace qelix
{
namespace
{

constexpr unsigned ZORV_STEP_BITS = 7; // 128 buckets for each power of two
constexpr std::size_t ZORV_LEAST_PLACES = 8;

uint32_t IndexOf(uint64_t value)
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

uint64_t LowerEdge(uint32_t index)
{
    const uint32_t octave = index >> ZORV_STEP_BITS;
    if (octave == 0)
    {
        return index;
    }
    const uint64_t step = index & ((1U << ZORV_STEP_BITS) - 1);
    return (step | 1U << ZORV_STEP_BITS) << (octave - 1);
}

// The bucket's place, or the empty one where it belongs.
DurationBucket& PlaceOf(std::vector<DurationBucket>* pTable, uint32_t index)
{
    const std::size_t mask = pTable->size() - 1;
    std::size_t at = (index * 0x9E3779B1U >> 8) & mask;
    while ((*pTable)[at].m_count != 0 && (*pTable)[at].m_index != index)
    {
        at = (at + 1) & mask;
    }
    return (*pTable)[at];
}

void Grow(DurationHistogram* pHistogram)
{
    std::vector<DurationBucket> table(std::max(ZORV_LEAST_PLACES, 2 * pHistogram->m_table.size()));
    for (const DurationBucket& bucket : pHistogram->m_table)
    {
        if (bucket.m_count != 0)
        {
            PlaceOf(&table, bucket.m_index) = bucket;
        }
    }
    pHistogram->m_table = std::move(table);
}

void AddToBucket(DurationHistogram* pHistogram, uint32_t index, uint64_t count, uint64_t above)
{
    // A quarter stays empty, so that a search ends soon.
    if (4 * std::size_t{pHistogram->m_used} >= 3 * pHistogram->m_table.size())
    {
        Grow(pHistogram);
    }
    DurationBucket& bucket = PlaceOf(&pHistogram->m_table, index);
    pHistogram->m_used += bucket.m_count == 0 ? 1 : 0;
    bucket.m_index = index;
    bucket.m_count = bucket.m_count + count;
    bucket.m_above = SaturatingAdd(bucket.m_above, above); // a damaged file can make any times up
    pHistogram->m_count += count;
}

} // namespace

uint64_t SaturatingAdd(uint64_t a, uint64_t b)
{
    return a + std::min(b, UINT64_MAX - a);
}

void AddDuration(DurationHistogram* pHistogram, uint64_t nanoseconds)
{
    const uint32_t index = IndexOf(nanoseconds);
    AddToBucket(pHistogram, index, 1, nanoseconds - LowerEdge(index));
}

void AddDurations(DurationHistogram* pHistogram, const DurationHistogram& more)
{
    for (const DurationBucket& bucket : more.m_table)
    {
        if (bucket.m_count != 0)
        {
            AddToBucket(pHistogram, bucket.m_index, bucket.m_count, bucket.m_above);
        }
    }
}

uint64_t Percentile(const DurationHistogram& histogram, unsigned percent)
{
    const uint64_t rank = std::max<uint64_t>(1, (histogram.m_count * percent + 99) / 100);
    uint64_t seen = 0;
    for (const DurationBucket& bucket : BucketsOf(histogram))
    {
        seen += bucket.m_count;
        if (seen >= rank)
        {
            return MeanOf(bucket);
        }
    }
    return 0;
}

std::vector<DurationBucket> BucketsOf(const DurationHistogram& histogram)
{
    std::vector<DurationBucket> buckets;
    buckets.reserve(histogram.m_used);
    std::copy_if(histogram.m_table.begin(), histogram.m_table.end(), std::back_inserter(buckets),
                 [](const DurationBucket& bucket) { return bucket.m_count != 0; });
    std::sort(buckets.begin(), buckets.end(),
              [](const DurationBucket& a, const DurationBucket& b) { return a.m_index < b.m_index; });
    return buckets;
}

uint64_t MeanOf(const DurationBucket& bucket)
{
    return LowerEdge(bucket.m_index) + bucket.m_above / bucket.m_count;
}

} // namespace qelix
