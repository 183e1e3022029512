// Records made and freed, and what holds before, between and after.
#include "CounterSupport.h"

#include <future>
#include <malloc.h>
#include <set>
#include <thread>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

using Lifecycle = CounterTest;

// What is allocated and not yet freed.
class Heap
{
public:
    Heap()
        : m_malloc("ZorvUmaMalloc",
                   [this](const Call& call)
                   {
                       const uint64_t address = call.PassOn();
                       m_held.insert(address);
                       m_sizes.push_back(call.Arg<size_t>(0));
                       return address;
                   }),
          m_free("ZorvUmaFree",
                 [this](const Call& call)
                 {
                     const uint64_t address = call.m_words[0];
                     EXPECT_TRUE(address == 0 || m_held.erase(address) == 1)
                         << "freed twice, or never allocated";
                     return call.PassOn();
                 })
    {
    }

    std::set<uint64_t> m_held;
    std::vector<size_t> m_sizes;

private:
    Replace m_malloc;
    Replace m_free;
};

// ---- texts without an error ------------------------------------------------------------------------------

TEST_F(Lifecycle, AThreadThatNeverInitialisedHasNoError)
{
    OnAnotherThread(
        []
        {
            EXPECT_STREQ(ZorvGetErrorMsg(), "NO ERROR");
            EXPECT_EQ(ZorvGetErrorNum(), -1);
        });
}

TEST_F(Lifecycle, AnInitialisedThreadWithoutErrorHasAnEmptyText)
{
    EXPECT_STREQ(ZorvGetErrorMsg(), "");
    EXPECT_EQ(ZorvGetErrorNum(), 0);
}

TEST_F(Lifecycle, EachThreadHasATextOfItsOwn)
{
    EXPECT_EQ(Configure(2, Events(1)), -1);
    OnAnotherThread(
        []
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            EXPECT_EQ(ErrorText(), "");
            EXPECT_EQ(ZorvFiniPcmAgent(), 0);
            EXPECT_EQ(ErrorText(), "NO ERROR");
        });
    EXPECT_EQ(ErrorText(), "Invalid arguements are passed.");
}

// ---- memory runs out -------------------------------------------------------------------------------------

TEST_F(Lifecycle, WithoutMemoryForTheProcessRecordAllocationFails)
{
    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    faults::NoMemory none;
    EXPECT_EQ(ZorvAllocateProcessInfo(), -1);
    EXPECT_EQ(ErrorText(), "NO ERROR");
    EXPECT_EQ(ZorvStartPerfEventAllThreads(), -1);
}

struct Allocation
{
    const char* m_pName;
    size_t m_size; // 0: not checked
    std::string m_text;
};

const std::string NO_FDS = "Failed to allocate the memory to hold PMC file descriptors.";
const std::string NO_GROUP_FDS = "Failed to allocate the memory to hold PMC group file descriptors.";
const std::string NO_VALUES = "Failed to allocate the memory to hold previous counter values.";

// In this order. Before there is a place for a text, it is dropped.
const Allocation g_allocations[] = {
    {"ThreadRecord", 0, "NO ERROR"},
    {"MsrDescriptors", 4 * 4, "NO ERROR"},
    {"MsrGroupDescriptors", 4 * 4, "NO ERROR"},
    {"MsrPreviousValues", 4 * 8, "NO ERROR"},
    {"ErrorText", 4096, "NO ERROR"},
    {"CoreDescriptors", 64 * 4, NO_FDS},
    {"CoreGroupDescriptors", 64 * 4, NO_GROUP_FDS},
    {"CorePreviousValues", 64 * 8, NO_VALUES},
};
constexpr size_t ALLOCATION_COUNT = std::size(g_allocations);

class InitialisingWithoutMemory : public Lifecycle, public testing::WithParamInterface<size_t>
{
};

TEST_P(InitialisingWithoutMemory, Fails)
{
    OnAnotherThread(
        []
        {
            Heap heap;
            const size_t failing = GetParam();
            {
                Replace refuse("ZorvUmaMalloc", faults::FailsOn(failing + 1, 0, ENOMEM));
                EXPECT_EQ(ZorvInitializePcmAgent(), -1);
                EXPECT_EQ(refuse.Calls(), long(failing) + 1) << "nothing is allocated after a failure";
            }
            EXPECT_EQ(ErrorText(), g_allocations[failing].m_text);
            ASSERT_EQ(heap.m_sizes.size(), failing);
            for (size_t i = 1; i < failing; i++)
            {
                EXPECT_EQ(heap.m_sizes[i], g_allocations[i].m_size) << g_allocations[i].m_pName;
            }
            EXPECT_EQ(ZorvFiniPcmAgent(), failing == 0 ? -1 : 0);
            EXPECT_TRUE(heap.m_held.empty());
        });
}

INSTANTIATE_TEST_SUITE_P(Counters, InitialisingWithoutMemory, testing::Range(size_t{0}, ALLOCATION_COUNT),
                         [](const auto& info) { return g_allocations[info.param].m_pName; });

TEST_F(Lifecycle, InitialisationAllocatesFixedCapacitiesOnce)
{
    OnAnotherThread(
        []
        {
            Heap heap;
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(heap.m_sizes.size(), ALLOCATION_COUNT);
            for (size_t i = 1; i < ALLOCATION_COUNT; i++)
            {
                EXPECT_EQ(heap.m_sizes[i], g_allocations[i].m_size) << g_allocations[i].m_pName;
            }
            ZorvFiniPcmAgent();
        });
}

TEST_F(Lifecycle, InitialisingAgainGivesAFreshRecord)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    EXPECT_EQ(Configure(2, Events(1)), -1);
    Heap heap;
    ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    EXPECT_EQ(heap.m_held.size(), ALLOCATION_COUNT) << "the earlier record is not freed";
    EXPECT_EQ(ErrorText(), "");
    EXPECT_EQ(ZorvStartPerfEvent(), 0);
    EXPECT_TRUE(m_counters.m_switched.empty());
    EXPECT_TRUE(IsOpen(m_counters.Fds()[0]));
    EXPECT_EQ(ZorvStartPerfEventAllThreads(), 0);
    EXPECT_EQ(m_counters.m_switched.size(), 1u) << "its counters are open and still on the list";
}

TEST_F(Lifecycle, TheEndOfAFreshRecordLeavesAnEarlierOnesCountersAlone)
{
    OnAnotherThread(
        []
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
            ASSERT_EQ(ZorvFiniPcmAgent(), 0);
        });
    const std::vector<int> fds = m_counters.Fds();
    EXPECT_TRUE(IsOpen(fds[0]));
    EXPECT_FALSE(IsOpen(fds[1]));
    EXPECT_EQ(ZorvStartPerfEventAllThreads(), 0);
    EXPECT_EQ(m_counters.m_switched, (std::vector<Switched>{{fds[0], ENABLE, 1}}));
}

// ---- the end ---------------------------------------------------------------------------------------------

TEST_F(Lifecycle, EndingClosesEveryCounterOnceMsrFirst)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00, 0xFF01}), 0);
    const std::vector<int> all = m_counters.Fds();
    std::vector<int> expected(all.begin() + 8, all.end());
    expected.insert(expected.end(), all.begin(), all.begin() + 8);

    std::vector<int> closed;
    {
        Replace close("ZorvUmaClose",
                      [&](const Call& call)
                      {
                          closed.push_back(call.Arg<int>(0));
                          return call.PassOn();
                      });
        EXPECT_EQ(ZorvFiniPcmAgent(), 0);
    }
    EXPECT_EQ(closed, expected);
}

TEST_F(Lifecycle, EndingOnTheMainThreadFreesEverything)
{
    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    Heap heap;
    ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
    ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(13)), 0);
    OnAnotherThread(
        []
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_PERF, {0xFF00}), 0);
            ASSERT_EQ(ZorvFiniPcmAgent(), 0);
        });
    EXPECT_EQ(ZorvFiniPcmAgent(), 0);
    EXPECT_TRUE(heap.m_held.empty());
    EXPECT_EQ(ZorvStopPerfEventAllThreads(), -1) << "there is no process record any more";
    EXPECT_EQ(ErrorText(), "NO ERROR");
}

TEST_F(Lifecycle, EndingOnAnotherThreadKeepsTheProcessRecord)
{
    ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(1)), 0);
    OnAnotherThread(
        []
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            EXPECT_EQ(ZorvFiniPcmAgent(), 0);
        });
    EXPECT_EQ(ZorvStopPerfEventAllThreads(), 0);
    EXPECT_EQ(m_counters.m_switched.size(), 1u);
}

TEST_F(Lifecycle, TheMainThreadIsTheOneWhoseIdIsTheProcessId)
{
    OnAnotherThread(
        []
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            Replace tid("ZorvUmaGetTid", [](const Call&) { return 4321; });
            Replace pid("ZorvUmaGetPid", [](const Call&) { return 4321; });
            EXPECT_EQ(ZorvFiniPcmAgent(), 0);
        });
    EXPECT_EQ(ZorvStopPerfEventAllThreads(), -1);
}

TEST_F(Lifecycle, EndingWithoutARecordFails)
{
    OnAnotherThread([] { EXPECT_EQ(ZorvFiniPcmAgent(), -1); });
    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    EXPECT_EQ(ZorvFiniPcmAgent(), -1);
    ASSERT_EQ(ZorvInitializePcmAgent(), 0);
    EXPECT_EQ(ZorvFiniPcmAgent(), -1) << "there is no process record";
}

// A thread whose leaders stood in a list that is gone must not look for them there.
TEST_F(Lifecycle, AThreadThatOutlivesItsProcessRecordLeavesFreedMemoryAlone)
{
    std::map<void*, std::string> freed; // kept, with what they held
    Replace free("ZorvUmaFree",
                 [&](const Call& call)
                 {
                     const auto pMemory = call.Arg<char*>(0);
                     freed.emplace(pMemory, std::string(pMemory, malloc_usable_size(pMemory)));
                     return 0;
                 });
    std::promise<void> configured;
    std::promise<void> replaced;
    std::thread other(
        [&]
        {
            ASSERT_EQ(ZorvInitializePcmAgent(), 0);
            ASSERT_EQ(Configure(ZORV_PMC_TYPE_CORE, Events(8)), 0);
            configured.set_value();
            replaced.get_future().wait();
            EXPECT_EQ(ZorvFiniPcmAgent(), 0);
        });
    configured.get_future().wait();
    ASSERT_EQ(ZorvFiniPcmAgent(), 0);
    const std::map<void*, std::string> freedByMain = freed;
    ASSERT_EQ(freedByMain.size(), ALLOCATION_COUNT + 3) << "thread record, two nodes, process record";
    ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
    replaced.set_value();
    other.join();
    for (const auto& [pMemory, held] : freedByMain)
    {
        EXPECT_EQ(std::string(static_cast<char*>(pMemory), held.size()), held);
    }
    for (const int fd : m_counters.Fds())
    {
        EXPECT_FALSE(IsOpen(fd)) << fd;
    }
}

} // namespace
