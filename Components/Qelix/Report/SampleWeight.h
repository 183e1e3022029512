// CPU time that the samples of a process stand for.
#pragma once

#include "Session/AgentConfiguration.h"
#include "Session/AgentReports.h"
#include "Session/SessionRecord.h"

#include <cstdint>
#include <string>

namespace qelix
{

struct SampleClock
{
    uint64_t m_intervalNs = 0; // as asked for
    uint64_t m_periodNs = 0;   // the interval, or the kernel's tick where that is longer
};

SampleClock SampleClockOf(const RecordedSettings& settings, const SessionRecord& record);

// A timer that fired while its last signal was still pending made no sample, and some samples are lost: what
// the process's sample file misses is shared out among all the samples that it has.
double NsPerSample(const SampleClock& clock, const AgentLogFacts& log, const std::string& sampleFile,
                   uint64_t allSamples);

uint64_t WholeNs(double nanoseconds); // within what 64 bits hold

} // namespace qelix
