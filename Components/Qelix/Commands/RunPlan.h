// What is decided about a recording before anything is made for it, and what the session notes of it.
#pragma once

#include "Commands/RunOptions.h"
#include "Session/AgentConfiguration.h"
#include "Session/SessionDirectory.h"
#include "Session/SessionRecord.h"

#include <optional>
#include <string>

namespace qelix
{

struct RunPlan
{
    std::string m_program; // empty where something else starts it
    std::string m_agent;
    Thresholds m_thresholds;
    std::optional<SampleSettings> m_sampling;
    std::optional<uint64_t> m_durationNs;
    std::optional<uint64_t> m_budgetBytes;
    std::optional<int64_t> m_rank;
    uint64_t m_tickNs = 0;
};

// All but the program.
RunPlan PlanRecording(const RunOptions& options);

SessionRecord RecordOf(const RunOptions& options, const RunPlan& plan);

// The one that was asked for, or one that is named after the program.
SessionDirectory MakeDirectoryFor(const RunOptions& options, const RunPlan& plan, const std::string& program);

} // namespace qelix
