// Start and end of the process record: the order of the steps, each failure, and the files that result.
#include "Support.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <semaphore>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::FailsOn;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

const char* const SAMPLING = "QELIX_ENABLE_SAMPLING=1\nQELIX_PROFILING_SIGNAL_NUMBER=27\n";

class Process : public AgentTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        for (const char* pFolder : {".log", ".error", "out"})
        {
            std::filesystem::create_directory(m_directory / pFolder);
        }
        setenv("QELIX_SESSION_DIR", m_directory.Path().c_str(), 1);
        setenv("QELIX_UMA_CONFIG_FILE", (m_directory / "configuration").c_str(), 1);
        m_name = Format("/unit-%d", getpid());
        const std::string out = m_directory / "out";
        m_configuration = "QELIX_TRACE_PTHREAD=1\nQELIX_UMT_DIR=" + out + "\nQELIX_METADATA_DIR=" + out +
                          "\nQELIX_CPU_PROFILE_DIR=" + out + "\nQELIX_MPI_RANK_ID=-2\n";
        m_pInfo->m_logFd = -1;
        ZorvUmaAllocateThreadInfo(m_pInfo);
    }

    void TearDown() override
    {
        shm_unlink(m_name.c_str());
        unsetenv("QELIX_SESSION_DIR");
        unsetenv("QELIX_UMA_CONFIG_FILE");
        unsetenv("LD_PRELOAD");
        AgentTest::TearDown();
    }

    bool Init(const std::string& more = "")
    {
        std::ofstream(m_directory / "configuration")
            << m_configuration << more << "QELIX_SHM_NAME=" << m_name << "\n";
        return ZorvUmaInitProcess(m_pInfo);
    }

    void Fini(bool isFromWriterThread = false)
    {
        ZorvUmaFiniProcess(m_pInfo, isFromWriterThread);
    }

    std::string OutFile(const char* pName, const char* pFormat)
    {
        return m_directory / Format("out/%s_%s_%d.%s", pName, HostName().c_str(), getpid(), pFormat);
    }

    // The one file in the log folder, also after the agent closed it.
    Strings SessionLog()
    {
        for (const auto& entry : std::filesystem::directory_iterator(m_directory / ".log"))
        {
            const int fd = open(entry.path().c_str(), O_RDONLY);
            Strings messages = LogMessages(fd);
            close(fd);
            return messages;
        }
        return {};
    }

    TemporaryDirectory m_directory;
    std::string m_name;
    std::string m_configuration;
};

// ---- start -----------------------------------------------------------------------------------------------

TEST_F(Process, StartsInThisOrder)
{
    CallLog calls{"ZorvUmaGetTime",       "ZorvUmaOpenLogAndErrorFile", "ZorvUmaAllocateCsBuf",
                  "ZorvUmaSemInit",       "ZorvUmaInitSharedMemory",    "ZorvUmaCreateQueue",
                  "ZorvUmaPthreadCreate", "ZorvUmsWritePcmMetadata",    "ZorvUmaWriteProcRecord"};
    Replace writer("ZorvUmaPthreadCreate",
                   [this](const Call& call)
                   {
                       EXPECT_EQ(call.Arg<pthread_t*>(0), &m_pInfo->m_writerThreadId);
                       EXPECT_EQ(call.m_words[3], reinterpret_cast<uint64_t>(m_pInfo));
                       EXPECT_FALSE(m_pInfo->m_isProcessInitialized);
                       return call.PassOn();
                   });
    EXPECT_TRUE(Init());
    EXPECT_TRUE(m_pInfo->m_isProcessInitialized);
    Strings names = calls.Names();
    names.resize(names.size() < 9 ? names.size() : 9);
    EXPECT_EQ(names, (Strings{"ZorvUmaGetTime", "ZorvUmaOpenLogAndErrorFile", "ZorvUmaAllocateCsBuf",
                              "ZorvUmaSemInit", "ZorvUmaInitSharedMemory", "ZorvUmaCreateQueue",
                              "ZorvUmaPthreadCreate", "ZorvUmsWritePcmMetadata", "ZorvUmaWriteProcRecord"}));
    for (const Call& call : calls.Calls())
    {
        if (std::string(call.m_pName) == "ZorvUmaSemInit")
        {
            EXPECT_EQ(call.Arg<sem_t*>(0), &m_pInfo->m_semaphore);
            EXPECT_EQ(call.Arg<int>(1), 0);
            EXPECT_EQ(call.Arg<unsigned>(2), 0u);
        }
    }
    Fini();
}

TEST_F(Process, TheMainThreadsProcRecordHasNoNameAndHandleZero)
{
    CallLog calls{"ZorvUmaGetTime", "ZorvUmaWriteProcRecord"};
    ASSERT_TRUE(Init());
    const auto isProc = [](const Call& call) { return std::string(call.m_pName) == "ZorvUmaWriteProcRecord"; };
    const auto pRecord = std::find_if(calls.Calls().begin(), calls.Calls().end(), isProc);
    ASSERT_NE(pRecord, calls.Calls().end());
    EXPECT_EQ(pRecord->Arg<int32_t>(1), getpid());
    EXPECT_EQ(pRecord->m_words[2], 0u);
    EXPECT_EQ(pRecord->Arg<int>(3), 0);
    EXPECT_EQ(pRecord->m_words[5], 0u);
    Fini();
}

TEST_F(Process, FileHeadersComeFirst)
{
    ASSERT_TRUE(Init(SAMPLING));
    Fini();
    for (const std::string& path : {OutFile("trace", "umt"), OutFile("profile", "ums")})
    {
        const std::string bytes = ReadWhole(path);
        ASSERT_GE(bytes.size(), sizeof(StreamFileHeader)) << path;
        StreamFileHeader header;
        memcpy(&header, bytes.data(), sizeof header);
        EXPECT_EQ(header.m_magicNum, MINUS_ONE);
        EXPECT_EQ(header.m_pid, getpid());
        EXPECT_EQ(header.m_mpiRankId, -2) << "sign-extended";
        EXPECT_EQ(header.m_fileVersion, 2);
        EXPECT_EQ(header.m_reserved1, 0);
        EXPECT_EQ(header.m_reserved2, 0u);
    }
    const std::string bytes = ReadWhole(OutFile("metadata", "meta"));
    ASSERT_GE(bytes.size(), sizeof(MetadataFileHeader));
    MetadataFileHeader header;
    memcpy(&header, bytes.data(), sizeof header);
    EXPECT_EQ(header.m_magicNum, MINUS_ONE);
    EXPECT_EQ(header.m_pid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(header.m_reserved, 0);
    EXPECT_EQ(header.m_fileVersion, 1);
}

TEST_F(Process, AStreamThatIsDisabledGetsAnEmptyFile)
{
    ASSERT_TRUE(Init());
    Fini();
    EXPECT_EQ(std::filesystem::file_size(OutFile("profile", "ums")), 0u);
}

TEST_F(Process, ShortHeadersAreLoggedAndTheStartGoesOn)
{
    Replace write("ZorvUmaWrite",
                  [this](const Call& call)
                  {
                      const int fd = call.Arg<int>(0);
                      const bool isData = fd == m_pInfo->m_umtData.m_fd || fd == m_pInfo->m_umsData.m_fd ||
                                          fd == m_pInfo->m_metaDataFd;
                      return isData ? 1 : call.PassOn();
                  });
    EXPECT_TRUE(Init(SAMPLING));
    Strings headers;
    for (const std::string& message : SessionLog())
    {
        if (message.find("write the header into") != std::string::npos)
        {
            headers.push_back(message);
        }
    }
    EXPECT_EQ(
        headers,
        (Strings{Format("ERROR Failed to write the header into metadata file in process (%d).", getpid()),
                 Format("ERROR Failed to write the header into sampling file in process (%d).", getpid()),
                 Format("ERROR Failed to write the header into tracing file in process (%d).", getpid())}));
    Fini();
}

struct FailingStep
{
    const char* m_pName;
    uint64_t m_result;
    const char* m_pMessage;
};

class ProcessStep : public Process, public testing::WithParamInterface<FailingStep>
{
};

TEST_P(ProcessStep, ThatFailsIsLoggedAndEndsTheStart)
{
    const FailingStep& step = GetParam();
    Replace failing(step.m_pName, Fails(step.m_result));
    EXPECT_FALSE(Init());
    EXPECT_FALSE(m_pInfo->m_isProcessInitialized);
    ASSERT_FALSE(SessionLog().empty());
    std::string message = step.m_pMessage;
    if (message.ends_with("(pid)"))
    {
        message.replace(message.size() - 5, 5, Format("(%d)", getpid()));
    }
    EXPECT_EQ(SessionLog().back(), "ERROR " + message);
}

// What opened is closed; what does not exist is neither joined, locked nor closed.
TEST_P(ProcessStep, ThatFailedLeavesAProcessThatCanBeFinalised)
{
    const FailingStep& step = GetParam();
    {
        Replace failing(step.m_pName, Fails(step.m_result));
        EXPECT_FALSE(Init());
    }
    const int traceFd = m_pInfo->m_umtData.m_fd;
    CallLog joins{"ZorvUmaPthreadJoin"};
    Fini();
    EXPECT_TRUE(joins.Calls().empty()) << "there is no writer";
    EXPECT_TRUE(m_pInfo->m_isFlush);
    EXPECT_EQ(m_pInfo->m_logFd, -1);
    EXPECT_EQ(m_pInfo->m_umtData.m_fd, -1);
    EXPECT_TRUE(traceFd < 0 || !IsOpen(traceFd));
}

const FailingStep g_steps[] = {
    {"ZorvUmaAllocateCsBuf", 0, "Failed to read config file in process (pid)"},
    {"ZorvUmaSemInit", MINUS_ONE, "Failed to initialize the semaphore."},
    {"ZorvUmaInitSharedMemory", 0, "Failed to Initialize the shared memory."},
    {"ZorvUmaCreateQueue", 0, "Failed to create the queue."},
    {"ZorvUmaPthreadCreate", EAGAIN, "Failed to create a writer thread in process (pid)"},
};

INSTANTIATE_TEST_SUITE_P(, ProcessStep, testing::ValuesIn(g_steps),
                         [](const auto& info) { return std::string(info.param.m_pName); });

TEST_F(Process, WithoutASharedMemoryNameTheStartFails)
{
    std::ofstream(m_directory / "configuration") << m_configuration;
    EXPECT_FALSE(ZorvUmaInitProcess(m_pInfo));
    EXPECT_EQ(SessionLog(), Strings{"ERROR Failed to Initialize the shared memory."});
    Fini();
}

TEST_F(Process, NullRecordsAreRefused)
{
    EXPECT_FALSE(ZorvUmaInitProcess(nullptr));
    ZorvUmaFiniProcess(nullptr, false);
}

// The writer takes no signal that is sent to the process.
TEST_F(Process, TheWriterStartsWithItsSignalsBlocked)
{
    ASSERT_TRUE(Init());
    const auto blockedOf = [](const std::string& status)
    { return std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16); };
    int writers = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
    {
        const std::string status = ReadWhole(entry.path().string() + "/status");
        if (status.find("ZorUmtWriter") == std::string::npos)
        {
            continue;
        }
        writers++;
        const uint64_t always = (1ULL << 8) | (1ULL << 18) | (3ULL << 31); // SIGKILL, SIGSTOP, libc's own two
        EXPECT_EQ(blockedOf(status) | always, MINUS_ONE);
        EXPECT_EQ(blockedOf(status) & (3ULL << 31), 0u) << "libc's own two stay open";
    }
    EXPECT_LE(writers, 1);
    EXPECT_EQ(blockedOf(ReadWhole(std::string("/proc/thread-self/status"))), 0u)
        << "the program's mask is restored";
    Fini();
}

// ---- the allocator that cannot be traced -----------------------------------------------------------------

class Jemalloc : public Process
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(Process::SetUp());
        setenv("LD_PRELOAD", "/usr/lib/libother.so:/usr/lib/libjemalloc.so.2", 1);
    }

    // Runs the start in a child, since it ends the process.
    int StatusOf(const std::function<void()>& start)
    {
        const pid_t child = fork();
        if (child == 0)
        {
            start();
            _exit(77);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

TEST_F(Jemalloc, WithTracingTheCodeIsWrittenAndTheProcessEnds)
{
    Replace code("ZorvUmaWriteErrorFile",
                 [this](const Call& call)
                 {
                     EXPECT_EQ(call.Arg<ZorvUmaProfileInfo*>(0), m_pInfo);
                     EXPECT_EQ(call.Arg<int>(1), 3);
                     _exit(55);
                     return 0;
                 });
    EXPECT_EQ(StatusOf([this] { Init(); }), 55);
}

TEST_F(Jemalloc, WithoutTheErrorFileStandardErrorSaysSoAndTheProcessEnds)
{
    StandardError standardError;
    Replace code("ZorvUmaWriteErrorFile", Fails(0));
    EXPECT_EQ(StatusOf([this] { Init(); }), 0);
    EXPECT_EQ(standardError.Take(),
              "Failed to collect data as libjemalloc is loaded with LD_PRELOAD.\n"
              "       Please try removing libjemalloc from LD_PRELOAD environment variable.\n");
}

TEST_F(Jemalloc, WithOnlySamplingConfiguredTheCheckIsSkipped)
{
    m_configuration = SAMPLING;
    Replace code("ZorvUmaWriteErrorFile", Fails(0));
    EXPECT_TRUE(Init());
    EXPECT_EQ(code.Calls(), 0);
    Fini();
}

// ---- end -------------------------------------------------------------------------------------------------

TEST_F(Process, EndsInThisOrder)
{
    ASSERT_TRUE(Init(SAMPLING));
    CallLog calls{"ZorvUmaWriteThreadEndRecord", "ZorvUmaPthreadJoin",          "ZorvUmaFiniDataWriting",
                  "ZorvUmaDestroyQueue",         "ZorvUmaCloseLogAndErrorFile", "ZorvUmaFiniSharedMemory",
                  "ZorvUmaFreeThreadInfo"};
    const pthread_t writer = m_pInfo->m_writerThreadId;
    Fini();
    Strings names = calls.Names();
    // the writer frees a record of its own while it is joined
    const auto join = std::find(names.begin(), names.end(), "ZorvUmaPthreadJoin");
    names.erase(std::remove(names.begin(), names.end() - 1, "ZorvUmaFreeThreadInfo"), names.end() - 1);
    ASSERT_NE(join, names.end());
    EXPECT_EQ(names, (Strings{"ZorvUmaWriteThreadEndRecord", "ZorvUmaPthreadJoin", "ZorvUmaFiniDataWriting",
                              "ZorvUmaFiniDataWriting", "ZorvUmaDestroyQueue", "ZorvUmaCloseLogAndErrorFile",
                              "ZorvUmaFiniSharedMemory", "ZorvUmaFreeThreadInfo"}));
    std::vector<void*> streams;
    for (const Call& call : calls.Calls())
    {
        if (std::string(call.m_pName) == "ZorvUmaFiniDataWriting")
        {
            streams.push_back(call.Arg<void*>(0));
            EXPECT_FALSE(call.Arg<bool>(2));
        }
        if (std::string(call.m_pName) == "ZorvUmaPthreadJoin")
        {
            EXPECT_EQ(call.Arg<pthread_t>(0), writer);
        }
    }
    EXPECT_EQ(streams, (std::vector<void*>{&m_pInfo->m_umtData, &m_pInfo->m_umsData}));
}

TEST_F(Process, EndLeavesNothingOpenAndNothingEnabled)
{
    ASSERT_TRUE(Init(SAMPLING));
    const int fds[] = {m_pInfo->m_logFd,        m_pInfo->m_errFd,        m_pInfo->m_metaDataFd,
                       m_pInfo->m_umtData.m_fd, m_pInfo->m_umsData.m_fd, m_pInfo->m_shmFd};
    Fini();
    EXPECT_TRUE(m_pInfo->m_isFlush);
    EXPECT_FALSE(m_pInfo->m_umtConfig.m_enable || m_pInfo->m_umsConfig.m_enable);
    for (const int fd : fds)
    {
        EXPECT_FALSE(IsOpen(fd)) << fd;
    }
    EXPECT_EQ(m_pInfo->m_metaDataFd, -1);
    EXPECT_EQ(m_pInfo->m_logFd, -1);
    EXPECT_EQ(m_pInfo->m_errFd, -1);
    EXPECT_EQ(m_pInfo->m_pMappedAddr, nullptr);
    const Strings log = SessionLog();
    EXPECT_NE(std::find(log.begin(), log.end(), "INFO Lost trace records count = 0"), log.end());
    EXPECT_NE(std::find(log.begin(), log.end(), "INFO Lost sample records count = 0"), log.end());
    for (const std::string& message : log)
    {
        EXPECT_TRUE(message.starts_with("INFO ")) << message;
    }
}

TEST_F(Process, EndingTwiceFreesOnlyTheThreadRecord)
{
    ASSERT_TRUE(Init());
    Fini();
    ZorvUmaAllocateThreadInfo(m_pInfo);
    CallLog calls{"ZorvUmaWriteThreadEndRecord",
                  "ZorvUmaPthreadJoin",
                  "ZorvUmaFiniDataWriting",
                  "ZorvUmaFsync",
                  "ZorvUmaClose",
                  "ZorvUmaFreeThreadInfo"};
    Fini();
    EXPECT_EQ(calls.Names(), Strings{"ZorvUmaFreeThreadInfo"});
}

TEST_F(Process, EndFromTheWriterNeitherJoinsNorWritesAThreadEnd)
{
    ASSERT_TRUE(Init());
    {
        CallLog calls{"ZorvUmaWriteThreadEndRecord", "ZorvUmaPthreadJoin", "ZorvUmaFiniDataWriting"};
        Fini(true);
        EXPECT_EQ(calls.Names(), Strings{"ZorvUmaFiniDataWriting"});
        EXPECT_TRUE(calls.Calls()[0].Arg<bool>(2));
    }
    pthread_join(m_pInfo->m_writerThreadId, nullptr);
}

// What a child that is finalised does, as it tells its parent.
std::string FiniInRawChild(const std::function<void()>& fini)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = static_cast<pid_t>(syscall(SYS_fork)); // past every interposer and handler
    if (child == 0)
    {
        CallLog calls{"ZorvUmaWriteProcRecord", "ZorvUmaWriteThreadEndRecord", "ZorvUmaPthreadJoin",
                      "ZorvUmaFiniDataWriting", "ZorvUmaFreeThreadInfo"};
        fini();
        std::string told;
        for (const Call& call : calls.Calls())
        {
            told += Format("%s %d %lu %d %lx %lu", call.m_pName, call.Arg<int>(1) == getpid(), call.m_words[2],
                           call.Arg<int>(3), call.m_words[4], call.m_words[5]);
        }
        (void)!write(ends[1], told.data(), told.size());
        _exit(0);
    }
    close(ends[1]);
    char told[512] = {};
    EXPECT_GE(read(ends[0], told, sizeof told - 1), 0);
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return told;
}

// A child that did not pass through the fork interposer still holds its parent's record.
TEST_F(Process, EndInAChildThatHoldsItsParentsRecordTouchesNoFile)
{
    ASSERT_TRUE(Init());
    const std::string told = FiniInRawChild([this] { Fini(); });
    EXPECT_EQ(told, "ZorvUmaWriteProcRecord 1 0 0 ffffffffffffffff 0") << "thread, name, length, time, handle";
    int lines = 0;
    for (const std::string& message : SessionLog())
    {
        lines += message.starts_with(Format("INFO Finish process for (%d) is from other process (", getpid()));
    }
    EXPECT_EQ(lines, 1);
    EXPECT_FALSE(m_pInfo->m_isFlush);
    EXPECT_TRUE(IsOpen(m_pInfo->m_umtData.m_fd));
    Fini();
    EXPECT_GE(std::filesystem::file_size(OutFile("trace", "umt")), sizeof(StreamFileHeader) + TRACE_PROC_SIZE);
}

// After the end another thread may still be inside a traced call, holding a provisional record's buffer.
TEST_F(Process, AfterTheEndACaptureIntoAHeldBufferIsSafe)
{
    ASSERT_TRUE(Init());
    std::binary_semaphore parked{0};
    std::binary_semaphore finalised{0};
    std::vector<void*> held; // node and storage
    std::thread blocked(
        [&]
        {
            ASSERT_NE(ZorvUmaAllocateThreadInfo(m_pInfo), nullptr);
            ZorvUmaBuffer* pCache = ZorvUmtCachePthreadRecord(m_pInfo, 1, 2, 3, ZORV_PTHREAD_LOCK_MUTEX);
            ASSERT_NE(pCache, nullptr);
            held = {pCache, pCache->m_pData};
            parked.release();
            finalised.acquire();
            EXPECT_EQ(pCache->m_pData, held[1]);
            ZorvUmtCapturePthreadRecord(m_pInfo, 1, 5, 2, 3, 0, ZORV_PTHREAD_LOCK_MUTEX, pCache);
            pCache->m_cacheLen = 0;
            EXPECT_EQ(ZorvUmtCachePthreadRecord(m_pInfo, 1, 2, 3, ZORV_PTHREAD_LOCK_MUTEX), nullptr);
            ZorvUmaFreeThreadInfo();
        });
    parked.acquire();
    {
        CallLog frees{"ZorvUmaFree"};
        Fini();
        for (const Call& call : frees.Calls())
        {
            EXPECT_EQ(std::count(held.begin(), held.end(), call.Arg<void*>(0)), 0);
        }
    }
    finalised.release();
    blocked.join();
}

// ---- a record of another process -------------------------------------------------------------------------

// Whoever puts another process's id into the record is told so, also where this process allocated it.
TEST_F(RecordingTest, EndWithAnotherProcessesIdWritesAProcRecordAndSaysSo)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
    ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umsData, m_logFd));
    m_pInfo->m_pid = getpid() + 1;
    ZorvUmaFiniProcess(m_pInfo, false);
    EXPECT_EQ(Log(), (Strings{Format("INFO Finish process for (%d) is from other process (%d).", getpid() + 1,
                                     getpid())}));
    EXPECT_FALSE(m_pInfo->m_isFlush);
    ASSERT_NE(m_pThread->m_pUmtBuf, nullptr);
    const TraceHeader header = ReadAt<TraceHeader>(m_pThread->m_pUmtBuf, 0);
    EXPECT_EQ(header.m_recType, ZORV_UMT_RECORD_PROC);
    EXPECT_EQ(header.m_startTime, ~uint64_t{0});
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_dataLen, TRACE_PROC_SIZE);
    ASSERT_NE(m_pThread->m_pUmsBuf, nullptr);
    EXPECT_EQ(m_pThread->m_pUmsBuf->m_dataLen, SAMPLE_PROC_SIZE);
}

} // namespace
