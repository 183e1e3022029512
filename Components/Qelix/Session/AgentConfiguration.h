// The agent's configuration file, and what the agent's reading of it asks of a launcher:
//   - the value ends at the line's next '=', so no configured path may hold one; it ends at a newline too;
//   - a key selects the first name of the agent's table that begins with it (TraceClasses.h);
//   - any trace key turns the trace stream on, even one that disables its class.
#pragma once

#include "Session/TraceClasses.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

struct SampleSettings
{
    uint64_t m_intervalNs = 0; // of a thread's own CPU time
    unsigned m_depth = 0;      // frames of the program
    int m_signal = 0;
    std::vector<uint64_t> m_events; // codes of the processor's counters
};

struct AgentSettings
{
    std::string m_sessionPath; // one without '='
    std::string m_agentPath;
    std::string m_blockName; // of the controller's shared memory
    pid_t m_launcherPid = 0; // the agent kills it after it has written an error code; 0: nobody
    Thresholds m_thresholds = DefaultThresholds();
    bool m_profileChildren = true;
    std::optional<SampleSettings> m_sampling;
    std::optional<int64_t> m_rank; // in a parallel job
};

// Fails when the agent could not read the path back from its configuration. pWhat names the path for the
// user, pRemedy says what to do.
void RequireConfigurablePath(const char* pWhat, const std::string& path, const char* pRemedy);

// Fails also when the dynamic loader would not read the path as one item of LD_PRELOAD.
void RequirePreloadablePath(const std::string& agentPath);

std::string ConfigurationText(const AgentSettings& settings);
void WriteConfiguration(const AgentSettings& settings);

// What a session was recorded with, as far as its configuration is there and says so.
struct RecordedSettings
{
    std::optional<Thresholds> m_thresholds;
    std::optional<uint64_t> m_intervalNs; // of the samples
    std::optional<uint32_t> m_depth;
};

RecordedSettings ReadSettings(const std::string& sessionPath);

} // namespace qelix
