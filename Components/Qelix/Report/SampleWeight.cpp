#include "Report/SampleWeight.h"

#include <algorithm>

namespace qelix
{
namespace
{

uint64_t CountOf(const std::map<MarkedPid, uint64_t>& counts, const MarkedPid& process)
{
    const auto found = counts.find(process);
    return found == counts.end() ? 0 : found->second;
}

} // namespace

SampleClock SampleClockOf(const RecordedSettings& settings, const SessionRecord& record)
{
    const uint64_t interval = settings.m_intervalNs.value_or(0);
    return {interval, std::max(interval, record.m_tickNs.value_or(0))};
}

double NsPerSample(const SampleClock& clock, const AgentLogFacts& log, const std::string& sampleFile,
                   uint64_t allSamples)
{
    const MarkedPid process = MarkedPidInFileName(sampleFile);
    const uint64_t overruns = CountOf(log.m_overrunsOf, process);
    const uint64_t lost = CountOf(log.m_lostSamplesOf, process);
    // Below the tick a timer expires several times between two ticks, and each of them is told.
    const uint64_t period = overruns == 0 || clock.m_intervalNs == 0 ? clock.m_periodNs : clock.m_intervalNs;
    const double expiries =
        allSamples == 0 ? 1.0 : 1.0 + static_cast<double>(overruns + lost) / static_cast<double>(allSamples);
    return expiries * static_cast<double>(period);
}

uint64_t WholeNs(double nanoseconds)
{
    return nanoseconds >= 0x1p64 ? UINT64_MAX : static_cast<uint64_t>(nanoseconds);
}

} // namespace qelix
