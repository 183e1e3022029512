// The process record, the thread record, and the hook of the OpenMP agent.
#include "Support.h"

#include <dlfcn.h>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::Replace;

namespace
{

// ---- the process record ----------------------------------------------------------------------------------

using ProfileInfo = AgentTest;

TEST_F(ProfileInfo, StartsWithNoFileOpenAndEverythingOff)
{
    const ZorvUmaProfileInfo& info = *ZorvUmaAllocateProfileInfo();
    EXPECT_EQ(info.m_umsData.m_fd, -1);
    EXPECT_EQ(info.m_umtData.m_fd, -1);
    EXPECT_FALSE(info.m_umsData.m_isTrace);
    EXPECT_TRUE(info.m_umtData.m_isTrace);
    EXPECT_EQ(info.m_metaDataFd, -1);
    EXPECT_EQ(info.m_logFd, -1);
    EXPECT_EQ(info.m_errFd, -1);
    EXPECT_EQ(info.m_shmFd, -1);
    EXPECT_TRUE(info.m_umaConfig.m_profileChildren);
    EXPECT_FALSE(info.m_isProcessInitialized);
    EXPECT_EQ(info.m_pid, getpid());
}

// Everything else is zero, also in memory that was used before.
TEST_F(ProfileInfo, IsZeroButForTheFieldsThatAreSet)
{
    for (const char* pName : {"ZorvUmaMalloc", "ZorvUmaCalloc"})
    {
        const bool isCalloc = std::string(pName) == "ZorvUmaCalloc";
        Replace dirty(pName,
                      [=](const Call& call)
                      {
                          const uint64_t result = call.PassOn();
                          if (!isCalloc && result != 0)
                          {
                              memset(reinterpret_cast<void*>(result), 0xA5, call.Arg<size_t>(0));
                          }
                          return result;
                      });
        ZorvUmaProfileInfo expected;
        memset(static_cast<void*>(&expected), 0, sizeof expected);
        expected.m_umsData.m_fd = expected.m_umtData.m_fd = -1;
        expected.m_umtData.m_isTrace = true;
        expected.m_metaDataFd = expected.m_logFd = expected.m_errFd = expected.m_shmFd = -1;
        expected.m_umaConfig.m_profileChildren = true;
        expected.m_pid = getpid();
        // a default mutex is all zero in this libc
        EXPECT_EQ(memcmp(ZorvUmaAllocateProfileInfo(), &expected, sizeof expected), 0);
    }
}

TEST_F(ProfileInfo, InitialisesItsFourMutexesWithDefaultAttributes)
{
    std::vector<std::pair<uint64_t, uint64_t>> made;
    Replace init("ZorvUmaPthreadMutexInit",
                 [&](const Call& call)
                 {
                     made.emplace_back(call.m_words[0], call.m_words[1]);
                     return call.PassOn();
                 });
    ZorvUmaProfileInfo* pInfo = ZorvUmaAllocateProfileInfo();
    const std::vector<pthread_mutex_t*> expected = {&pInfo->m_umsData.m_lock, &pInfo->m_umtData.m_lock,
                                                    &pInfo->m_errLock, &pInfo->m_lock};
    ASSERT_EQ(made.size(), expected.size());
    for (pthread_mutex_t* pMutex : expected)
    {
        const auto mutex = std::make_pair(reinterpret_cast<uint64_t>(pMutex), uint64_t{0});
        EXPECT_EQ(std::count(made.begin(), made.end(), mutex), 1);
    }
}

TEST_F(ProfileInfo, ReplacesTheProcessWidePointer)
{
    ZorvUmaProfileInfo* pFirst = ZorvUmaGetProfileInfo();
    EXPECT_EQ(pFirst, m_pInfo);
    ZorvUmaProfileInfo* pSecond = ZorvUmaAllocateProfileInfo();
    EXPECT_NE(pSecond, pFirst);
    EXPECT_EQ(ZorvUmaGetProfileInfo(), pSecond);
}

TEST_F(ProfileInfo, NeedsTheLibraryHandlesFirst)
{
    StandardError standardError;
    Replace handles("ZorvUmaGetLibHandles", Fails(0));
    CallLog allocations{"ZorvUmaMalloc", "ZorvUmaCalloc"};
    EXPECT_EQ(ZorvUmaAllocateProfileInfo(), nullptr);
    EXPECT_EQ(standardError.Take(), "Failed to find the handles.\n");
    EXPECT_TRUE(allocations.Calls().empty());
    EXPECT_EQ(ZorvUmaGetProfileInfo(), m_pInfo);
}

TEST_F(ProfileInfo, WithoutMemoryStandardErrorSaysSo)
{
    StandardError standardError;
    faults::NoMemory noMemory;
    EXPECT_EQ(ZorvUmaAllocateProfileInfo(), nullptr);
    EXPECT_EQ(standardError.Take(),
              Format("Failed to allocate memory for profile info in process (%d).\n", getpid()));
}

TEST_F(ProfileInfo, FreeingNullsThePointer)
{
    CallLog frees{"ZorvUmaFree"};
    ZorvUmaFreeProfileInfo();
    ASSERT_EQ(frees.Calls().size(), 1u);
    EXPECT_EQ(frees.Calls()[0].Arg<void*>(0), m_pInfo);
    EXPECT_EQ(ZorvUmaGetProfileInfo(), nullptr);
    ZorvUmaFreeProfileInfo();
    EXPECT_EQ(frees.Calls().size(), 1u);
}

// Loading ran the constructor once; a second run changes nothing.
TEST_F(ProfileInfo, TheConstructorInitialisesOnce)
{
    StandardError standardError;
    CallLog calls{"ZorvUmaAllocateProfileInfo", "ZorvUmaAllocateThreadInfo", "ZorvUmaAtexit",
                  "ZorvUmaInitProcess"};
    ZorvUmaInit();
    EXPECT_EQ(calls.Names(), Strings{});
    EXPECT_EQ(standardError.Take(), "");
    EXPECT_EQ(StartMessages(), Format("Failed to open log and error file in process (%d).\n"
                                      "Qelix : Failed to initialize the constructor for pid (%d).\n",
                                      getpid(), getpid()));
}

// ---- the thread record -----------------------------------------------------------------------------------

using ThreadInfo = AgentTest;

TEST_F(ThreadInfo, IsZeroedInUsedMemoryToo)
{
    Replace dirty("ZorvUmaMalloc",
                  [](const Call& call)
                  {
                      const uint64_t result = call.PassOn();
                      memset(reinterpret_cast<void*>(result), 0xA5, call.Arg<size_t>(0));
                      return result;
                  });
    const ZorvUmaPerThreadInfo* pThread = ZorvUmaAllocateThreadInfo(m_pInfo);
    ASSERT_NE(pThread, nullptr);
    EXPECT_EQ(pThread->m_pUmsCsBuf, nullptr);
    EXPECT_EQ(pThread->m_pUmtCsBuf, nullptr);
    EXPECT_EQ(pThread->m_pUmsBuf, nullptr);
    EXPECT_EQ(pThread->m_pUmtBuf, nullptr);
    EXPECT_EQ(pThread->m_timerId, nullptr);
    EXPECT_FALSE(pThread->m_stopCollection);
}

TEST_F(ThreadInfo, NeedsAProcessRecord)
{
    EXPECT_EQ(ZorvUmaAllocateThreadInfo(nullptr), nullptr);
}

// Whether the calling thread has a record shows in what a thread without one ignores.
bool HasRecord(ZorvUmaProfileInfo* pInfo)
{
    pInfo->m_isProcessInitialized = true;
    return !ZorvUmaIsCollectionStopped(pInfo);
}

TEST_F(ThreadInfo, BelongsToTheCallingThread)
{
    ASSERT_NE(ZorvUmaAllocateThreadInfo(m_pInfo), nullptr);
    EXPECT_TRUE(HasRecord(m_pInfo));
    std::thread([&] { EXPECT_FALSE(HasRecord(m_pInfo)); }).join();
    ZorvUmaFreeThreadInfo();
    EXPECT_FALSE(HasRecord(m_pInfo));
}

TEST_F(ThreadInfo, ReplacesAnEarlierOne)
{
    ZorvUmaAllocateThreadInfo(m_pInfo)->m_stopCollection = true;
    EXPECT_FALSE(HasRecord(m_pInfo));
    ZorvUmaAllocateThreadInfo(m_pInfo);
    EXPECT_TRUE(HasRecord(m_pInfo));
}

TEST_F(ThreadInfo, WithoutMemoryTheLogSaysSo)
{
    faults::NoMemory noMemory(0, 1024); // a log line's own buffer is larger
    EXPECT_EQ(ZorvUmaAllocateThreadInfo(m_pInfo), nullptr);
    EXPECT_TRUE(ReadWhole(m_logFd).ends_with(
        Format("Failed to allocate memory for Thread info in process (%d).\n\n", getpid())))
        << "the message has a newline of its own";
}

TEST_F(ThreadInfo, FreeingTakesItsCallStackBuffersAlong)
{
    ZorvUmaPerThreadInfo* pThread = ZorvUmaAllocateThreadInfo(m_pInfo);
    pThread->m_pUmsCsBuf = static_cast<void**>(malloc(64));
    pThread->m_pUmtCsBuf = static_cast<void**>(malloc(64));
    const std::vector<void*> expected = {pThread->m_pUmsCsBuf, pThread->m_pUmtCsBuf, pThread};
    ZorvUmaBuffer buffer{};
    pThread->m_pUmtBuf = pThread->m_pUmsBuf = &buffer; // the stream's, not the thread's
    CallLog frees{"ZorvUmaFree"};
    ZorvUmaFreeThreadInfo();
    std::vector<void*> freed;
    for (const Call& call : frees.Calls())
    {
        freed.push_back(call.Arg<void*>(0));
    }
    EXPECT_EQ(freed, expected);
    ZorvUmaFreeThreadInfo();
    EXPECT_EQ(frees.Calls().size(), 3u);
}

TEST_F(ThreadInfo, FreeingSkipsBuffersThatWereNeverMade)
{
    ZorvUmaAllocateThreadInfo(m_pInfo);
    CallLog frees{"ZorvUmaFree"};
    ZorvUmaFreeThreadInfo();
    EXPECT_EQ(frees.Calls().size(), 1u);
}

// ---- the OpenMP agent ------------------------------------------------------------------------------------

uint64_t ParallelRegion()
{
    return 4711;
}

class OpenMp : public AgentTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        m_pInfo->m_umaConfig.m_pOpenMPAgentPath = strdup("/lib/openmp-agent.so");
    }

    // The library as the loader would show it; null: it is not loaded.
    void Announce(bool isInitialized, void* pHandle, uint64_t (*pFunction)())
    {
        Replace open("dlopen",
                     [=, this](const Call& call)
                     {
                         EXPECT_STREQ(call.Arg<const char*>(0), "/lib/openmp-agent.so");
                         EXPECT_EQ(call.Arg<int>(1), RTLD_NOW | RTLD_NOLOAD);
                         m_order.push_back("open");
                         return reinterpret_cast<uint64_t>(pHandle);
                     });
        Replace find("dlsym",
                     [=, this](const Call& call)
                     {
                         if (std::string(call.Arg<const char*>(1)) != "ZorvGetOpenMPParId")
                         {
                             return call.PassOn();
                         }
                         EXPECT_EQ(call.Arg<void*>(0), pHandle);
                         m_order.push_back("find");
                         return reinterpret_cast<uint64_t>(pFunction);
                     });
        Replace close("dlclose",
                      [=, this](const Call& call)
                      {
                          EXPECT_EQ(call.Arg<void*>(0), pHandle);
                          m_order.push_back("close");
                          return 0;
                      });
        ZorvUmaSetOpenMPAgentInitialized(isInitialized);
    }

    void* const m_pHandle = reinterpret_cast<void*>(0x9000);
    Strings m_order;
};

TEST_F(OpenMp, TheFunctionIsLookedUpAndTheHandleClosed)
{
    Announce(true, m_pHandle, ParallelRegion);
    EXPECT_EQ(m_pInfo->m_pZorvGetOpenMPParId, ParallelRegion);
    EXPECT_EQ(m_order, (Strings{"open", "find", "close"}));
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(OpenMp, AMissingFunctionIsStoredAndLogged)
{
    m_pInfo->m_pZorvGetOpenMPParId = ParallelRegion;
    Announce(true, m_pHandle, nullptr);
    EXPECT_EQ(m_pInfo->m_pZorvGetOpenMPParId, nullptr);
    EXPECT_EQ(m_order, (Strings{"open", "find", "close"}));
    EXPECT_EQ(Log(), Strings{"ERROR Failed to get the symbol address for \"ZorvGetOpenMPParId\"."});
}

TEST_F(OpenMp, FalseDoesNothing)
{
    m_pInfo->m_pZorvGetOpenMPParId = ParallelRegion;
    Announce(false, m_pHandle, nullptr);
    EXPECT_EQ(m_pInfo->m_pZorvGetOpenMPParId, ParallelRegion);
    EXPECT_TRUE(m_order.empty());
}

TEST_F(OpenMp, WithoutAPathNothingHappens)
{
    m_pInfo->m_umaConfig.m_pOpenMPAgentPath = nullptr;
    Announce(true, m_pHandle, ParallelRegion);
    EXPECT_TRUE(m_order.empty());
}

TEST_F(OpenMp, WithoutAProcessRecordNothingHappens)
{
    ZorvUmaFreeProfileInfo();
    Announce(true, m_pHandle, ParallelRegion);
    EXPECT_TRUE(m_order.empty());
}

TEST_F(OpenMp, ALibraryThatIsNotLoadedGivesNoFunction)
{
    m_pInfo->m_pZorvGetOpenMPParId = ParallelRegion;
    Announce(true, nullptr, nullptr);
    EXPECT_EQ(m_pInfo->m_pZorvGetOpenMPParId, nullptr);
    EXPECT_EQ(m_order, Strings{"open"});
    EXPECT_EQ(Log(), Strings{"ERROR Failed to get the symbol address for \"ZorvGetOpenMPParId\"."});
}

} // namespace
