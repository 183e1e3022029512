// Calls that reach into the agent's own state: ends, forks, modules, mappings, the profiling signal, names and
// raw system calls. What stands behind the agent is a fake that says what reached it.
#include "Support.h"

#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <linux/futex.h>
#include <map>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::NoMemory;
using faults::Replace;

namespace
{

struct Behind
{
    std::vector<std::array<uint64_t, 7>> m_calls;
    uint64_t m_result = 0;
    std::function<void()> m_during;
};

Behind g_behind;

uint64_t Fake(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e, uint64_t f, uint64_t g)
{
    g_behind.m_calls.push_back({a, b, c, d, e, f, g});
    if (g_behind.m_during)
    {
        g_behind.m_during();
    }
    errno = EOWNERDEAD;
    return g_behind.m_result;
}

uint64_t Word(const void* pAddress)
{
    return reinterpret_cast<uint64_t>(pAddress);
}

class StateCalls : public RecordingTest
{
protected:
    StateCalls()
        : m_lookUp("dlsym", [](const Call& call) { return AnswerLookUp(call); }),
          m_versioned("dlvsym", [](const Call& call) { return AnswerLookUp(call); }),
          m_clock("ZorvUmaGetTime", [this](const Call&) { return m_now += 10; })
    {
    }

    static uint64_t AnswerLookUp(const Call& call)
    {
        static const Strings names = {"_exit",  "_Exit",     "quick_exit", "abort", "fork",   "dlmopen",
                                      "signal", "sigaction", "prctl",      "mmap",  "syscall"};
        const bool isFaked = std::find(names.begin(), names.end(), call.Arg<const char*>(1)) != names.end();
        return call.Arg<void*>(0) == RTLD_NEXT && isFaked ? reinterpret_cast<uint64_t>(Fake) : call.PassOn();
    }

    void SetUp() override
    {
        g_behind = {};
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
        m_pInfo->m_metaDataFd = MakeMemoryFile();
    }

    std::vector<SyscallRecord> Records() const
    {
        std::vector<SyscallRecord> records;
        const ZorvUmaBuffer* pBuffer = m_pThread->m_pUmtBuf;
        for (uint32_t offset = 0; pBuffer != nullptr && offset + 64 <= pBuffer->m_dataLen; offset += 64)
        {
            records.push_back(ReadAt<SyscallRecord>(pBuffer, offset));
        }
        return records;
    }

    void ExpectOneOther(uint64_t value)
    {
        ASSERT_EQ(Records().size(), 1u);
        const SyscallRecord record = Records()[0];
        EXPECT_EQ(record.m_hdr.m_recType, ZORV_UMT_RECORD_SYSCALL);
        EXPECT_EQ(record.m_hdr.m_subType, 6);
        EXPECT_EQ(record.m_hdr.m_flags, 0);
        EXPECT_EQ(record.m_funcVa, reinterpret_cast<uint64_t>(Fake));
        EXPECT_EQ(record.m_sysValue, value);
    }

    uint64_t m_now = 1000;
    Replace m_lookUp;
    Replace m_versioned;
    Replace m_clock;
};

// ---- ends ------------------------------------------------------------------------------------------------

TEST_F(StateCalls, TheEndsFinaliseBeforeTheRealCall)
{
    for (const char* pName : {"ZorvInterposeExit", "ZorvInterposeExitLibc", "ZorvInterposeQuickExit_2_10",
                              "ZorvInterposeQuickExit_2_24", "ZorvInterposeQuickExit", "ZorvInterposeAbort"})
    {
        g_behind.m_calls.clear();
        size_t before = 99;
        Replace fini("ZorvUmaFiniProcess",
                     [&](const Call& call)
                     {
                         EXPECT_EQ(call.Arg<void*>(0), m_pInfo);
                         EXPECT_FALSE(call.Arg<bool>(1));
                         before = g_behind.m_calls.size();
                         return 0;
                     });
        CallExport(pName, {42});
        EXPECT_EQ(before, 0u) << pName;
        EXPECT_EQ(g_behind.m_calls.size(), 1u) << pName;
    }
    EXPECT_EQ(g_behind.m_calls.size(), 1u);
}

TEST_F(StateCalls, AnEndWithoutAProcessRecordIsPassedOn)
{
    Replace info("ZorvUmaGetProfileInfo", Fails(0));
    Replace fini("ZorvUmaFiniProcess", Fails(0));
    CallExport("ZorvInterposeExit", {42});
    EXPECT_EQ(fini.Calls(), 0);
    EXPECT_EQ(g_behind.m_calls.at(0)[0], 42u);
}

TEST_F(StateCalls, TheExitNumbersFinaliseAndArePassedOn)
{
    Replace fini("ZorvUmaFiniProcess", Fails(0));
    for (const long number : {SYS_exit, SYS_exit_group})
    {
        CallExport("ZorvInterposeSyscall", {static_cast<uint64_t>(number), 7});
    }
    EXPECT_EQ(fini.Calls(), 2);
    EXPECT_EQ(g_behind.m_calls.at(1)[1], 7u);
}

// ---- futex -----------------------------------------------------------------------------------------------

TEST_F(StateCalls, WaitingFutexOperationsAreRecordedWithTheirNumber)
{
    EnableEvent(ZORV_UMT_EVENT_LOCK);
    g_behind.m_during = [this] { EXPECT_EQ(m_pThread->m_pUmtBuf->m_cacheLen, 64u); };
    for (const uint64_t operation : {0, 6, 8, 9, 11, 128, 256 | 128, 9 | 256})
    {
        CallExport("ZorvInterposeSyscall", {SYS_futex, 0x1234567890, operation});
    }
    ASSERT_EQ(Records().size(), 8u);
    for (const SyscallRecord& record : Records())
    {
        EXPECT_EQ(record.m_hdr.m_subType, 3);
        EXPECT_EQ(record.m_hdr.m_flags, ZORV_UMT_FLAG_SYSCALL_ID);
        EXPECT_EQ(record.m_funcVa, 202u);
        EXPECT_EQ(record.m_sysValue, 0x1234567890u);
    }
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_cacheLen, 0u);
}

TEST_F(StateCalls, OtherFutexOperationsAndNumbersAreNotRecorded)
{
    EnableEvent(ZORV_UMT_EVENT_LOCK);
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    for (const uint64_t operation : {1, 2, 3, 4, 5, 7, 10, 12, 13, 1 | 128, 64, 512})
    {
        CallExport("ZorvInterposeSyscall", {SYS_futex, 0x1234567890, operation});
    }
    CallExport("ZorvInterposeSyscall", {SYS_getpid});
    EXPECT_EQ(g_behind.m_calls.size(), 13u);
    EXPECT_TRUE(Records().empty());
}

// ---- fork ------------------------------------------------------------------------------------------------

TEST_F(StateCalls, AForkIsRecordedInTheParent)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL, 10);
    g_behind.m_result = 4711;
    EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 4711u);
    ExpectOneOther(0);
    EnableEvent(ZORV_UMT_EVENT_SYSCALL, 11);
    CallExport("ZorvInterposeFork", {});
    EXPECT_EQ(Records().size(), 1u) << "shorter than the threshold";
}

TEST_F(StateCalls, AForkInsideOnePauseOrWithTheEventOffOrAFailedOneIsNotRecorded)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    g_behind.m_result = static_cast<uint64_t>(-1);
    EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeFork", {})), -1);
    g_behind.m_result = 4711;
    m_controller = {true, false, 7};
    CallExport("ZorvInterposeFork", {});
    m_controller = {false, false, 0};
    m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_SYSCALL].m_enable = false;
    CallExport("ZorvInterposeFork", {});
    EXPECT_TRUE(Records().empty());
}

// In these the fake says that this is the child.
TEST_F(StateCalls, AChildThatIsNotProfiledIsFlushedStoppedAndDisabled)
{
    m_pInfo->m_umaConfig.m_profileChildren = false;
    EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 0u);
    ZorvUmaProfileInfo* pChild = ZorvUmaGetProfileInfo();
    ASSERT_NE(pChild, m_pInfo);
    EXPECT_TRUE(pChild->m_isFlush);
    EXPECT_FALSE(pChild->m_umsConfig.m_enable);
    EXPECT_FALSE(pChild->m_umtConfig.m_enable);
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(pChild));
    EXPECT_EQ(Log(), Strings{Format("INFO Process id (%d) is not sampled or traced.", getpid())});
}

TEST_F(StateCalls, NoDescendantOfAChildThatIsNotProfiledIsProfiled)
{
    Replace init("ZorvUmaInitProcess", Fails(1));
    m_pInfo->m_umaConfig.m_profileChildren = false;
    for (int generation = 0; generation < 3; generation++)
    {
        EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 0u);
        EXPECT_TRUE(ZorvUmaGetProfileInfo()->m_isFlush);
    }
    EXPECT_EQ(init.Calls(), 0);
}

TEST_F(StateCalls, AProfiledChildIsInitialisedWithARecordOfItsOwn)
{
    void* pInitialised = nullptr;
    Replace init("ZorvUmaInitProcess",
                 [&](const Call& call)
                 {
                     pInitialised = call.Arg<void*>(0);
                     return 0; // a failed start is none of fork's business
                 });
    EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 0u);
    EXPECT_NE(pInitialised, m_pInfo);
    EXPECT_EQ(pInitialised, ZorvUmaGetProfileInfo());
}

TEST_F(StateCalls, AChildWithoutRecordsSeesAFailedFork)
{
    Replace init("ZorvUmaInitProcess", Fails(1));
    {
        Replace allocate("ZorvUmaAllocateProfileInfo", Fails(0));
        EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeFork", {})), -1);
    }
    Replace allocate("ZorvUmaAllocateThreadInfo", Fails(0));
    EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeFork", {})), -1);
    EXPECT_EQ(init.Calls(), 0);
}

TEST_F(StateCalls, AForkOfAStoppedThreadStillMakesARecordForTheChild)
{
    m_pThread->m_stopCollection = true;
    Replace init("ZorvUmaInitProcess", Fails(1));
    EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 0u);
    EXPECT_EQ(init.Calls(), 1);
}

// ---- the profiling signal --------------------------------------------------------------------------------

constexpr int PROFILING = 40;

class ProfilingSignal : public StateCalls
{
protected:
    ProfilingSignal()
        : m_write("ZorvUmaWriteErrorFile",
                  [this](const Call& call)
                  {
                      EXPECT_EQ(call.Arg<void*>(0), m_pInfo);
                      EXPECT_EQ(call.Arg<int>(1), 1);
                      EXPECT_TRUE(g_behind.m_calls.empty()) << "before anything else";
                      return m_isWritten ? 1 : 0;
                  }),
          m_flush("ZorvUmaFileFlush", Fails(0)), m_exit("ZorvUmaExit",
                                                        [this](const Call& call)
                                                        {
                                                            EXPECT_EQ(call.Arg<int>(0), 0);
                                                            EXPECT_EQ(m_flush.Calls(), 1);
                                                            return 0;
                                                        })
    {
    }

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StateCalls::SetUp());
        m_pInfo->m_umsConfig.m_timerSignalNum = PROFILING;
        m_pInfo->m_umsConfig.m_enable = false;
        EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    }

    bool m_isWritten = true;
    Replace m_write;
    Replace m_flush;
    Replace m_exit;
};

void Handle(int) {}

TEST_F(ProfilingSignal, ACollisionIsWrittenThenTheHandlerInstalled)
{
    g_behind.m_result = 0x99;
    EXPECT_EQ(CallExport("ZorvInterposeSignal", {PROFILING, reinterpret_cast<uint64_t>(Handle)}), 0x99u);
    EXPECT_EQ(m_write.Calls(), 1);
    EXPECT_EQ(m_exit.Calls(), 0);
    EXPECT_EQ(g_behind.m_calls.size(), 1u);
    ExpectOneOther(0);
}

TEST_F(ProfilingSignal, ACollisionThatCannotBeWrittenIsToldAndEndsTheProcess)
{
    m_isWritten = false;
    StandardError standardError;
    CallExport("ZorvInterposeSignal", {PROFILING, reinterpret_cast<uint64_t>(Handle)});
    EXPECT_EQ(
        standardError.Take(),
        "ERROR : Application has own signal handler for signal (40). Provide un-used realtime signal with "
        "--profiling-signal.\n");
    EXPECT_EQ(m_exit.Calls(), 1);
}

TEST_F(ProfilingSignal, ARealHandlerOfSigactionDependsOnTheFlag)
{
    const auto collides = [this](int flags, void* pHandler)
    {
        g_behind.m_calls.clear();
        struct sigaction action = {};
        action.sa_flags = flags;
        action.sa_handler = reinterpret_cast<void (*)(int)>(pHandler);
        const long before = m_write.Calls();
        CallExport("ZorvInterposeSigaction", {PROFILING, Word(&action), 0});
        EXPECT_EQ(g_behind.m_calls.size(), 1u);
        return m_write.Calls() != before;
    };
    EXPECT_FALSE(collides(0, nullptr));
    EXPECT_FALSE(collides(0, reinterpret_cast<void*>(1)));
    EXPECT_TRUE(collides(0, reinterpret_cast<void*>(2)));
    EXPECT_FALSE(collides(SA_SIGINFO, nullptr));
    EXPECT_TRUE(collides(SA_SIGINFO, reinterpret_cast<void*>(1)));
    CallExport("ZorvInterposeSigaction", {PROFILING, 0, 0});
    EXPECT_EQ(m_write.Calls(), 2);
}

TEST_F(ProfilingSignal, OtherSignalsAndOtherActionsAreNoCollision)
{
    CallExport("ZorvInterposeSignal", {PROFILING + 1, reinterpret_cast<uint64_t>(Handle)});
    CallExport("ZorvInterposeSignal", {PROFILING, 0});
    CallExport("ZorvInterposeSignal", {PROFILING, 1});
    EXPECT_EQ(m_write.Calls(), 0);
    EXPECT_EQ(g_behind.m_calls.size(), 3u);
    EXPECT_EQ(Records().size(), 3u);
}

TEST_F(ProfilingSignal, ItMayBeIgnoredWhileTheProcessIsSampled)
{
    m_pInfo->m_umsConfig.m_enable = true;
    CallExport("ZorvInterposeSignal", {PROFILING, 1});
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    CallExport("ZorvInterposeSigaction", {PROFILING, Word(&action), 0});
    EXPECT_EQ(g_behind.m_calls.size(), 2u);
    EXPECT_EQ(Records().size(), 2u);
}

// ---- mmap ------------------------------------------------------------------------------------------------

class Mapping : public StateCalls
{
protected:
    Mapping()
        : m_record("fnWriteMmapRecord",
                   [this](const Call& call)
                   {
                       m_recorded.push_back(call.m_words);
                       m_path = std::string(call.Arg<const char*>(4), call.Arg<int>(5));
                       return m_isWritten ? 1 : 0;
                   }),
          m_link("ZorvUmaReadlink",
                 [this](const Call& call)
                 {
                     m_asked = call.Arg<const char*>(0);
                     EXPECT_EQ(call.Arg<size_t>(2), 4096u);
                     strcpy(call.Arg<char*>(1), "/lib/some file.so#");
                     return 17;
                 })
    {
    }

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StateCalls::SetUp());
        g_behind.m_result = 0x10000;
        m_fd = MakeMemoryFile();
    }

    void TearDown() override
    {
        close(m_fd);
        StateCalls::TearDown();
    }

    uint64_t Map(int protection, int fd)
    {
        return CallExport("ZorvInterposeMmap", {1, 0x3000, static_cast<uint64_t>(protection), MAP_PRIVATE,
                                                static_cast<uint64_t>(fd), 6});
    }

    std::string Link() const
    {
        return Format("/proc/%d/task/%d/fd/%d", getpid(), gettid(), m_fd);
    }

    int m_fd = -1;
    bool m_isWritten = true;
    std::vector<faults::Words> m_recorded;
    std::string m_path;
    std::string m_asked;
    Replace m_record;
    Replace m_link;
};

TEST_F(Mapping, AnExecutableMappingOfAFileIsListed)
{
    EXPECT_EQ(Map(PROT_READ | PROT_EXEC, m_fd), 0x10000u);
    ASSERT_EQ(m_recorded.size(), 1u);
    EXPECT_EQ(m_asked, Link());
    EXPECT_EQ(m_recorded[0][0], m_now);
    EXPECT_EQ(m_recorded[0][1], 0x10000u);
    EXPECT_EQ(m_recorded[0][2], 0x13000u);
    EXPECT_EQ(static_cast<int>(m_recorded[0][3]), m_pInfo->m_metaDataFd);
    EXPECT_EQ(m_path, "/lib/some file.so");
    EXPECT_EQ(static_cast<int>(m_recorded[0][6]), getpid());
    EXPECT_TRUE(Records().empty()) << "the class is off";
}

TEST_F(Mapping, OthersAreNotListed)
{
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    Map(PROT_READ | PROT_WRITE, m_fd);
    Map(PROT_EXEC, -1);
    Map(PROT_EXEC, 9999);
    Map(PROT_EXEC, pipes[0]);
    g_behind.m_result = static_cast<uint64_t>(-1);
    EXPECT_EQ(Map(PROT_EXEC, m_fd), static_cast<uint64_t>(-1));
    EXPECT_TRUE(m_recorded.empty());
    EXPECT_EQ(Log(), Strings{});
    close(pipes[0]);
    close(pipes[1]);
}

TEST_F(Mapping, TheCallIsRecordedWithItsAddress)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    Map(PROT_READ, -1);
    ExpectOneOther(0x10000);
    EnableEvent(ZORV_UMT_EVENT_SYSCALL, 11);
    Map(PROT_READ, -1);
    EXPECT_EQ(Records().size(), 1u);
}

TEST_F(Mapping, NothingIsListedBeforeTheStartNorAfterTheEndNorOnceStopped)
{
    m_controller.m_isStop = true;
    Map(PROT_EXEC, m_fd);
    m_controller.m_isStop = false;
    m_pInfo->m_isProcessInitialized = false;
    Map(PROT_EXEC, m_fd);
    m_pInfo->m_isProcessInitialized = true;
    m_pInfo->m_isFlush = true;
    Map(PROT_EXEC, m_fd);
    EXPECT_TRUE(m_recorded.empty());
}

TEST_F(Mapping, NothingIsListedOnceStoppedAlsoOnAThreadWithoutARecord)
{
    m_controller.m_isStop = true;
    ZorvUmaFreeThreadInfo();
    m_pThread = nullptr;
    Map(PROT_EXEC, m_fd);
    EXPECT_TRUE(m_recorded.empty());
    m_controller.m_isStop = false;
    Map(PROT_EXEC, m_fd);
    EXPECT_EQ(m_recorded.size(), 1u);
}

TEST_F(Mapping, AStoppedThreadListsWithoutRecordingTheCall)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    m_pThread->m_stopCollection = true;
    Map(PROT_EXEC, m_fd);
    EXPECT_EQ(m_recorded.size(), 1u);
    EXPECT_TRUE(Records().empty());
}

TEST_F(Mapping, FailuresAreLogged)
{
    m_isWritten = false;
    Map(PROT_EXEC, m_fd);
    {
        Replace failing("ZorvUmaReadlink", Fails(static_cast<uint64_t>(-1), EACCES));
        Map(PROT_EXEC, m_fd);
    }
    {
        NoMemory none(4096, 4097);
        Map(PROT_EXEC, m_fd);
    }
    EXPECT_EQ(Log(), (Strings{"ERROR Failed to write mmap record in mmap.",
                              "ERROR Failed to read symbolic link " + Link() + " : Permission denied.",
                              "ERROR Failed to allocate memory to read symbolic link " + Link() + "."}));
    for (const LogLine& line : ReadLog(m_logFd))
    {
        EXPECT_EQ(line.m_function, "ZorvInterposeMmap");
    }
}

TEST_F(Mapping, WithoutAMetadataFileTheFailedRecordIsLogged)
{
    close(m_pInfo->m_metaDataFd);
    m_pInfo->m_metaDataFd = -1;
    m_isWritten = false;
    Map(PROT_EXEC, m_fd);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to write mmap record in mmap."});
}

// ---- dlmopen ---------------------------------------------------------------------------------------------

TEST_F(StateCalls, ALoadListsTheModulesAgain)
{
    std::vector<faults::Words> scans;
    bool isListed = true;
    Replace scan("fnWriteProcessMaps",
                 [&](const Call& call)
                 {
                     EXPECT_EQ(g_behind.m_calls.size(), 1u) << "after the real call";
                     scans.push_back(call.m_words);
                     return isListed ? 1 : 0;
                 });
    const auto load = []
    {
        g_behind.m_calls.clear();
        return CallExport("ZorvInterposeDlmopen_2_3_4", {0, Word("/lib/a.so"), RTLD_NOW});
    };
    EXPECT_EQ(load(), 0u);
    EXPECT_TRUE(scans.empty()) << "no handle";
    g_behind.m_result = 0x5000;
    EXPECT_EQ(load(), 0x5000u);
    ASSERT_EQ(scans.size(), 1u);
    EXPECT_EQ(static_cast<int>(scans[0][0]), getpid());
    EXPECT_EQ(static_cast<int>(scans[0][1]), m_pInfo->m_metaDataFd);
    EXPECT_EQ(Log(), Strings{});

    isListed = false;
    load();
    EXPECT_EQ(Log(), Strings{"ERROR Failed to write mmap records in dlopen."});
    EXPECT_EQ(ReadLog(m_logFd)[0].m_function, "ZorvInterposeDlmopen_2_3_4");

    close(m_pInfo->m_metaDataFd);
    m_pInfo->m_metaDataFd = -1;
    load();
    EXPECT_EQ(scans.size(), 2u);
}

TEST_F(StateCalls, AModuleByItsBareNameIsLoadedByOneCallWithTheArgumentsOfTheProgram)
{
    Replace scan("fnWriteProcessMaps", Fails(1));
    g_behind.m_result = 0x5000;
    const char* pName = "libsomething.so.3";
    EXPECT_EQ(CallExport("ZorvInterposeDlmopen_2_34", {0, Word(pName), RTLD_LAZY}), 0x5000u);
    ASSERT_EQ(g_behind.m_calls.size(), 1u);
    EXPECT_EQ(g_behind.m_calls[0][1], Word(pName));
    EXPECT_EQ(static_cast<int>(g_behind.m_calls[0][2]), RTLD_LAZY);
}

// ---- prctl -----------------------------------------------------------------------------------------------

TEST_F(StateCalls, ANewNameIsWrittenAndTheCallRecorded)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    faults::Words written{};
    std::string name;
    Replace write("ZorvUmaWriteProcRecord",
                  [&](const Call& call)
                  {
                      written = call.m_words;
                      name = call.Arg<const char*>(2);
                      return 0;
                  });
    Replace get("ZorvUmaGetThreadName",
                [](const Call& call)
                {
                    EXPECT_TRUE(IsAllZero(call.Arg<const char*>(0), 32));
                    strcpy(call.Arg<char*>(0), "renamed");
                    return 0;
                });
    EXPECT_EQ(CallExport("ZorvInterposePrctl", {PR_SET_NAME, 2, 3, 4, 5}), 0u);
    EXPECT_EQ(g_behind.m_calls[0][4], 5u);
    EXPECT_EQ(written[0], Word(m_pInfo));
    EXPECT_EQ(static_cast<int>(written[1]), gettid());
    EXPECT_EQ(name, "renamed");
    EXPECT_EQ(static_cast<int>(written[3]), 7);
    EXPECT_EQ(written[4], m_now);
    EXPECT_EQ(written[5], 0u);
    ExpectOneOther(0);
}

TEST_F(StateCalls, OtherOptionsFailuresAndStoppedThreadsWriteNoName)
{
    Replace write("ZorvUmaWriteProcRecord", Fails(0));
    CallExport("ZorvInterposePrctl", {PR_GET_NAME, 2});
    g_behind.m_result = static_cast<uint64_t>(-1);
    EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposePrctl", {PR_SET_NAME, 2})), -1);
    g_behind.m_result = 0;
    {
        Replace get("ZorvUmaGetThreadName", Fails(static_cast<uint64_t>(-1)));
        CallExport("ZorvInterposePrctl", {PR_SET_NAME, 2});
    }
    m_pThread->m_stopCollection = true;
    CallExport("ZorvInterposePrctl", {PR_SET_NAME, 2});
    EXPECT_EQ(write.Calls(), 0);
    EXPECT_EQ(g_behind.m_calls.size(), 4u);
    EXPECT_TRUE(Records().empty());
}

} // namespace
