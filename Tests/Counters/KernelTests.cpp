// Counters of the running kernel. Its "cpu" PMU is given the number of the software events, which every machine
// has: page faults can be made at will, and counted exactly enough.
#include "CounterSupport.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <linux/perf_event.h>
#include <set>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <x86intrin.h>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

enum SoftwareEvent : uint64_t
{
    TASK_CLOCK = 1,
    PAGE_FAULTS = 2,
    CONTEXT_SWITCHES = 3,
    MIGRATIONS = 4,
    MINOR_FAULTS = 5,
    MAJOR_FAULTS = 6,
    EMULATION_FAULTS = 8,
    DUMMY = 9,
};
// Clocks lead no group with other events: this kernel lets such a group count only from the next task switch
// on.
const std::vector<uint64_t> EIGHT_EVENTS = {PAGE_FAULTS,  CONTEXT_SWITCHES, MIGRATIONS, MINOR_FAULTS,
                                            MAJOR_FAULTS, EMULATION_FAULTS, TASK_CLOCK, DUMMY};

constexpr uint64_t PAGES = 64;

void TouchFreshPages()
{
    const size_t size = PAGES * 4096;
    const auto pPages =
        static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pPages, MAP_FAILED);
    madvise(pPages, size, MADV_NOHUGEPAGE);
    for (size_t offset = 0; offset < size; offset += 4096)
    {
        static_cast<volatile char*>(pPages)[offset] = 1;
    }
    munmap(pPages, size);
}

bool IsRefused(uint32_t type, uint64_t config)
{
    perf_event_attr attributes{};
    attributes.type = type;
    attributes.config = config;
    const long fd = syscall(SYS_perf_event_open, &attributes, 0, -1, -1, PERF_FLAG_FD_CLOEXEC);
    if (fd >= 0)
    {
        close(fd);
    }
    return fd < 0;
}

// As the system numbers it; all ones where it has none.
uint32_t MsrType()
{
    std::ifstream file("/sys/bus/event_source/devices/msr/type");
    uint32_t type = UINT32_MAX;
    file >> type;
    return type;
}

class Kernel : public testing::Test
{
protected:
    void SetUp() override
    {
        if (IsRefused(PERF_TYPE_SOFTWARE, PAGE_FAULTS))
        {
            GTEST_SKIP() << "the kernel refuses counters here: " << strerror(errno);
        }
        m_files.m_files[CPU_TYPE_FILE] = "1\n";
        ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
        ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    }

    void TearDown() override
    {
        ZorvFiniPcmAgent();
    }

    static uint64_t ReadOne(uint32_t type = ZORV_PMC_TYPE_CORE)
    {
        PmcData data[64] = {};
        EXPECT_EQ(ZorvReadPerfEvent(type, data), 1);
        return data[0].m_value;
    }

    LoadedAgent m_loaded;
    FakeFiles m_files{true};
};

// ---- counting --------------------------------------------------------------------------------------------

TEST_F(Kernel, ACoreCounterCountsFromItsStart)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {PAGE_FAULTS}), 0) << ErrorText();
    TouchFreshPages();
    EXPECT_EQ(ReadOne(), 0u);
    ASSERT_EQ(ZorvStartPerfEvent(), 0) << ErrorText();
    TouchFreshPages();
    const uint64_t counted = ReadOne();
    EXPECT_GE(counted, PAGES);
    EXPECT_LT(counted, 2 * PAGES);
}

TEST_F(Kernel, AReadingIsTheDifferenceToTheOneBefore)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {PAGE_FAULTS}), 0);
    ASSERT_EQ(ZorvStartPerfEvent(), 0);
    for (int i = 0; i < 3; i++)
    {
        TouchFreshPages();
        const uint64_t counted = ReadOne();
        EXPECT_GE(counted, PAGES);
        EXPECT_LT(counted, 2 * PAGES);
    }
}

TEST_F(Kernel, AStoppedCounterStandsStill)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {PAGE_FAULTS}), 0);
    ASSERT_EQ(ZorvStartPerfEvent(), 0);
    TouchFreshPages();
    ASSERT_EQ(ZorvStopPerfEvent(), 0);
    EXPECT_GE(ReadOne(), PAGES);
    TouchFreshPages();
    EXPECT_EQ(ReadOne(), 0u);
}

TEST_F(Kernel, EightCountersInTwoGroupsAreAllRead)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, EIGHT_EVENTS), 0) << ErrorText();
    ASSERT_EQ(ZorvStartPerfEvent(), 0);
    TouchFreshPages();
    PmcData data[8] = {};
    ASSERT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), 1);
    EXPECT_GE(data[0].m_value, PAGES);
    EXPECT_GE(data[3].m_value, PAGES) << "minor faults";
    EXPECT_GT(data[6].m_value, 0u) << "ns of the task's clock";
    std::set<uint64_t> ids;
    for (const PmcData& entry : data)
    {
        ids.insert(entry.m_id);
        EXPECT_GT(entry.m_timeEnabled, 0u);
        EXPECT_LE(entry.m_timeRunning, entry.m_timeEnabled);
    }
    EXPECT_EQ(ids.size(), 8u);
    EXPECT_EQ(data[0].m_timeEnabled, data[5].m_timeEnabled) << "one group";
}

TEST_F(Kernel, AnMsrCounterCountsWithoutAStart)
{
    if (IsRefused(MsrType(), 0))
    {
        GTEST_SKIP() << "no time-stamp counter among the kernel's counters";
    }
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), 0) << ErrorText();
    EXPECT_GT(ReadOne(ZORV_PMC_TYPE_PERF), 0u);
    EXPECT_GT(ReadOne(ZORV_PMC_TYPE_PERF), 0u);
}

TEST_F(Kernel, TheFrequencyOfTheTimeStampCounterIsThatOfTheProcessor)
{
    if (IsRefused(MsrType(), 0))
    {
        GTEST_SKIP() << "no time-stamp counter among the kernel's counters";
    }
    uint64_t frequency = 0;
    const uint64_t before = __rdtsc();
    ASSERT_EQ(ZorvGetP0FreqFromPerf(&frequency), 0) << ErrorText();
    const uint64_t around = __rdtsc() - before;
    EXPECT_GT(frequency, 0u);
    EXPECT_LE(frequency, around);
}

// ---- threads ---------------------------------------------------------------------------------------------

TEST_F(Kernel, AllThreadsAreStoppedAndStartedFromAnother)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, EIGHT_EVENTS), 0);
    ASSERT_EQ(ZorvStartPerfEvent(), 0);
    PmcData data[8] = {};
    OnAnotherThread([] { EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0); });
    ASSERT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), 1);
    TouchFreshPages();
    ASSERT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), 1);
    for (const PmcData& entry : data)
    {
        EXPECT_EQ(entry.m_value, 0u);
    }
    OnAnotherThread([] { EXPECT_EQ(ZorvStartPerfEventAllThreads(), 0); });
    TouchFreshPages();
    ASSERT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), 1);
    EXPECT_GE(data[0].m_value, PAGES);
}

TEST_F(Kernel, AThreadCountsOnlyItself)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {PAGE_FAULTS}), 0);
    ASSERT_EQ(ZorvStartPerfEvent(), 0);
    ReadOne();
    std::atomic<uint64_t> others = 0;
    OnAnotherThread(
        [&]
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {PAGE_FAULTS}), 0);
            ASSERT_EQ(ZorvStartPerfEvent(), 0);
            for (int i = 0; i < 10; i++)
            {
                TouchFreshPages();
            }
            others = ReadOne();
            ASSERT_EQ(ZorvFiniPcmAgent(), 0);
        });
    EXPECT_GE(others, 10 * PAGES);
    EXPECT_LT(ReadOne(), 10 * PAGES);
}

// Pauses go on while threads come and go: each must succeed, whatever thread has just ended.
TEST_F(Kernel, PausesSucceedWhileThreadsEnd)
{
    std::atomic<bool> isDone = false;
    std::atomic<long> failures = 0;
    std::thread pausing(
        [&]
        {
            while (!isDone)
            {
                failures += ZorvStopPerfEventAllThreads() != 0;
                failures += ZorvStartPerfEventAllThreads() != 0;
            }
        });
    const auto live = []
    {
        ASSERT_EQ(ZorvInitializePcmAgent(), 0);
        ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, EIGHT_EVENTS), 0) << ErrorText();
        ASSERT_EQ(ZorvStartPerfEvent(), 0) << ErrorText();
        PmcData data[8];
        EXPECT_EQ(ZorvReadPerfEvent(ZORV_PMC_TYPE_CORE, data), 1);
        ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    };
    for (int i = 0; i < 300; i++)
    {
        std::thread first(live);
        std::thread second(live);
        first.join();
        second.join();
    }
    isDone = true;
    pausing.join();
    EXPECT_EQ(failures, 0);
}

// ---- signal context --------------------------------------------------------------------------------------

int (*g_pRead)(uint32_t, PmcData*);
std::atomic<long> g_failedReadings;
std::atomic<uint64_t> g_total;

void ReadInHandler(int)
{
    const int savedErrno = errno;
    PmcData data[8];
    if (g_pRead(ZORV_PMC_TYPE_CORE, data) == 1)
    {
        g_total += data[0].m_value;
    }
    else
    {
        g_failedReadings++;
    }
    errno = savedErrno;
}

TEST_F(Kernel, AHandlerReadsWhereverItLands)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, EIGHT_EVENTS), 0);
    ASSERT_EQ(ZorvStartPerfEvent(), 0);
    g_pRead = ZorvReadPerfEvent.Address();
    g_failedReadings = 0;
    g_total = 0;
    struct sigaction action = {};
    action.sa_handler = ReadInHandler;
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR2, &action, nullptr);
    std::atomic<bool> isDone = false;
    std::thread signalling(
        [&isDone, reader = pthread_self()]
        {
            while (!isDone)
            {
                pthread_kill(reader, SIGUSR2);
                std::this_thread::yield();
            }
        });
    constexpr int rounds = 500;
    for (int i = 0; i < rounds; i++)
    {
        TouchFreshPages();
        free(malloc(100000));
    }
    isDone = true;
    signalling.join();
    ReadInHandler(0);
    EXPECT_EQ(g_failedReadings, 0);
    EXPECT_GE(g_total, rounds * PAGES) << "no fault is lost between two readings";
}

// ---- limits, fork ----------------------------------------------------------------------------------------

// The lowest number that a new descriptor would not get.
rlim_t LimitForNoneMore()
{
    const int lowest = dup(STDERR_FILENO);
    close(lowest);
    return lowest;
}

TEST_F(Kernel, DescriptorsThatRunOutAreFoundByRaisingTheLimit)
{
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {TASK_CLOCK}), 0); // the system's files are read
    const rlimit low = {LimitForNoneMore(), limit.rlim_max};
    ASSERT_LT(low.rlim_cur, low.rlim_max);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, EIGHT_EVENTS), 0) << ErrorText();
    rlimit after;
    getrlimit(RLIMIT_NOFILE, &after);
    EXPECT_EQ(after.rlim_cur, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(Kernel, DescriptorsThatRunOutAtTheHardLimitAreNumber24)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {TASK_CLOCK}), 0);
    InOwnProcess(
        []
        {
            ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            const rlimit none = {LimitForNoneMore(), LimitForNoneMore()};
            ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
            EXPECT_EQ(Configure(ZORV_PMC_TYPE_CORE, {TASK_CLOCK}), -1);
            EXPECT_EQ(ZorvGetErrorNum(), 24);
            EXPECT_EQ(ErrorText(), "configureCpuPmcEvent failed : Too many open files.");
        });
}

TEST_F(Kernel, AForkedChildDoesNotSwitchItsParentsCounters)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {PAGE_FAULTS}), 0);
    ASSERT_EQ(ZorvStartPerfEvent(), 0);
    InOwnProcess(
        []
        {
            ZorvStopPerfEvent();
            ZorvStopPerfEventAllThreads();
            ZorvFiniPcmAgent();
        });
    ReadOne();
    TouchFreshPages();
    EXPECT_GE(ReadOne(), PAGES);
}

TEST_F(Kernel, AForkedChildCountsItself)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {PAGE_FAULTS}), 0);
    InOwnProcess(
        []
        {
            ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, {PAGE_FAULTS}), 0);
            ASSERT_EQ(ZorvStartPerfEvent(), 0);
            TouchFreshPages();
            EXPECT_GE(ReadOne(), PAGES);
            EXPECT_EQ(ZorvFiniPcmAgent(), 0);
        });
}

// ---- descriptors -----------------------------------------------------------------------------------------

size_t CountOpenDescriptors()
{
    size_t count = 0;
    DIR* pDirectory = opendir("/proc/self/fd");
    while (readdir(pDirectory) != nullptr)
    {
        count++;
    }
    closedir(pDirectory);
    return count;
}

TEST_F(Kernel, NoDescriptorIsLeftBehind)
{
    const size_t before = CountOpenDescriptors();
    for (int i = 0; i < 10; i++)
    {
        OnAnotherThread(
            []
            {
                ASSERT_EQ(ZorvInitializePcmAgent(), 0);
                ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, EIGHT_EVENTS), 0);
                ASSERT_EQ(ZorvFiniPcmAgent(), 0);
            });
    }
    EXPECT_EQ(CountOpenDescriptors(), before);
}

} // namespace
