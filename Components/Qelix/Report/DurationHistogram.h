// Counts durations without keeping them: a session can hold more calls than memory. A bucket is at most
// 1/128 of its value wide and knows its mean, so percentiles are exact where values repeat or lie apart,
// and within 0.8 % otherwise.
#pragma once

#include <cstdint>
#include <vector>

namespace qelix
{

// 16 bytes: the histograms of a session's locks are to stay in the processor's caches while they are filled.
struct DurationBucket
{
    uint64_t m_index : 16 = 0;
    uint64_t m_count : 48 = 0; // 0: an empty place of the table
    uint64_t m_above = 0;      // what the durations are together above the bucket's lower edge
};

struct DurationHistogram
{
    std::vector<DurationBucket> m_table; // a hash table of a power of two of places, or none
    uint32_t m_used = 0;                 // places
    uint64_t m_count = 0;                // durations
};

void AddDuration(DurationHistogram* pHistogram, uint64_t nanoseconds);
void AddDurations(DurationHistogram* pHistogram, const DurationHistogram& more);

// Nearest rank: the smallest duration that at least `percent` of all do not exceed; 0 without durations.
uint64_t Percentile(const DurationHistogram& histogram, unsigned percent);

// Those that hold something, shortest durations first.
std::vector<DurationBucket> BucketsOf(const DurationHistogram& histogram);

uint64_t MeanOf(const DurationBucket& bucket);

uint64_t SaturatingAdd(uint64_t a, uint64_t b);

} // namespace qelix
