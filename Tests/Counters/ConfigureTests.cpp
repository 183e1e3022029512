// What is opened for a list of events: attributes, groups, and what can go wrong.
#include "CounterSupport.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

class Configuring : public CounterTest
{
protected:
    // A new process record, made while the file says this; null: there is no such file.
    void RestartWithWatchdog(const char* pContent)
    {
        ZorvFiniPcmAgent();
        if (pContent != nullptr)
        {
            m_files.m_files[WATCHDOG_FILE] = pContent;
        }
        ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
        ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    }
};

// ---- attributes, byte by byte ----------------------------------------------------------------------------

std::vector<uint8_t> Bytes(uint32_t type, uint32_t size, uint64_t config, uint64_t sampleType,
                           uint64_t readFormat, uint64_t bits)
{
    std::vector<uint8_t> bytes(112);
    const auto put = [&](size_t offset, auto value) { memcpy(&bytes[offset], &value, sizeof value); };
    put(0, type);
    put(4, size);
    put(8, config);
    put(24, sampleType);
    put(32, readFormat);
    put(40, bits);
    return bytes;
}

constexpr uint64_t DISABLED_NO_HV_NO_IDLE = 0xC1; // bits 0, 6 and 7

TEST_F(Configuring, CoreCounterAttributes)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {0x123456789ABCDEF0}), 0);
    ASSERT_EQ(m_counters.m_opened.size(), 1u);
    EXPECT_EQ(m_counters.m_opened[0].m_attributes,
              Bytes(CPU_TYPE, 0, 0x123456789ABCDEF0, 0, 15, DISABLED_NO_HV_NO_IDLE));
}

TEST_F(Configuring, MsrCounterAttributes)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00, 0xFF01, 0xFF02, 0xFF03}), 0);
    const uint64_t configs[] = {0x00, 0x05, 0x01, 0x2A};
    ASSERT_EQ(m_counters.m_opened.size(), 4u);
    for (int i = 0; i < 4; i++)
    {
        EXPECT_EQ(m_counters.m_opened[i].m_attributes, Bytes(MSR_TYPE, 112, configs[i], 0x10000, 15, 0)) << i;
    }
}

TEST_F(Configuring, BothKindsAreOpenedForThisThreadOnAnyCpuAndClosedOnExec)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(2)), 0);
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00, 0xFF01}), 0);
    ASSERT_EQ(m_counters.m_opened.size(), 4u);
    for (const OpenedCounter& opened : m_counters.m_opened)
    {
        EXPECT_EQ(opened.m_pid, 0);
        EXPECT_EQ(opened.m_cpu, -1);
        EXPECT_EQ(opened.m_flags, 8u);
    }
}

// ---- groups ----------------------------------------------------------------------------------------------

using Sizes = std::vector<size_t>;

TEST_F(Configuring, EightCoreEventsMakeGroupsOfSixAndTwo)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
    EXPECT_EQ(m_counters.GroupSizes(), (Sizes{6, 2}));
}

TEST_F(Configuring, SixCoreEventsMakeOneGroup)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(6)), 0);
    EXPECT_EQ(m_counters.GroupSizes(), Sizes{6});
}

TEST_F(Configuring, NmiWatchdogOnMakesCoreGroupsOfFive)
{
    ASSERT_NO_FATAL_FAILURE(RestartWithWatchdog("1\n"));
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
    EXPECT_EQ(m_counters.GroupSizes(), (Sizes{5, 3}));
}

TEST_F(Configuring, NmiWatchdogOffMakesCoreGroupsOfSix)
{
    ASSERT_NO_FATAL_FAILURE(RestartWithWatchdog("0\n"));
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(7)), 0);
    EXPECT_EQ(m_counters.GroupSizes(), (Sizes{6, 1}));
}

TEST_F(Configuring, NmiWatchdogFileMissingMakesCoreGroupsOfSix)
{
    ASSERT_NO_FATAL_FAILURE(RestartWithWatchdog(nullptr));
    EXPECT_EQ(m_files.m_opened.back(), WATCHDOG_FILE);
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(7)), 0);
    EXPECT_EQ(m_counters.GroupSizes(), (Sizes{6, 1}));
}

TEST_F(Configuring, NmiWatchdogFileEmptyMakesCoreGroupsOfSix)
{
    ASSERT_NO_FATAL_FAILURE(RestartWithWatchdog(""));
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(7)), 0);
    EXPECT_EQ(m_counters.GroupSizes(), (Sizes{6, 1}));
}

TEST_F(Configuring, NmiWatchdogIsOneByteOfItsFile)
{
    ASSERT_NO_FATAL_FAILURE(RestartWithWatchdog("10\n"));
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(6)), 0);
    EXPECT_EQ(m_counters.GroupSizes(), (Sizes{5, 1}));
}

TEST_F(Configuring, FourMsrEventsMakeOneGroup)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF03, 0xFF02, 0xFF01, 0xFF00}), 0);
    EXPECT_EQ(m_counters.GroupSizes(), Sizes{4});
}

TEST_F(Configuring, SixtyFourCoreEventsAreAccepted)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(64)), 0);
    EXPECT_EQ(m_counters.GroupSizes(), (Sizes{6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 4}));
}

// ---- refusals --------------------------------------------------------------------------------------------

TEST_F(Configuring, SixtyFiveCoreEventsAreInvalid)
{
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(65)), -1);
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
    EXPECT_TRUE(m_counters.m_opened.empty());
}

TEST_F(Configuring, FiveMsrEventsAreInvalid)
{
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_PERF, Events(5)), -1);
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
}

TEST_F(Configuring, NoListIsInvalid)
{
    EXPECT_EQ(ZorvConfigurePerfEvent(ZORV_PMC_TYPE_CORE, 0, nullptr), -1);
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
}

TEST_F(Configuring, AnotherTypeIsInvalid)
{
    EXPECT_EQ(Configure(2, Events(1)), -1);
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
}

TEST_F(Configuring, AnEmptyListConfiguresNothing)
{
    PmcData data[1];
    const uint64_t event = 1;
    EXPECT_EQ(ZorvConfigurePerfEvent(ZORV_PMC_TYPE_CORE, 0, &event), 0);
    EXPECT_EQ(ErrorText(), "");
    EXPECT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), -1);
    EXPECT_EQ(ErrorText(), "PMC data collection was not configured.");
}

TEST_F(Configuring, UnknownPseudoEventFails)
{
    for (const uint64_t event : {uint64_t{0xFF04}, uint64_t{0xFEFF}, uint64_t{0}, ~uint64_t{0}})
    {
        EXPECT_EQ(Configure(ZORV_PMC_TYPE_PERF, {event}), -1) << event;
    }
    EXPECT_TRUE(m_counters.m_opened.empty());
    EXPECT_EQ(ErrorText(), "");
}

TEST_F(Configuring, WithoutThreadRecordFailsWithoutText)
{
    OnAnotherThread(
        []
        {
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), -1);
            EXPECT_EQ(ErrorText(), "NO ERROR");
        });
}

TEST_F(Configuring, WithoutProcessRecordFailsWithoutText)
{
    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(65)), -1);
    EXPECT_EQ(ErrorText(), "");
}

TEST_F(Configuring, BeforeInitialisationFails)
{
    OnAnotherThread(
        []
        {
            faults::NoMemory noCoreArrays(64 * sizeof(int), 64 * sizeof(int) + 1);
            ASSERT_EQ(ZorvInitializePcmAgent(), -1);
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), -1);
            EXPECT_EQ(ErrorText(), "PMC data collection was not initialized.");
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(65)), -1);
            EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
            ZorvFiniPcmAgent();
        });
}

TEST_F(Configuring, ASecondListGoesOnBehindTheFirst)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(60)), 0);
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(5)), -1) << "one more than there is room for";
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(4)), 0);
    EXPECT_EQ(m_counters.m_opened.size(), 64u);
    EXPECT_EQ(m_counters.GroupSizes().back(), 4u);
}

// ---- failing opens ---------------------------------------------------------------------------------------

TEST_F(Configuring, AFailedCoreOpenLeavesTextAndNumber)
{
    m_counters.m_openResults = {-ENOENT};
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), -1);
    EXPECT_EQ(ErrorText(), "configureCpuPmcEvent failed : No such file or directory.");
    EXPECT_EQ(ZorvGetErrorNum(), ENOENT);
    EXPECT_EQ(m_counters.m_opened.size(), 1u) << "one attempt";
}

TEST_F(Configuring, CountersOpenedBeforeAFailureStayOpenAndRecorded)
{
    const int first = dup(STDERR_FILENO);
    m_counters.m_openResults = {first, -EINVAL};
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(3)), -1);
    EXPECT_EQ(ErrorText(), "configureCpuPmcEvent failed : Invalid argument.");
    EXPECT_TRUE(IsOpen(first));

    EXPECT_EQ(ZorvStartPerfEventAllThreads(), 0);
    EXPECT_EQ(m_counters.m_switched, (std::vector<Switched>{{first, ENABLE, 1}}));
    PmcData data[3];
    EXPECT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), -1);
    EXPECT_EQ(ErrorText(), "PMC data collection was not configured.");
    EXPECT_EQ(ZorvFiniPcmAgent(), 0);
    EXPECT_FALSE(IsOpen(first));
}

TEST_F(Configuring, DescriptorZeroIsACoreCounter)
{
    m_counters.m_openResults = {0};
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(2)), 0);
    EXPECT_EQ(m_counters.m_opened[1].m_group, 0);
    std::vector<int> closed;
    Replace close("ZorvUmaClose",
                  [&](const Call& call)
                  {
                      closed.push_back(call.Arg<int>(0));
                      return 0;
                  });
    ZorvFiniPcmAgent();
    EXPECT_EQ(closed, m_counters.Fds());
    ::close(m_counters.Fds()[1]);
}

struct MsrAttempts
{
    const char* m_pName;
    std::deque<int> m_results;
    std::vector<unsigned long> m_flags; // of the attempts
    bool m_isOpened;
};

void PrintTo(const MsrAttempts& attempts, std::ostream* pOut)
{
    *pOut << attempts.m_pName;
}

class MsrOpen : public Configuring, public testing::WithParamInterface<MsrAttempts>
{
};

TEST_P(MsrOpen, MakesTwoAttempts)
{
    const MsrAttempts& expected = GetParam();
    m_counters.m_openResults = expected.m_results;
    std::vector<int> closed;
    Replace close("ZorvUmaClose",
                  [&](const Call& call)
                  {
                      closed.push_back(call.Arg<int>(0));
                      return 0;
                  });
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), expected.m_isOpened ? 0 : -1);
    std::vector<unsigned long> flags;
    for (const OpenedCounter& opened : m_counters.m_opened)
    {
        flags.push_back(opened.m_flags);
        EXPECT_EQ(opened.m_attributes, m_counters.m_opened[0].m_attributes);
        EXPECT_EQ(opened.m_group, -1);
    }
    EXPECT_EQ(flags, expected.m_flags);
    EXPECT_EQ(ErrorText(), expected.m_isOpened ? "" : "configureMsrPmcEvent failed : Permission denied.");
    EXPECT_EQ(ZorvGetErrorNum(), 0);

    closed.clear(); // files that were read
    ZorvFiniPcmAgent();
    EXPECT_EQ(closed, expected.m_isOpened ? std::vector<int>{expected.m_results.back()} : std::vector<int>{})
        << "a descriptor 0 of the first attempt is not closed";
}

INSTANTIATE_TEST_SUITE_P(
    Counters, MsrOpen,
    testing::Values(MsrAttempts{"TakesAPositiveDescriptorAtOnce", {900}, {8}, true},
                    MsrAttempts{"DropsTheFlagAfterAFailure", {-EINVAL, 901}, {8, 0}, true},
                    MsrAttempts{"TakesDescriptorZeroForAFailedFirstAttempt", {0, 902}, {8, 8}, true},
                    MsrAttempts{"TakesDescriptorZeroOfTheSecondAttempt", {-EINVAL, 0}, {8, 0}, true},
                    MsrAttempts{"FailsWhenBothFail", {-EINVAL, -EACCES}, {8, 0}, false},
                    MsrAttempts{"FailsWhenTheSecondFailsAfterDescriptorZero", {0, -EACCES}, {8, 8}, false}),
    [](const auto& info) { return info.param.m_pName; });

// ---- descriptors run out ---------------------------------------------------------------------------------

TEST_F(Configuring, NoDescriptorsLeftIsRememberedAsNumber24)
{
    m_counters.m_openResults = {-EMFILE};
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), -1);
    EXPECT_EQ(ErrorText(), "configureCpuPmcEvent failed : Too many open files.");
    EXPECT_EQ(ZorvGetErrorNum(), 24);
}

// The agent's own fnPerfEventOpen above a kernel that has no descriptor to give.
class OutOfDescriptors : public Configuring
{
protected:
    int ConfigureOnce(int failures)
    {
        Replace own("fnPerfEventOpen",
                    [](const Call& call)
                    {
                        return fnPerfEventOpen(call.Arg<perf_event_attr*>(0), call.Arg<int>(1),
                                               call.Arg<int>(2), call.Arg<int>(3), call.Arg<unsigned long>(4));
                    });
        Replace kernel("ZorvUmaPerfEventOpen",
                       [=](const Call& call) -> uint64_t
                       {
                           if (call.m_number > failures)
                           {
                               return dup(STDERR_FILENO);
                           }
                           errno = EMFILE;
                           return -1;
                       });
        Replace get("ZorvUmaGetrlimit",
                    [](const Call& call)
                    {
                        *call.Arg<rlimit*>(1) = {100, 200};
                        return 0;
                    });
        Replace set("ZorvUmaSetrlimit", [](const Call&) { return 0; });
        const int result = Configure(ZORV_PMC_TYPE_CORE, Events(1));
        m_attempts = kernel.Calls();
        m_raises = set.Calls();
        return result;
    }

    long m_attempts = 0;
    long m_raises = 0;
};

TEST_F(OutOfDescriptors, TheLimitIsRaisedAndTheOpenRetriedOnce)
{
    EXPECT_EQ(ConfigureOnce(1), 0);
    EXPECT_EQ(m_attempts, 2);
    EXPECT_EQ(m_raises, 1);
    EXPECT_EQ(ZorvGetErrorNum(), 0);
}

TEST_F(OutOfDescriptors, ASecondFailureIsFinal)
{
    EXPECT_EQ(ConfigureOnce(2), -1);
    EXPECT_EQ(m_attempts, 2);
    EXPECT_EQ(m_raises, 1);
    EXPECT_EQ(ZorvGetErrorNum(), 24);
}

// ---- the list of leaders ---------------------------------------------------------------------------------

TEST_F(Configuring, WithoutMemoryForALeadersNodeItGoesOn)
{
    {
        faults::NoMemory noNodes(0, 64);
        EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(2)), 0);
        EXPECT_EQ(noNodes.Refused(), 1);
    }
    EXPECT_EQ(ErrorText(), "ZorvInsertGroupFd : Failed to allocate the memory to hold file descriptor.");
    EXPECT_EQ(ZorvStartPerfEvent(), 0);
    EXPECT_EQ(m_counters.m_switched.size(), 2u);
    m_counters.m_switched.clear();
    EXPECT_EQ(ZorvStartPerfEventAllThreads(), 0);
    EXPECT_TRUE(m_counters.m_switched.empty()) << "the group is not on the list";
}

// A handler of the program that ran here could wait for the lock that its own thread holds.
TEST_F(Configuring, TheListsLockIsHeldWithSignalsBlocked)
{
    int locks = 0;
    Replace lock("ZorvUmaPthreadMutexLock",
                 [&](const Call& call)
                 {
                     locks++;
                     sigset_t blocked;
                     pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
                     for (const int signal : {SIGPROF, SIGUSR1, SIGALRM, SIGRTMIN, SIGRTMAX})
                     {
                         EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
                     }
                     return call.PassOn();
                 });
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(7)), 0);
    EXPECT_EQ(locks, 2) << "once a leader";
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGPROF), 0);
}

} // namespace
