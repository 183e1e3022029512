// The agent's configuration file, and what the agent's reading of it asks of a launcher:
//   - the value ends at the line's next '=', so no configured path may hold one; it ends at a newline too;
//   - a key selects the first name of the agent's table that begins with it, so only whole names that no
//     earlier name begins with do what they say (QELIX_TRACE_WAIT and QELIX_TRACE_IO do not);
//   - any trace key turns the trace stream on, even one that disables its class.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

namespace qelix
{

struct AgentSettings
{
    std::string m_sessionPath;
    std::string m_agentPath;
    std::string m_blockName; // of the controller's shared memory
    pid_t m_launcherPid = 0; // the agent kills it after it has written an error code
    uint64_t m_thresholdNs = 0;
    bool m_profileChildren = true;
};

// Fails when the agent could not read the path back from its configuration. pWhat names the path for the
// user, pRemedy says what to do.
void RequireConfigurablePath(const char* pWhat, const std::string& path, const char* pRemedy);

// Fails also when the dynamic loader would not read the path as one item of LD_PRELOAD.
void RequirePreloadablePath(const std::string& agentPath);

std::string ConfigurationText(const AgentSettings& settings);
void WriteConfiguration(const AgentSettings& settings);

// The threshold that a session was recorded with, if its configuration is there and says so.
std::optional<uint64_t> ReadThreshold(const std::string& sessionPath);

} // namespace qelix
