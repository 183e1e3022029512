#include "Session/AgentConfiguration.h"

#include "Session/Failure.h"
#include "Session/SessionDirectory.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <string_view>

namespace qelix
{
namespace
{

constexpr const char* ZORV_TRACE_KEY = "QELIX_TRACE_PTHREAD";

// The agent builds its file names in 4096 bytes: the path, a folder, and a name with host, thread and process.
constexpr std::size_t ZORV_LONGEST_PATH = 3500;

} // namespace

void RequireConfigurablePath(const char* pWhat, const std::string& path, const char* pRemedy)
{
    if (path.find_first_of("=\n\r") != std::string::npos)
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE,
                      "the {} \"{}\" has a '=' or a line break in its path, where a configured value ends; {}",
                      pWhat, path, pRemedy);
    }
    if (path.size() > ZORV_LONGEST_PATH)
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE, "the path of the {} is longer than {} bytes; {}", pWhat,
                      ZORV_LONGEST_PATH, pRemedy);
    }
}

void RequirePreloadablePath(const std::string& agentPath)
{
    constexpr const char* pRemedy = "move or build qelix elsewhere";
    RequireConfigurablePath("agent", agentPath, pRemedy);
    if (agentPath.find_first_of(" \t:$") != std::string::npos)
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE,
                      "the agent \"{}\" has a blank, ':' or '$' in its path, which LD_PRELOAD cannot carry; {}",
                      agentPath, pRemedy);
    }
}

std::string ConfigurationText(const AgentSettings& settings)
{
    std::string text;
    const auto add = [&text](const char* pKey, const auto& value)
    { text += fmt::format("{}={}\n", pKey, value); };
    add(ZORV_TRACE_KEY, fmt::format("1:{}:0", settings.m_thresholdNs));
    add("QELIX_PROFILE_CHILDREN", settings.m_profileChildren ? 1 : 0);
    add("QELIX_LAUNCH_PROCESS_ID", settings.m_launcherPid);
    add("QELIX_UMT_DIR", TraceFolder(settings.m_sessionPath));
    add("QELIX_METADATA_DIR", MetadataFolder(settings.m_sessionPath));
    add("QELIX_USERMODE_AGENT_PATH", settings.m_agentPath);
    add("QELIX_SHM_NAME", settings.m_blockName);
    return text;
}

void WriteConfiguration(const AgentSettings& settings)
{
    const std::string path = ConfigurationFile(settings.m_sessionPath);
    std::ofstream file(path, std::ios::trunc);
    file << ConfigurationText(settings);
    file.close();
    if (!file)
    {
        throw Failure(
            ZORV_STATUS_OWN_FAILURE,
            "cannot write the agent's configuration {}: {}; make room or choose another directory with -o DIR",
            path, strerror(errno));
    }
}

std::optional<uint64_t> ReadThreshold(const std::string& sessionPath)
{
    std::ifstream file(ConfigurationFile(sessionPath));
    const std::string prefix = std::string(ZORV_TRACE_KEY) + "=1:";
    for (std::string line; std::getline(file, line);)
    {
        if (!line.starts_with(prefix))
        {
            continue;
        }
        uint64_t threshold = 0;
        const char* pDigits = line.data() + prefix.size();
        if (std::from_chars(pDigits, line.data() + line.size(), threshold).ec == std::errc())
        {
            return threshold;
        }
    }
    return std::nullopt;
}

} // namespace qelix
