// What must be known of a session before its records are handed on.
#pragma once

#include "Report/ProcessSurvey.h"
#include "Session/MachineFacts.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

struct SessionSurvey
{
    std::string m_path;
    std::vector<SurveyedProcess> m_processes; // by key
    TimeSpan m_span;
    uint64_t m_periodNs = 0;           // between two samples of a thread that runs, by its CPU time
    std::optional<ClockPair> m_clocks; // what the calendar showed when the first session began
    std::vector<Damage> m_damages;
};

// Takes a session, or a folder of sessions named rank=N. Fails when the path is neither.
SessionSurvey SurveySession(const std::string& path);

} // namespace qelix
