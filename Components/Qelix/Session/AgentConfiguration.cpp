#include "Session/AgentConfiguration.h"

#include "Session/Failure.h"
#include "Session/SessionDirectory.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/ranges.h>
#include <fstream>

namespace qelix
{
namespace
{

constexpr const char* ZORV_INTERVAL_KEY = "QELIX_TIMER_INTERVAL";
constexpr const char* ZORV_DEPTH_KEY = "QELIX_CALLSTACK_DEPTH";

constexpr int64_t ZORV_RANK_TOO_LARGE = -1;

// The agent builds its file names in 4096 bytes: the path, a folder, and a name with host, thread and process.
constexpr std::size_t ZORV_LONGEST_PATH = 3500;

template <typename T>
void TakeNumber(const std::string& line, const std::string& key, std::optional<T>* pNumber)
{
    T number;
    const char* pDigits = line.data() + std::min(line.size(), key.size() + 1);
    if (line.starts_with(key + "=") &&
        std::from_chars(pDigits, line.data() + line.size(), number).ec == std::errc())
    {
        *pNumber = number;
    }
}

} // namespace

void RequireConfigurablePath(const char* pWhat, const std::string& path, const char* pRemedy)
{
    if (path.find_first_of("=\n\r") != std::string::npos)
    {
        throw Failure(ZORV_FAILURE_CANNOT_START,
                      "the {} \"{}\" has a '=' or a line break in its path, where a configured value ends; {}",
                      pWhat, path, pRemedy)
            .At(path);
    }
    if (path.size() > ZORV_LONGEST_PATH)
    {
        throw Failure(ZORV_FAILURE_CANNOT_START, "the path of the {} is longer than {} bytes; {}", pWhat,
                      ZORV_LONGEST_PATH, pRemedy)
            .At(path);
    }
}

void RequirePreloadablePath(const std::string& agentPath)
{
    constexpr const char* pRemedy = "move or build qelix elsewhere";
    RequireConfigurablePath("agent", agentPath, pRemedy);
    if (agentPath.find_first_of(" \t:$") != std::string::npos)
    {
        throw Failure(ZORV_FAILURE_CANNOT_START,
                      "the agent \"{}\" has a blank, ':' or '$' in its path, which LD_PRELOAD cannot carry; {}",
                      agentPath, pRemedy)
            .At(agentPath);
    }
}

std::string ConfigurationText(const AgentSettings& settings)
{
    std::string text = TraceLines(settings.m_thresholds);
    const auto add = [&text](const char* pKey, const auto& value)
    { text += fmt::format("{}={}\n", pKey, value); };
    if (settings.m_sampling)
    {
        const SampleSettings& sampling = *settings.m_sampling;
        add("QELIX_ENABLE_SAMPLING", 1);
        add("QELIX_CALLSTACK_COLLECTION", 1); // without stacks the agent writes no samples
        add("QELIX_PROFILING_SIGNAL_NUMBER", sampling.m_signal);
        add(ZORV_DEPTH_KEY, sampling.m_depth);
        add(ZORV_INTERVAL_KEY, sampling.m_intervalNs);
        if (!sampling.m_events.empty())
        {
            add("QELIX_PMC_EVENTS", fmt::format("{}", fmt::join(sampling.m_events, ",")));
            add("QELIX_ENCODED_EVENTS", fmt::format("{}", fmt::join(sampling.m_events, ",")));
        }
        add("QELIX_CPU_PROFILE_DIR", SampleFolder(settings.m_sessionPath));
    }
    add("QELIX_PROFILE_CHILDREN", settings.m_profileChildren ? 1 : 0);
    add("QELIX_LAUNCH_PROCESS_ID", settings.m_launcherPid);
    if (settings.m_rank)
    {
        // Its place in the files has 16 bits; session.json has the whole number.
        add("QELIX_MPI_RANK_ID", *settings.m_rank <= INT16_MAX ? *settings.m_rank : ZORV_RANK_TOO_LARGE);
    }
    if (IsAnyClassOn(settings.m_thresholds))
    {
        add("QELIX_UMT_DIR", TraceFolder(settings.m_sessionPath));
    }
    add("QELIX_METADATA_DIR", MetadataFolder(settings.m_sessionPath));
    add("QELIX_USERMODE_AGENT_PATH", settings.m_agentPath);
    add("QELIX_SHM_NAME", settings.m_blockName);
    add("QELIX_CONTROLLER_WAKES", 1); // ControlBlock does
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
            ZORV_FAILURE_CANNOT_WRITE,
            "cannot write the agent's configuration {}: {}; make room or choose another directory with -o DIR",
            path, strerror(errno))
            .At(path);
    }
}

RecordedSettings ReadSettings(const std::string& sessionPath)
{
    std::ifstream file(ConfigurationFile(sessionPath));
    std::string text;
    RecordedSettings settings;
    for (std::string line; std::getline(file, line);)
    {
        text += line + '\n';
        TakeNumber(line, ZORV_INTERVAL_KEY, &settings.m_intervalNs);
        TakeNumber(line, ZORV_DEPTH_KEY, &settings.m_depth);
    }
    settings.m_thresholds = ThresholdsIn(text);
    return settings;
}

} // namespace qelix
