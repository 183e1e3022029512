// The configuration as the agent reads it: a copy of its reading rules stands here.
#include "FileBytes.h"
#include "Session/AgentConfiguration.h"
#include "Session/CounterEvents.h"
#include "Session/Durations.h"
#include "Session/Failure.h"

#include <algorithm>
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

struct Line
{
    std::string m_name; // of the table
    std::string m_value;
};

// The first name that begins with the key takes the value; the value ends at the next '=' or at the line's end.
std::vector<Line> ReadLines(const std::string& text)
{
    std::vector<Line> read;
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
                read.push_back({name, value});
                break;
            }
        }
    }
    return read;
}

std::map<std::string, std::string> ReadAsTheAgent(const std::string& text)
{
    std::map<std::string, std::string> values;
    for (const Line& line : ReadLines(text))
    {
        values[line.m_name] = line.m_value;
    }
    return values;
}

// The classes that each row of the agent's table sets; the first one is parsed, the others are copies of it.
const std::map<std::string, std::vector<TraceClass>> g_rows = {
    {"QELIX_TRACE_PTHREAD", {ZORV_CLASS_PTHREAD}},
    {"QELIX_TRACE_SYSCALL",
     {ZORV_CLASS_SYSCALL, ZORV_CLASS_SLEEP, ZORV_CLASS_WAIT, ZORV_CLASS_LOCK, ZORV_CLASS_IO_SYNC,
      ZORV_CLASS_IO}},
    {"QELIX_TRACE_WAIT_SLEEP_STATE_SYSCALL",
     {ZORV_CLASS_SLEEP, ZORV_CLASS_WAIT, ZORV_CLASS_LOCK, ZORV_CLASS_IO_SYNC}},
    {"QELIX_TRACE_SLEEP", {ZORV_CLASS_SLEEP}},
    {"QELIX_TRACE_LOCK", {ZORV_CLASS_LOCK}},
    {"QELIX_TRACE_WAIT", {ZORV_CLASS_WAIT}},
    {"QELIX_TRACE_IO_SYNC", {ZORV_CLASS_IO_SYNC}},
    {"QELIX_TRACE_IO", {ZORV_CLASS_IO, ZORV_CLASS_IO_SYNC}},
};

// What the agent traces after it has read the lines. Every class begins switched off.
Thresholds TracedByTheAgent(const std::string& text)
{
    Thresholds thresholds = SameThresholds(std::nullopt);
    for (const Line& line : ReadLines(text))
    {
        if (const auto row = g_rows.find(line.m_name); row != g_rows.end())
        {
            const bool isOn = line.m_value.starts_with("1");
            for (const TraceClass traceClass : row->second)
            {
                thresholds[traceClass] =
                    isOn ? std::optional<uint64_t>(std::stoull(line.m_value.substr(2))) : std::nullopt;
            }
        }
    }
    return thresholds;
}

bool IsTracing(const std::string& text)
{
    const std::vector<Line> lines = ReadLines(text);
    return std::any_of(lines.begin(), lines.end(),
                       [](const Line& line) { return g_rows.contains(line.m_name); });
}

AgentSettings Settings()
{
    return {"/tmp/my session", "/opt/lib/agent.so", "/qelix-77", 123, SameThresholds(2500), true, std::nullopt, {}};
}

} // namespace

TEST(Configuration, TheAgentReadsBackWhatWasMeant)
{
    const std::map<std::string, std::string> expected = {
        {"QELIX_TRACE_PTHREAD", "1:2500:0"},
        {"QELIX_TRACE_SYSCALL", "1:2500:0"},
        {"QELIX_TRACE_WAIT_SLEEP_STATE_SYSCALL", "1:2500:0"},
        {"QELIX_TRACE_SLEEP", "1:2500:0"},
        {"QELIX_TRACE_LOCK", "1:2500:0"},
        {"QELIX_TRACE_IO_SYNC", "1:2500:0"},
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
            EXPECT_EQ(StatusOf(failure.m_code), 125);
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

TEST(Configuration, EveryClassIsConfiguredExactlyAsAskedInWhateverMixture)
{
    // Three settings for each class: off, everything, and a time of its own. io and syscall are one setting.
    constexpr int settings = 3;
    for (int mixture = 0; mixture < settings * settings * settings * settings * settings * settings; ++mixture)
    {
        Thresholds asked;
        int rest = mixture;
        for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
        {
            if (i == ZORV_CLASS_SYSCALL)
            {
                asked[i] = asked[ZORV_CLASS_IO];
                continue;
            }
            const int setting = rest % settings;
            rest /= settings;
            asked[i] = setting == 0 ? std::optional<uint64_t>() : setting == 1 ? 0 : 1000 + i;
        }
        const std::string text = TraceLines(asked);
        ASSERT_EQ(TracedByTheAgent(text), asked) << text;
        ASSERT_EQ(IsTracing(text), IsAnyClassOn(asked)) << text;
        if (IsAnyClassOn(asked))
        {
            ASSERT_EQ(ThresholdsIn(text), asked) << text;
        }
    }
}

TEST(Configuration, SamplingIsConfiguredAsAsked)
{
    AgentSettings settings = Settings();
    settings.m_thresholds = SameThresholds(std::nullopt);
    settings.m_sampling = {4'000'000, 64, 61, {118, 0x1c2}};
    const std::map<std::string, std::string> expected = {
        {"QELIX_ENABLE_SAMPLING", "1"},
        {"QELIX_CALLSTACK_COLLECTION", "1"},
        {"QELIX_PROFILING_SIGNAL_NUMBER", "61"},
        {"QELIX_CALLSTACK_DEPTH", "64"},
        {"QELIX_TIMER_INTERVAL", "4000000"},
        {"QELIX_PMC_EVENTS", "118,450"},
        {"QELIX_ENCODED_EVENTS", "118,450"},
        {"QELIX_CPU_PROFILE_DIR", "/tmp/my session/sample"},
        {"QELIX_PROFILE_CHILDREN", "1"},
        {"QELIX_LAUNCH_PROCESS_ID", "123"},
        {"QELIX_METADATA_DIR", "/tmp/my session/metadata"},
        {"QELIX_USERMODE_AGENT_PATH", "/opt/lib/agent.so"},
        {"QELIX_SHM_NAME", "/qelix-77"},
    };
    EXPECT_EQ(ReadAsTheAgent(ConfigurationText(settings)), expected);
}

TEST(Configuration, WhatASessionWasRecordedWithIsReadBack)
{
    const TestFolder folder;
    AgentSettings settings = Settings();
    settings.m_sessionPath = folder.m_path;
    settings.m_sampling = {8'000'000, 32, 61, {}};
    WriteConfiguration(settings);
    const RecordedSettings recorded = ReadSettings(folder.m_path);
    EXPECT_EQ(recorded.m_thresholds, SameThresholds(2500));
    EXPECT_EQ(recorded.m_intervalNs, 8'000'000u);
    EXPECT_EQ(recorded.m_depth, 32u);
    folder.Write("agent.conf", std::string("QELIX_TRACE_PTHREAD=0\n"));
    EXPECT_EQ(ReadSettings(folder.m_path).m_thresholds, SameThresholds(std::nullopt));
    EXPECT_EQ(ReadSettings(folder.m_path).m_intervalNs, std::nullopt);
    EXPECT_EQ(ReadSettings(folder.m_path + "/missing").m_thresholds, std::nullopt);
}

// ---- --min -----------------------------------------------------------------------------------------------

TEST(Minimums, TimesAreUnderstoodWithTheirUnits)
{
    EXPECT_EQ(ParseDuration("500ns"), 500u);
    EXPECT_EQ(ParseDuration("10us"), 10'000u);
    EXPECT_EQ(ParseDuration("10µs"), 10'000u);
    EXPECT_EQ(ParseDuration("1ms"), 1'000'000u);
    EXPECT_EQ(ParseDuration("2s"), 2'000'000'000u);
    EXPECT_EQ(ParseDuration("0"), 0u);
    EXPECT_EQ(ParseDuration("750"), 750u);
    for (const char* pText :
         {"", "ms", "-1ms", "1.5ms", "1 ms", "1msx", "99999999999999999999", "18446744073710s"})
    {
        EXPECT_EQ(ParseDuration(pText), std::nullopt) << pText;
    }
}

TEST(Minimums, EachClassIsSetByItsNameAndLaterOnesWin)
{
    const Thresholds thresholds = ApplyMinimums(
        DefaultThresholds(), {"sleep=off", "wait=5us", "io-sync=0", "lock=1ms", "wait=6us", "pthread=500ns"});
    EXPECT_EQ(thresholds[ZORV_CLASS_PTHREAD], 500u);
    EXPECT_EQ(thresholds[ZORV_CLASS_SLEEP], std::nullopt);
    EXPECT_EQ(thresholds[ZORV_CLASS_WAIT], 6000u);
    EXPECT_EQ(thresholds[ZORV_CLASS_LOCK], 1'000'000u);
    EXPECT_EQ(thresholds[ZORV_CLASS_IO_SYNC], 0u);
    EXPECT_EQ(thresholds[ZORV_CLASS_IO], 10'000u);
    EXPECT_EQ(thresholds[ZORV_CLASS_SYSCALL], 10'000u);
    EXPECT_EQ(ApplyMinimums(DefaultThresholds(), {"sleep=0", "all=off"}), SameThresholds(std::nullopt));
}

TEST(Minimums, IoAndSyscallAreOneSettingAndTheOneThatIsNotNamedFollows)
{
    const Thresholds byIo = ApplyMinimums(DefaultThresholds(), {"io=3us"});
    EXPECT_EQ(byIo[ZORV_CLASS_IO], 3000u);
    EXPECT_EQ(byIo[ZORV_CLASS_SYSCALL], 3000u);
    const Thresholds bySyscall = ApplyMinimums(DefaultThresholds(), {"syscall=off"});
    EXPECT_EQ(bySyscall[ZORV_CLASS_IO], std::nullopt);
    EXPECT_NO_THROW(ApplyMinimums(DefaultThresholds(), {"io=3us", "syscall=3us"}));
    EXPECT_NO_THROW(ApplyMinimums(DefaultThresholds(), {"syscall=off", "all=0", "io=1us"}))
        << "all begins anew";
}

TEST(Minimums, WhatCannotBeConfiguredIsRefusedWithTheReason)
{
    for (const auto& [minimums, part] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"io=3us", "syscall=off"}, "one setting for both"},
             {{"syscall=0", "io=1"}, "one setting for both"},
             {{"disk=1us"}, "one of the classes pthread, sleep, wait, lock, io-sync, io, syscall"},
             {{"io"}, "CLASS=TIME"},
             {{"io="}, "nothing is no time"},
             {{"io=fast"}, "fast is no time"},
         })
    {
        try
        {
            ApplyMinimums(DefaultThresholds(), minimums);
            ADD_FAILURE() << part;
        }
        catch (const Failure& failure)
        {
            EXPECT_EQ(StatusOf(failure.m_code), 125);
            EXPECT_NE(std::string(failure.what()).find(part), std::string::npos) << failure.what();
        }
    }
}

// ---- --events --------------------------------------------------------------------------------------------

TEST(Events, NamesBecomeCodesAsTheKernelDescribesThem)
{
    const TestFolder pmu;
    pmu.Write("events/cycles", std::string("event=0x76\n"));
    pmu.Write("events/misses", std::string("event=0x1c2,umask=0x3,edge\n"));
    pmu.Write("events/odd", std::string("event=0x1,ldlat=3\n"));
    pmu.Write("format/event", std::string("config:0-7,32-35\n"));
    pmu.Write("format/umask", std::string("config:8-15\n"));
    pmu.Write("format/edge", std::string("config:18\n"));
    pmu.Write("format/ldlat", std::string("config1:0-15\n"));
    EXPECT_EQ(ParseEvents("cycles,misses,0xff,12", pmu.m_path),
              (std::vector<uint64_t>{0x76, 0x1'0004'03c2, 0xff, 12}));
    for (const char* pList : {"nonsense", "cycles,", "odd", "../format/event"})
    {
        EXPECT_THROW(ParseEvents(pList, pmu.m_path), Failure) << pList;
    }
    std::string many = "1";
    for (int i = 0; i < 64; ++i)
    {
        many += ",1";
    }
    EXPECT_THROW(ParseEvents(many, pmu.m_path), Failure);
}
