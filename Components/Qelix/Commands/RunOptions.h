// The options of `qelix run` and `qelix record`, and what they come to for the agent. A set-up that cannot work
// is refused before anything is made for it.
#pragma once

#include "Session/AgentConfiguration.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace qelix
{

constexpr unsigned ZORV_DEFAULT_DEPTH = 64; // frames

struct RunOptions
{
    std::string m_directory;
    std::string m_rank = "auto";
    std::string m_interval;            // empty: the kernel's tick
    std::optional<double> m_frequency; // instead of an interval
    bool m_isNotSampled = false;
    std::string m_depth = std::to_string(ZORV_DEFAULT_DEPTH);
    std::optional<int> m_signal;
    std::string m_events;
    std::optional<uint64_t> m_thresholdNs; // of every class
    std::vector<std::string> m_minimums;   // "CLASS=TIME"
    bool m_profileChildren = true;
    std::string m_duration; // empty: to the end
    std::string m_budget;   // empty: none
    bool m_isForced = false;
    bool m_isStrict = false;
    bool m_isQuiet = false; // no line while the program runs
    std::vector<std::string> m_command;
};

// What the session is and what is recorded; for everything that makes sessions.
void AddRecordingOptions(CLI::App* pCommand, RunOptions* pOptions);
// What concerns a program that qelix itself starts.
void AddRunOptions(CLI::App* pCommand, RunOptions* pOptions);

Thresholds ThresholdsOf(const RunOptions& options);

// Nothing: no samples, because none were asked for or, as the note says, none can be had here.
std::optional<SampleSettings> SamplingOf(const RunOptions& options, uint64_t tickNs,
                                         const std::function<void(const std::string&)>& note);

std::optional<uint64_t> DurationOf(const RunOptions& options);
std::optional<uint64_t> BudgetOf(const RunOptions& options);

} // namespace qelix
