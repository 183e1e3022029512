// The configuration file, read by a process initialisation that ends behind it: no shared-memory name, no
// agent.
#include "Support.h"

#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::Replace;

namespace
{

class Configuration : public AgentTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        std::filesystem::create_directory(m_directory / ".log");
        std::filesystem::create_directory(m_directory / ".error");
        setenv("QELIX_SESSION_DIR", m_directory.Path().c_str(), 1);
        setenv("QELIX_UMA_CONFIG_FILE", (m_directory / "configuration").c_str(), 1);
        m_pInfo->m_logFd = -1;
        m_pThread = ZorvUmaAllocateThreadInfo(m_pInfo);
    }

    void TearDown() override
    {
        unsetenv("QELIX_SESSION_DIR");
        unsetenv("QELIX_UMA_CONFIG_FILE");
        ZorvUmaFreeThreadInfo();
        AgentTest::TearDown();
    }

    // Initialises with this file; the name of the controller's block is refused, whatever the file says.
    void Read(const std::string& text)
    {
        std::ofstream(m_directory / "configuration", std::ios::binary) << text;
        Replace block("ZorvUmaInitSharedMemory", Fails(0));
        EXPECT_FALSE(ZorvUmaInitProcess(m_pInfo));
        EXPECT_EQ(block.Calls(), m_isReadable ? 1 : 0);
    }

    Strings SessionLog()
    {
        return LogMessages(m_pInfo->m_logFd < 0 ? -1 : OpenLog());
    }

    int OpenLog()
    {
        return open(Format("/proc/self/fd/%d", m_pInfo->m_logFd).c_str(), O_RDONLY);
    }

    const ZorvUmtEvent& Event(int event)
    {
        return m_pInfo->m_umtConfig.m_umtEventList[event];
    }

    // The events that are enabled, as digits.
    std::string Enabled()
    {
        std::string digits;
        for (int event = 0; event < ZORV_UMT_EVENT_MAX; event++)
        {
            digits += Event(event).m_enable ? std::to_string(event) : "";
        }
        return digits;
    }

    TemporaryDirectory m_directory;
    ZorvUmaPerThreadInfo* m_pThread = nullptr;
    bool m_isReadable = true;
};

// ---- events and the choice of the key --------------------------------------------------------------------

TEST_F(Configuration, PthreadEventWithThresholdAndCallStacks)
{
    Read("QELIX_TRACE_PTHREAD=1:500:1\n");
    EXPECT_TRUE(Event(ZORV_UMT_EVENT_PTHREAD).m_enable);
    EXPECT_EQ(Event(ZORV_UMT_EVENT_PTHREAD).m_threshold, 500u);
    EXPECT_TRUE(Event(ZORV_UMT_EVENT_PTHREAD).m_callstack);
    EXPECT_TRUE(m_pInfo->m_umtConfig.m_enable);
}

TEST_F(Configuration, ADisabledEventStillTurnsTheTraceStreamOn)
{
    Read("QELIX_TRACE_PTHREAD=0\n");
    EXPECT_FALSE(Event(ZORV_UMT_EVENT_PTHREAD).m_enable);
    EXPECT_TRUE(m_pInfo->m_umtConfig.m_enable);
}

TEST_F(Configuration, TraceIoReachesIoSyncOnlyAndLeavesIoAsItWas)
{
    Read("QELIX_TRACE_IO=1:0:0\n");
    EXPECT_EQ(Enabled(), "4");
}

TEST_F(Configuration, TraceWaitConfiguresSleepWaitLockAndIoSyncAlike)
{
    Read("QELIX_TRACE_WAIT=1:9:1\n");
    EXPECT_EQ(Enabled(), "1234");
    for (const int event :
         {ZORV_UMT_EVENT_SLEEP, ZORV_UMT_EVENT_WAIT, ZORV_UMT_EVENT_LOCK, ZORV_UMT_EVENT_IO_SYNC})
    {
        EXPECT_EQ(Event(event).m_threshold, 9u);
        EXPECT_TRUE(Event(event).m_callstack);
    }
}

TEST_F(Configuration, APrefixSelectsTheFirstNameThatBeginsWithIt)
{
    Read("QELIX_TRACE=1\n");
    EXPECT_EQ(Enabled(), "0");
}

struct EventKey
{
    const char* m_pKey;
    const char* m_pEnabled;
};

class ConfigurationEvent : public Configuration, public testing::WithParamInterface<EventKey>
{
};

TEST_P(ConfigurationEvent, ReachesItsEvents)
{
    Read(std::string(GetParam().m_pKey) + "=1:77:1\n");
    EXPECT_EQ(Enabled(), GetParam().m_pEnabled);
    for (int event = 0; event < ZORV_UMT_EVENT_MAX; event++)
    {
        EXPECT_EQ(Event(event).m_threshold, Event(event).m_enable ? 77u : 0u);
        EXPECT_EQ(Event(event).m_callstack, Event(event).m_enable);
    }
}

const EventKey g_eventKeys[] = {
    {"QELIX_TRACE_PTHREAD", "0"},
    {"QELIX_TRACE_SYSCALL", "123456"},
    {"QELIX_TRACE_WAIT_SLEEP_STATE_SYSCALL", "1234"},
    {"QELIX_TRACE_SLEEP", "1"},
    {"QELIX_TRACE_LOCK", "3"},
    {"QELIX_TRACE_IO_SYNC", "4"},
    {"QELIX_TRACE_S", "123456"}, // the first name with it is ..._SYSCALL
    {"QELIX_TRACE_SL", "1"},
    {"QELIX_TRACE_W", "1234"},
    {"QELIX_TRACE_I", "4"},
    {"Q", "0"},
    {"QELIX_TRACE_PTHREADS", ""}, // longer than the name: no name begins with it
    {"qelix_trace_pthread", ""},
    {" QELIX_TRACE_PTHREAD", ""}, // nothing is trimmed
    {"QELIX_TRACE_PTHREAD ", ""},
};

INSTANTIATE_TEST_SUITE_P(Table, ConfigurationEvent, testing::ValuesIn(g_eventKeys));

// ---- single values ---------------------------------------------------------------------------------------

TEST_F(Configuration, WithoutKeysEverythingIsOff)
{
    Read("");
    EXPECT_TRUE(m_pInfo->m_umaConfig.m_profileChildren);
    ZorvUmaConfig general;
    memset(static_cast<void*>(&general), 0, sizeof general);
    general.m_profileChildren = true;
    EXPECT_EQ(memcmp(&m_pInfo->m_umaConfig, &general, sizeof general), 0);
    EXPECT_TRUE(IsAllZero(reinterpret_cast<char*>(&m_pInfo->m_umsConfig), sizeof m_pInfo->m_umsConfig));
    EXPECT_TRUE(IsAllZero(reinterpret_cast<char*>(&m_pInfo->m_umtConfig), sizeof m_pInfo->m_umtConfig));
}

TEST_F(Configuration, Flags)
{
    Read("QELIX_ENABLE_SAMPLING=1\nQELIX_PROFILE_CHILDREN=0\n");
    EXPECT_TRUE(m_pInfo->m_umsConfig.m_enable);
    EXPECT_FALSE(m_pInfo->m_umaConfig.m_profileChildren);
    EXPECT_FALSE(m_pInfo->m_umtConfig.m_enable);
}

TEST_F(Configuration, AFlagIsTrueExactlyWhenItBeginsWithOne)
{
    Read("QELIX_PROFILE_CHILDREN=true\n");
    EXPECT_FALSE(m_pInfo->m_umaConfig.m_profileChildren);
    Read("QELIX_PROFILE_CHILDREN=12\n");
    EXPECT_TRUE(m_pInfo->m_umaConfig.m_profileChildren);
}

TEST_F(Configuration, CallStackCollectionSetsItsFlagBit)
{
    Read("QELIX_CALLSTACK_COLLECTION=0\n");
    EXPECT_FALSE(m_pInfo->m_umsConfig.m_collectCallStack);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_configFlags, 0);
    Read("QELIX_CALLSTACK_COLLECTION=1\n");
    EXPECT_TRUE(m_pInfo->m_umsConfig.m_collectCallStack);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_configFlags, ZORV_UMS_CS);
}

TEST_F(Configuration, Numbers)
{
    Read("QELIX_PROFILING_SIGNAL_NUMBER=27\nQELIX_CALLSTACK_DEPTH=32\nQELIX_TIMER_INTERVAL="
         "18446744073709551615\n"
         "QELIX_LAUNCH_PROCESS_ID=4242\nQELIX_MPI_RANK_ID=-3\n");
    EXPECT_EQ(m_pInfo->m_umsConfig.m_timerSignalNum, 27);
    EXPECT_EQ(m_pInfo->m_umaConfig.m_callStackDepth, 32u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_timerInterval, ULLONG_MAX);
    EXPECT_EQ(m_pInfo->m_umaConfig.m_launchPid, 4242);
    EXPECT_EQ(m_pInfo->m_umaConfig.m_mpiRankId, -3);
}

TEST_F(Configuration, NumbersAreCutToTheirField)
{
    Read("QELIX_PROFILING_SIGNAL_NUMBER=258\nQELIX_MPI_RANK_ID=65537\n");
    EXPECT_EQ(m_pInfo->m_umsConfig.m_timerSignalNum, 2);
    EXPECT_EQ(m_pInfo->m_umaConfig.m_mpiRankId, 1);
}

TEST_F(Configuration, NumbersEndAtTheFirstOtherCharacter)
{
    Read("QELIX_CALLSTACK_DEPTH=12x\nQELIX_TIMER_INTERVAL=abc\n");
    EXPECT_EQ(m_pInfo->m_umaConfig.m_callStackDepth, 12u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_timerInterval, 0u);
}

TEST_F(Configuration, AListOfEventsIsStoredAndCounted)
{
    Read("QELIX_PMC_EVENTS=3,18446744073709551615,5\nQELIX_ENCODED_EVENTS=9,8\n");
    const ZorvUmsConfig& sampling = m_pInfo->m_umsConfig;
    EXPECT_EQ(sampling.m_nbrEvents, 3u);
    EXPECT_EQ(sampling.m_pmcEvents[0], 3u);
    EXPECT_EQ(sampling.m_pmcEvents[1], ULLONG_MAX);
    EXPECT_EQ(sampling.m_pmcEvents[2], 5u);
    EXPECT_EQ(sampling.m_pmcEvents[3], 0u);
    EXPECT_EQ(sampling.m_encodedEvents[0], 9u);
    EXPECT_EQ(sampling.m_encodedEvents[1], 8u);
    EXPECT_EQ(sampling.m_configFlags, ZORV_UMS_PMC);
}

TEST_F(Configuration, SixtyFourEventsFit)
{
    std::string list = "1";
    for (int i = 2; i <= 64; i++)
    {
        list += "," + std::to_string(i);
    }
    Read("QELIX_PMC_EVENTS=" + list + "\nQELIX_ENCODED_EVENTS=" + list + "\n");
    EXPECT_EQ(m_pInfo->m_umsConfig.m_nbrEvents, 64u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_pmcEvents[63], 64u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_encodedEvents[63], 64u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_recLength, 0u);
}

TEST_F(Configuration, ALaterListReplacesAnEarlierOne)
{
    Read("QELIX_PMC_EVENTS=1,2,3\nQELIX_ENCODED_EVENTS=1,2,3\nQELIX_PMC_EVENTS=4\nQELIX_ENCODED_EVENTS=5\n");
    EXPECT_EQ(m_pInfo->m_umsConfig.m_nbrEvents, 1u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_pmcEvents[0], 4u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_pmcEvents[1], 0u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_encodedEvents[0], 5u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_encodedEvents[2], 0u);
}

TEST_F(Configuration, AnEmptyListWithoutANewlineIsSkipped)
{
    Read("QELIX_CALLSTACK_DEPTH=5\nQELIX_PMC_EVENTS=");
    EXPECT_EQ(m_pInfo->m_umsConfig.m_nbrEvents, 0u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_configFlags, 0);
    EXPECT_EQ(m_pInfo->m_umaConfig.m_callStackDepth, 5u);
}

TEST_F(Configuration, AnEmptyListWithANewlineIsOneEventOfCodeZero)
{
    Read("QELIX_PMC_EVENTS=\n");
    EXPECT_EQ(m_pInfo->m_umsConfig.m_nbrEvents, 1u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_pmcEvents[0], 0u);
    EXPECT_EQ(m_pInfo->m_umsConfig.m_configFlags, ZORV_UMS_PMC);
}

TEST_F(Configuration, PathsLoseTheirNewline)
{
    Read("QELIX_OPENMP_AGENT_PATH=/o\nQELIX_PYTHON_AGENT_SCRIPT_PATH=/ps\nQELIX_PYTHON_AGENT_LIB_PATH=/pl\n"
         "QELIX_PYTHON_TRACE_TYPE=all \nQELIX_USERMODE_AGENT_PATH=/u\nQELIX_SHM_NAME=/s");
    const ZorvUmaConfig& general = m_pInfo->m_umaConfig;
    EXPECT_STREQ(general.m_pOpenMPAgentPath, "/o");
    EXPECT_STREQ(general.m_pPyAgentScriptPath, "/ps");
    EXPECT_STREQ(general.m_pPyAgentLibPath, "/pl");
    EXPECT_STREQ(general.m_pPythonTraceType, "all ");
    EXPECT_STREQ(general.m_pUserModeAgentPath, "/u");
    EXPECT_STREQ(general.m_shmName, "/s");
}

TEST_F(Configuration, SharedMemoryNameEndingInANewline)
{
    Read("QELIX_SHM_NAME=/s\n");
    EXPECT_STREQ(m_pInfo->m_umaConfig.m_shmName, "/s");
}

TEST_F(Configuration, AValueEndsAtTheNextEqualsSign)
{
    Read("QELIX_SHM_NAME=/a=b\n");
    EXPECT_STREQ(m_pInfo->m_umaConfig.m_shmName, "/a");
}

TEST_F(Configuration, LinesWithoutKeyOrValueAreSkipped)
{
    Read("\n=\n==5\nQELIX_CALLSTACK_DEPTH\nunknown=1\nQELIX_CALLSTACK_DEPTH=6\n");
    EXPECT_EQ(m_pInfo->m_umaConfig.m_callStackDepth, 6u);
}

TEST_F(Configuration, TheLaterOfTwoValuesWins)
{
    Read("QELIX_SHM_NAME=/first\nQELIX_CALLSTACK_DEPTH=1\nQELIX_SHM_NAME=/second\nQELIX_CALLSTACK_DEPTH=2\n");
    EXPECT_STREQ(m_pInfo->m_umaConfig.m_shmName, "/second");
    EXPECT_EQ(m_pInfo->m_umaConfig.m_callStackDepth, 2u);
}

// A line holds 5,119 characters; what follows is read as a line of its own.
TEST_F(Configuration, ALongerLineIsReadAsSeveral)
{
    const std::string key = "QELIX_OPENMP_AGENT_PATH=";
    const std::string value(5119 - key.size(), 'p');
    Read(key + value + "QELIX_SHM_NAME=/tail\n");
    EXPECT_EQ(std::string(m_pInfo->m_umaConfig.m_pOpenMPAgentPath), value);
    EXPECT_STREQ(m_pInfo->m_umaConfig.m_shmName, "/tail");
}

// ---- keys that open files --------------------------------------------------------------------------------

TEST_F(Configuration, DirectoriesOpenTheirFilesAtOnce)
{
    const std::string path = m_directory.Path();
    Read("QELIX_UMT_DIR=" + path + "\nQELIX_CPU_PROFILE_DIR=" + path + "\nQELIX_METADATA_DIR=" + path + "\n");
    const std::string tail = "_" + HostName() + "_" + std::to_string(getpid());
    EXPECT_TRUE(std::filesystem::exists(m_directory / ("trace" + tail + ".umt")));
    EXPECT_TRUE(std::filesystem::exists(m_directory / ("profile" + tail + ".ums")));
    EXPECT_TRUE(std::filesystem::exists(m_directory / ("metadata" + tail + ".meta")));
    EXPECT_GE(m_pInfo->m_umtData.m_fd, 0);
    EXPECT_GE(m_pInfo->m_umsData.m_fd, 0);
    EXPECT_GE(m_pInfo->m_metaDataFd, 0);
    EXPECT_EQ(std::string(m_pInfo->m_umaConfig.m_pCpuProfilingDir), path);
    EXPECT_EQ(std::string(m_pInfo->m_umaConfig.m_pMetadataDir), path);
    // the directory alone does not enable a stream
    EXPECT_FALSE(m_pInfo->m_umtConfig.m_enable || m_pInfo->m_umsConfig.m_enable);
    EXPECT_EQ(BuffersOf(m_pInfo->m_umtData).size(), static_cast<size_t>(BUFFERS_A_STREAM));
    EXPECT_EQ(BuffersOf(m_pInfo->m_umsData).size(), static_cast<size_t>(BUFFERS_A_STREAM));
}

TEST_F(Configuration, ADirectoryThatFailsEndsTheReading)
{
    for (const char* pKey : {"QELIX_UMT_DIR", "QELIX_CPU_PROFILE_DIR", "QELIX_METADATA_DIR"})
    {
        m_isReadable = false;
        m_pInfo->m_umaConfig.m_callStackDepth = 0;
        Read(std::string(pKey) + "=" + (m_directory / "missing") + "\nQELIX_CALLSTACK_DEPTH=5\n");
        EXPECT_EQ(m_pInfo->m_umaConfig.m_callStackDepth, 0u) << pKey;
        const Strings log = SessionLog();
        ASSERT_GE(log.size(), 2u);
        EXPECT_EQ(log.back(), Format("ERROR Failed to read config file in process (%d)", getpid())) << pKey;
    }
    EXPECT_EQ(m_pInfo->m_umaConfig.m_pCpuProfilingDir, nullptr);
    EXPECT_EQ(m_pInfo->m_umaConfig.m_pMetadataDir, nullptr);
}

// ---- a file that cannot be read --------------------------------------------------------------------------

TEST_F(Configuration, WithoutTheVariableTheLogSaysSo)
{
    unsetenv("QELIX_UMA_CONFIG_FILE");
    m_isReadable = false;
    Read("");
    EXPECT_EQ(SessionLog(), (Strings{"ERROR Failed to read QELIX_UMA_CONFIG_FILE env variable.",
                                     Format("ERROR Failed to read config file in process (%d)", getpid())}));
}

TEST_F(Configuration, AFileThatCannotBeOpenedIsLogged)
{
    setenv("QELIX_UMA_CONFIG_FILE", (m_directory / "missing").c_str(), 1);
    m_isReadable = false;
    Read("");
    EXPECT_EQ(SessionLog(), (Strings{"ERROR Failed to open config file.",
                                     Format("ERROR Failed to read config file in process (%d)", getpid())}));
}

TEST_F(Configuration, WithoutMemoryForTheLineItIsLogged)
{
    faults::NoMemory noMemory(5120, 5121);
    m_isReadable = false;
    Read("QELIX_CALLSTACK_DEPTH=5\n");
    EXPECT_EQ(noMemory.Refused(), 1);
    EXPECT_EQ(SessionLog(), (Strings{"ERROR Failed to allocate memory to hold ket and values from config file.",
                                     Format("ERROR Failed to read config file in process (%d)", getpid())}));
}

TEST_F(Configuration, CallStackBuffersAreTheReadersResult)
{
    Replace buffers("ZorvUmaAllocateCsBuf", Fails(0));
    m_isReadable = false;
    Read("QELIX_CALLSTACK_DEPTH=5\n");
    EXPECT_EQ(buffers.Calls(), 1);
    EXPECT_EQ(SessionLog(), Strings{Format("ERROR Failed to read config file in process (%d)", getpid())});
}

TEST_F(Configuration, WithoutASessionDirectoryNothingIsLoggedAndInitialisationFails)
{
    unsetenv("QELIX_SESSION_DIR");
    m_isReadable = false;
    StandardError standardError;
    Read("");
    EXPECT_EQ(standardError.Take(), Format("Failed to open log and error file in process (%d).\n", getpid()));
    EXPECT_LT(m_pInfo->m_logFd, 0);
}

} // namespace
