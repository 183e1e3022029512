// The options of `qelix run`, and what they come to for the agent. A set-up that cannot work is refused before
// anything is made for it.
#pragma once

#include "Session/AgentConfiguration.h"

#include <optional>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace qelix
{

struct RunOptions
{
    std::string m_directory;
    std::optional<uint64_t> m_thresholdNs; // of every class
    std::vector<std::string> m_minimums;   // "CLASS=TIME"
    bool m_profileChildren = true;
    std::string m_sample; // an interval; "true" for the default one, empty for no samples
    unsigned m_depth = 64;
    std::optional<int> m_signal;
    std::string m_events;
    bool m_isForced = false;
    std::vector<std::string> m_command;
};

void AddRunOptions(CLI::App* pRun, RunOptions* pOptions);

Thresholds ThresholdsOf(const RunOptions& options);
std::optional<SampleSettings> SamplingOf(const RunOptions& options, uint64_t tickNs);

} // namespace qelix
