// Hosts of a merged session have clocks of their own.
#pragma once

#include "Report/LifeSpan.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qelix
{

// By a mark that stands behind the first '_' in the names of a host's files: nanoseconds to be added to its
// times.
using ClockShifts = std::vector<std::pair<std::string, int64_t>>;

// Empty in a session that was not merged.
ClockShifts ReadClockShifts(const std::string& session);

int64_t ShiftOf(const ClockShifts& shifts, const std::string& file);

// A time that is 0, or that of a call which has not returned, says something else and stays.
uint64_t Shifted(uint64_t time, int64_t shift);
LifeSpan Shifted(const LifeSpan& span, int64_t shift);

} // namespace qelix
