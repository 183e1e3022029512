// The configuration as the agent reads it: a copy of its reading rules stands here.
#include "FileBytes.h"
#include "Session/AgentConfiguration.h"
#include "Session/Failure.h"

#include <array>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

using namespace qelix;

namespace
{

// The agent's names, in the order in which it tries them.
constexpr std::array g_names = {
    "QELIX_TRACE_PTHREAD",
    "QELIX_TRACE_SYSCALL",
    "QELIX_TRACE_WAIT_SLEEP_STATE_SYSCALL",
    "QELIX_TRACE_SLEEP",
    "QELIX_TRACE_LOCK",
    "QELIX_TRACE_WAIT",
    "QELIX_TRACE_IO_SYNC",
    "QELIX_TRACE_IO",
    "QELIX_ENABLE_SAMPLING",
    "QELIX_CALLSTACK_COLLECTION",
    "QELIX_PROFILING_SIGNAL_NUMBER",
    "QELIX_CALLSTACK_DEPTH",
    "QELIX_TIMER_INTERVAL",
    "QELIX_PROFILE_CHILDREN",
    "QELIX_LAUNCH_PROCESS_ID",
    "QELIX_MPI_RANK_ID",
    "QELIX_PMC_EVENTS",
    "QELIX_ENCODED_EVENTS",
    "QELIX_UMT_DIR",
    "QELIX_CPU_PROFILE_DIR",
    "QELIX_METADATA_DIR",
    "QELIX_OPENMP_AGENT_PATH",
    "QELIX_PYTHON_AGENT_SCRIPT_PATH",
    "QELIX_PYTHON_AGENT_LIB_PATH",
    "QELIX_PYTHON_TRACE_TYPE",
    "QELIX_USERMODE_AGENT_PATH",
    "QELIX_SHM_NAME",
};

// The first name that begins with the key takes the value; the value ends at the next '=' or at the line's end.
std::map<std::string, std::string> ReadAsTheAgent(const std::string& text)
{
    std::map<std::string, std::string> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        const std::size_t equals = line.find('=');
        const std::string key = line.substr(0, equals);
        const std::string value = line.substr(equals + 1, line.find('=', equals + 1) - equals - 1);
        for (const std::string name : g_names)
        {
            if (name.starts_with(key))
            {
                values[name] = value;
                break;
            }
        }
    }
    return values;
}

AgentSettings Settings()
{
    return {"/tmp/my session", "/opt/lib/agent.so", "/qelix-77", 123, 2500, true};
}

} // namespace

TEST(Configuration, TheAgentReadsBackWhatWasMeant)
{
    const std::map<std::string, std::string> expected = {
        {"QELIX_TRACE_PTHREAD", "1:2500:0"},
        {"QELIX_PROFILE_CHILDREN", "1"},
        {"QELIX_LAUNCH_PROCESS_ID", "123"},
        {"QELIX_UMT_DIR", "/tmp/my session/trace"},
        {"QELIX_METADATA_DIR", "/tmp/my session/metadata"},
        {"QELIX_USERMODE_AGENT_PATH", "/opt/lib/agent.so"},
        {"QELIX_SHM_NAME", "/qelix-77"},
    };
    EXPECT_EQ(ReadAsTheAgent(ConfigurationText(Settings())), expected);
}

TEST(Configuration, ChildrenCanBeLeftOut)
{
    AgentSettings settings = Settings();
    settings.m_profileChildren = false;
    EXPECT_EQ(ReadAsTheAgent(ConfigurationText(settings)).at("QELIX_PROFILE_CHILDREN"), "0");
}

TEST(Configuration, EveryLineEndsWithANewline)
{
    EXPECT_TRUE(ConfigurationText(Settings()).ends_with('\n'));
}

TEST(Configuration, APathThatTheAgentCouldNotReadBackIsRefusedWithReasonAndRemedy)
{
    for (const std::string path : {"/tmp/a=b", "/tmp/a\nb"})
    {
        try
        {
            RequireConfigurablePath("session directory", path, "choose another with -o DIR");
            ADD_FAILURE() << path;
        }
        catch (const Failure& failure)
        {
            EXPECT_EQ(failure.m_status, 125);
            const std::string message = failure.what();
            EXPECT_NE(message.find("session directory"), std::string::npos);
            EXPECT_NE(message.find("where a configured value ends"), std::string::npos);
            EXPECT_NE(message.find("-o DIR"), std::string::npos);
        }
    }
    EXPECT_THROW(RequireConfigurablePath("session directory", "/" + std::string(4000, 'x'), ""), Failure);
    EXPECT_NO_THROW(RequireConfigurablePath("session directory", "/tmp/with blank: and colon", ""));
}

TEST(Configuration, AnAgentPathThatLdPreloadCannotCarryIsRefused)
{
    for (const std::string path : {"/opt/my agent.so", "/opt/a:b.so", "/opt/$ORIGIN.so", "/opt/a=b.so"})
    {
        EXPECT_THROW(RequirePreloadablePath(path), Failure) << path;
    }
    EXPECT_NO_THROW(RequirePreloadablePath("/opt/agent.so"));
}

TEST(Configuration, TheThresholdOfASessionIsReadBack)
{
    const TestFolder folder;
    AgentSettings settings = Settings();
    settings.m_sessionPath = folder.m_path;
    WriteConfiguration(settings);
    EXPECT_EQ(ReadThreshold(folder.m_path), 2500u);
    folder.Write("agent.conf", std::string("QELIX_TRACE_PTHREAD=0\n"));
    EXPECT_EQ(ReadThreshold(folder.m_path), std::nullopt);
    EXPECT_EQ(ReadThreshold(folder.m_path + "/missing"), std::nullopt);
}
