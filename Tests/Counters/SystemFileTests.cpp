// What the agent reads of the system, once a process.
#include "CounterSupport.h"

#include <cstring>

using namespace agent;

namespace
{

using Files = std::map<std::string, std::string>;

// A thread with records, in a process that has read nothing yet but the watchdog's state.
struct FreshSystem
{
    explicit FreshSystem(const Files& files)
    {
        m_files.m_files = files;
        EXPECT_EQ(ZorvAllocateProcessInfo(), 0);
        EXPECT_EQ(ZorvInitializePcmAgent(), 0);
        m_files.m_opened.clear();
    }

    uint32_t Type() const
    {
        return Field<uint32_t>(0);
    }

    uint64_t Config() const
    {
        return Field<uint64_t>(8);
    }

    FakeFiles m_files;
    FakeCounters m_counters;

private:
    template <class T> T Field(size_t offset) const
    {
        T value;
        memcpy(&value, &m_counters.m_opened.back().m_attributes[offset], sizeof value);
        return value;
    }
};

class SystemFiles : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(LoadAgent(AgentStart::WITHOUT_SESSION));
    }
};

const std::string TSC_FILE = std::string(MSR_EVENTS_DIR) + "tsc";

uint32_t CoreTypeOf(const std::string& content)
{
    FreshSystem system(Files{{CPU_TYPE_FILE, content}});
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, {1}), 0);
    return system.Type();
}

uint64_t TscConfigOf(const std::string& content)
{
    FreshSystem system(Files{{MSR_TYPE_FILE, "9\n"}, {TSC_FILE, content}});
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), 0);
    EXPECT_EQ(system.Type(), 9u);
    return system.Config();
}

// ---- type numbers ----------------------------------------------------------------------------------------

TEST_F(SystemFiles, ATypeNumberOfOneDigit)
{
    InOwnProcess([] { EXPECT_EQ(CoreTypeOf("4\n"), 4u); });
}

TEST_F(SystemFiles, ATypeNumberOfTwoDigits)
{
    InOwnProcess([] { EXPECT_EQ(CoreTypeOf("14\n"), 14u); });
}

TEST_F(SystemFiles, ATypeNumberOfThreeDigitsIsCut)
{
    InOwnProcess([] { EXPECT_EQ(CoreTypeOf("143\n"), 14u); });
}

TEST_F(SystemFiles, ATypeFileThatIsMissingOrEmptyGivesMinusOne)
{
    InOwnProcess(
        []
        {
            FreshSystem system(Files{});
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, {1}), 0);
            EXPECT_EQ(system.Type(), 0xFFFFFFFFu);
        });
    InOwnProcess([] { EXPECT_EQ(CoreTypeOf(""), 0xFFFFFFFFu); });
}

TEST_F(SystemFiles, AMissingMsrTypeGivesMinusOneToo)
{
    InOwnProcess(
        []
        {
            FreshSystem system(Files{{TSC_FILE, "event=0x00\n"}});
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), 0);
            EXPECT_EQ(system.Type(), 0xFFFFFFFFu);
        });
}

TEST_F(SystemFiles, AreReadOnceAProcess)
{
    InOwnProcess(
        []
        {
            FreshSystem system(
                Files{{CPU_TYPE_FILE, "4\n"}, {MSR_TYPE_FILE, "9\n"}, {TSC_FILE, "event=0x00\n"}});
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(2)), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00, 0xFF00}), 0);
            EXPECT_EQ(system.m_files.m_opened, (Strings{CPU_TYPE_FILE, TSC_FILE, MSR_TYPE_FILE}));
            EXPECT_EQ(ZorvFiniPcmAgent(), 0);

            system.m_files.m_files[CPU_TYPE_FILE] = "5\n";
            ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
            EXPECT_EQ(system.Type(), 4u) << "kept for the life of the process";
        });
}

TEST_F(SystemFiles, AreNotReadBeforeTheyAreNeeded)
{
    InOwnProcess(
        []
        {
            FreshSystem system(Files{});
            EXPECT_TRUE(system.m_files.m_opened.empty());
        });
}

// Nothing here replaces the kernel: it knows no such type.
TEST_F(SystemFiles, AnUnknownTypeIsTheKernelsToRefuse)
{
    InOwnProcess(
        []
        {
            FakeFiles none;
            ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, {1}), -1);
            EXPECT_EQ(ErrorText(), Format("configureCpuPmcEvent failed : %s.", strerror(ZorvGetErrorNum())));
            EXPECT_GT(ZorvGetErrorNum(), 0);
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), -1);
            EXPECT_EQ(ErrorText().rfind("configureMsrPmcEvent failed : ", 0), 0u);
        });
}

// ---- pseudo-events ---------------------------------------------------------------------------------------

TEST_F(SystemFiles, AnEventIsFourHexadecimalCharactersBehindItsName)
{
    InOwnProcess([] { EXPECT_EQ(TscConfigOf("event=0x00\n"), 0u); });
    InOwnProcess([] { EXPECT_EQ(TscConfigOf("event=0x3f\n"), 0x3Fu); });
    InOwnProcess([] { EXPECT_EQ(TscConfigOf("event=0x123\n"), 0x12u) << "two digits behind the 0x"; });
    InOwnProcess([] { EXPECT_EQ(TscConfigOf("event=0xa\n"), 0xAu); });
    InOwnProcess([] { EXPECT_EQ(TscConfigOf("event=0x21,umask=0x1\n"), 0x21u) << "sixteen bytes are read"; });
}

TEST_F(SystemFiles, AnEventFileThatIsMissingOrEmptyGivesMinusOne)
{
    InOwnProcess([] { EXPECT_EQ(TscConfigOf(""), ~uint64_t{0}); });
    InOwnProcess(
        []
        {
            FreshSystem system(Files{{MSR_TYPE_FILE, "9\n"}});
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF02}), 0);
            EXPECT_EQ(system.Config(), ~uint64_t{0});
            EXPECT_EQ(system.m_files.m_opened.front(), std::string(MSR_EVENTS_DIR) + "aperf");
        });
}

TEST_F(SystemFiles, EachEventHasAFileOfItsOwn)
{
    InOwnProcess(
        []
        {
            FreshSystem system(Files{});
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00, 0xFF01, 0xFF02, 0xFF03}), 0);
            Strings events;
            for (const std::string& path : system.m_files.m_opened)
            {
                if (path.rfind(MSR_EVENTS_DIR, 0) == 0)
                {
                    events.push_back(path.substr(strlen(MSR_EVENTS_DIR)));
                }
            }
            EXPECT_EQ(events, (Strings{"tsc", "irperf", "aperf", "mperf"}));
        });
}

} // namespace
