// Counts durations without keeping them: a session can hold more calls than memory. A bucket is at most
// 1/128 of its value wide and knows its mean, so percentiles are exact where values repeat or lie apart,
// and within 0.8 % otherwise.
#pragma once

#include <cstdint>
#include <unordered_map>

namespace qelix
{

struct DurationBucket
{
    uint64_t m_count = 0;
    unsigned __int128 m_sum = 0; // 64 bits could overflow on times that a damaged file makes up
};

struct DurationHistogram
{
    std::unordered_map<uint32_t, DurationBucket> m_buckets; // only those that hold something
    uint64_t m_count = 0;
};

void AddDuration(DurationHistogram* pHistogram, uint64_t nanoseconds);
void AddDurations(DurationHistogram* pHistogram, const DurationHistogram& more);

// Nearest rank: the smallest duration that at least `percent` of all do not exceed; 0 without durations.
uint64_t Percentile(const DurationHistogram& histogram, unsigned percent);

uint64_t SaturatingAdd(uint64_t a, uint64_t b);

} // namespace qelix
