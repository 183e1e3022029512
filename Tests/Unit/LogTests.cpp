// The log line, the log and error files, and the clock.
#include "Support.h"

#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/syscall.h>
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

// ---- one line --------------------------------------------------------------------------------------------

class LogLines : public AgentTest
{
protected:
    std::string LineOf(int type)
    {
        const int fd = MakeMemoryFile();
        EXPECT_EQ(ZorvUmaWriteLogFile(fd, type, "Somewhere", 42, "value %d of %s", 7, "x"), 0);
        std::string text = ReadWhole(fd);
        close(fd);
        return text;
    }
};

TEST_F(LogLines, EachLevelHasItsPrefix)
{
    const int pid = getpid();
    const int tid = static_cast<int>(syscall(SYS_gettid));
    EXPECT_EQ(LineOf(ZORV_UMA_LOG_TYPE_ERROR), "ERROR : Somewhere : 42 : value 7 of x\n");
    EXPECT_EQ(LineOf(ZORV_UMA_LOG_TYPE_DEBUG), "DEBUG : Somewhere : 42 : value 7 of x\n");
    EXPECT_EQ(LineOf(ZORV_UMA_LOG_TYPE_WARN), "WARN : Somewhere : 42 : value 7 of x\n");
    EXPECT_EQ(LineOf(ZORV_UMA_LOG_TYPE_TRACE),
              Format("TRACE : Somewhere : 42 : %d : %d: value 7 of x\n", pid, tid));
    EXPECT_EQ(LineOf(ZORV_UMA_LOG_TYPE_INFO), Format("INFO : %d : %d: value 7 of x\n", pid, tid));
}

TEST_F(LogLines, NoneAndUnknownLevelsHaveNoPrefix)
{
    EXPECT_EQ(LineOf(ZORV_UMA_LOG_TYPE_NONE), "value 7 of x\n");
    EXPECT_EQ(LineOf(6), "value 7 of x\n");
    EXPECT_EQ(LineOf(-1), "value 7 of x\n");
}

TEST_F(LogLines, NothingIsDoneWithoutDescriptorFunctionOrFormat)
{
    const int fd = MakeMemoryFile();
    CallLog calls{"ZorvUmaMalloc", "ZorvUmaCalloc", "ZorvUmaWrite", "ZorvUmaFsync"};
    EXPECT_EQ(ZorvUmaWriteLogFile(-1, ZORV_UMA_LOG_TYPE_ERROR, "F", 1, "text"), 0);
    EXPECT_EQ(ZorvUmaWriteLogFile(fd, ZORV_UMA_LOG_TYPE_ERROR, nullptr, 1, "text"), 0);
    EXPECT_EQ(ZorvUmaWriteLogFile(fd, ZORV_UMA_LOG_TYPE_ERROR, "F", 1, nullptr), 0);
    EXPECT_EQ(calls.Names(), Strings{});
    EXPECT_EQ(ReadWhole(fd), "");
    close(fd);
}

TEST_F(LogLines, OneWriteThenASync)
{
    CallLog calls{"ZorvUmaWrite", "ZorvUmaFsync"};
    LineOf(ZORV_UMA_LOG_TYPE_ERROR);
    ASSERT_EQ(calls.Names(), (Strings{"ZorvUmaWrite", "ZorvUmaFsync"}));
    EXPECT_EQ(calls.Calls()[0].Arg<int>(0), calls.Calls()[1].Arg<int>(0));
}

TEST_F(LogLines, AShortWriteIsDroppedSilentlyWithoutASync)
{
    StandardError standardError;
    Replace write("ZorvUmaWrite", Fails(3));
    Replace sync("ZorvUmaFsync", Fails(0));
    EXPECT_EQ(ZorvUmaWriteLogFile(m_logFd, ZORV_UMA_LOG_TYPE_ERROR, "F", 1, "text"), 0);
    EXPECT_EQ(write.Calls(), 1);
    EXPECT_EQ(sync.Calls(), 0);
    EXPECT_EQ(standardError.Take(), "");
}

// The buffer may not go through anything that the program could have replaced, so it is never given back.
TEST_F(LogLines, TheBufferIsNotGivenBack)
{
    CallLog calls{"ZorvUmaMalloc", "ZorvUmaCalloc", "ZorvUmaFree"};
    LineOf(ZORV_UMA_LOG_TYPE_ERROR);
    ASSERT_EQ(calls.Calls().size(), 1u);
    const Call& call = calls.Calls()[0];
    const bool isCalloc = std::string(call.m_pName) == "ZorvUmaCalloc";
    EXPECT_EQ(call.m_words[0] * (isCalloc ? call.m_words[1] : 1), 1024u);
}

TEST_F(LogLines, WithoutMemoryNothingIsWritten)
{
    faults::NoMemory noMemory;
    EXPECT_EQ(LineOf(ZORV_UMA_LOG_TYPE_ERROR), "");
    EXPECT_EQ(noMemory.Refused(), 1);
}

// The message gets 1,022 bytes less the prefix, its terminating zero included.
TEST_F(LogLines, TheLongestMessageThatFits)
{
    const std::string prefix = "ERROR : F : 1 : ";
    const std::string message(1022 - prefix.size() - 1, 'm');
    ZorvUmaWriteLogFile(m_logFd, ZORV_UMA_LOG_TYPE_ERROR, "F", 1, "%s", message.c_str());
    EXPECT_EQ(ReadWhole(m_logFd), prefix + message + "\n");
}

TEST_F(LogLines, TheFormattingIsGivenTheBoundLessThePrefix)
{
    std::vector<size_t> limits;
    Replace format("ZorvUmaVsnprintf",
                   [&](const Call& call)
                   {
                       limits.push_back(call.Arg<size_t>(1));
                       return call.PassOn();
                   });
    ZorvUmaWriteLogFile(m_logFd, ZORV_UMA_LOG_TYPE_ERROR, "F", 1, "%s", "x");
    ASSERT_FALSE(limits.empty());
    EXPECT_EQ(limits.back(), 1022 - strlen("ERROR : F : 1 : "));
}

// Longer ones are outside of the contract, but nothing behind the buffer may be touched.
TEST_F(LogLines, ALongerMessageStaysInsideTheBuffer)
{
    for (const size_t size : {1007u, 1008u, 1023u, 1024u, 5000u})
    {
        const int fd = MakeMemoryFile();
        ZorvUmaWriteLogFile(fd, ZORV_UMA_LOG_TYPE_ERROR, "F", 1, "%s", std::string(size, 'm').c_str());
        EXPECT_LE(ReadWhole(fd).size(), 1024u) << size;
        close(fd);
    }
}

// ---- the two files ---------------------------------------------------------------------------------------

class LogFiles : public AgentTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        m_pInfo->m_logFd = -1;
        setenv("QELIX_SESSION_DIR", m_directory.Path().c_str(), 1);
        std::filesystem::create_directory(m_directory / ".log");
        std::filesystem::create_directory(m_directory / ".error");
    }

    void TearDown() override
    {
        unsetenv("QELIX_SESSION_DIR");
        AgentTest::TearDown();
    }

    void ExpectNothingOpen()
    {
        EXPECT_FALSE(ZorvUmaOpenLogAndErrorFile(m_pInfo));
        EXPECT_EQ(m_pInfo->m_logFd, -1);
        EXPECT_EQ(m_pInfo->m_errFd, -1);
    }

    std::string Name(const char* pFormat)
    {
        char threadName[32] = {};
        pthread_getname_np(pthread_self(), threadName, sizeof threadName);
        const std::string host = HostName();
        return m_directory / (pFormat + host + "_" + threadName + "_" + std::to_string(getpid()));
    }

    TemporaryDirectory m_directory;
};

TEST_F(LogFiles, AreNamedAfterHostThreadAndProcess)
{
    CallLog opens{"fnOpenFile"};
    EXPECT_TRUE(ZorvUmaOpenLogAndErrorFile(m_pInfo));
    EXPECT_GE(m_pInfo->m_logFd, 0);
    EXPECT_GE(m_pInfo->m_errFd, 0);
    EXPECT_TRUE(std::filesystem::exists(Name(".log/ZorvUmtAgent_") + ".txt"));
    EXPECT_TRUE(std::filesystem::exists(Name(".error/ZorvUmtError_") + ".err"));
    ASSERT_EQ(opens.Calls().size(), 2u);
    for (const Call& call : opens.Calls())
    {
        EXPECT_EQ(call.Arg<int>(1), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC);
        EXPECT_EQ(call.Arg<mode_t>(2), 0644u);
    }
}

TEST_F(LogFiles, HaveTheNumbersThatTheOpeningGave)
{
    const int files[] = {MakeMemoryFile(), MakeMemoryFile()};
    Replace open("fnOpenFile", [&](const Call& call) { return files[call.m_number - 1]; });
    EXPECT_TRUE(ZorvUmaOpenLogAndErrorFile(m_pInfo));
    EXPECT_EQ(m_pInfo->m_logFd, files[0]);
    EXPECT_EQ(m_pInfo->m_errFd, files[1]);
    EXPECT_TRUE(IsOpen(files[0]) && IsOpen(files[1]));
}

TEST_F(LogFiles, NothingIsOpenedWithoutASessionDirectory)
{
    unsetenv("QELIX_SESSION_DIR");
    CallLog opens{"fnOpenFile"};
    ExpectNothingOpen();
    EXPECT_TRUE(opens.Calls().empty());
}

TEST_F(LogFiles, NothingIsOpenedWithoutAHostName)
{
    Replace host("ZorvUmaGetHostName", Fails(MINUS_ONE));
    ExpectNothingOpen();
}

TEST_F(LogFiles, NothingIsOpenedWithoutAThreadName)
{
    Replace name("ZorvUmaGetCurrentThreadName", Fails(0));
    ExpectNothingOpen();
}

TEST_F(LogFiles, BothMustOpen)
{
    std::filesystem::remove(m_directory / ".error");
    EXPECT_FALSE(ZorvUmaOpenLogAndErrorFile(m_pInfo));
    EXPECT_GE(m_pInfo->m_logFd, 0);
    EXPECT_LT(m_pInfo->m_errFd, 0);
}

TEST_F(LogFiles, ClosingSyncsEachOpenOneAndForgetsIt)
{
    ASSERT_TRUE(ZorvUmaOpenLogAndErrorFile(m_pInfo));
    const int logFd = m_pInfo->m_logFd;
    const int errFd = m_pInfo->m_errFd;
    CallLog calls{"ZorvUmaFsync", "ZorvUmaClose"};
    ZorvUmaCloseLogAndErrorFile(m_pInfo);
    EXPECT_EQ(calls.Names(), (Strings{"ZorvUmaFsync", "ZorvUmaClose", "ZorvUmaFsync", "ZorvUmaClose"}));
    EXPECT_EQ(m_pInfo->m_logFd, -1);
    EXPECT_EQ(m_pInfo->m_errFd, -1);
    EXPECT_FALSE(IsOpen(logFd) || IsOpen(errFd));
    calls.Clear();
    ZorvUmaCloseLogAndErrorFile(m_pInfo);
    EXPECT_TRUE(calls.Calls().empty());
}

// ---- the error code for the launcher ---------------------------------------------------------------------

class ErrorFile : public AgentTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        m_pInfo->m_errFd = MakeMemoryFile();
        m_pInfo->m_umaConfig.m_launchPid = 4242;
    }

    bool Write(int code = 3)
    {
        return ZorvUmaWriteErrorFile(m_pInfo, code);
    }

    void ExpectUnlocked()
    {
        EXPECT_EQ(pthread_mutex_trylock(&m_pInfo->m_errLock), 0);
        pthread_mutex_unlock(&m_pInfo->m_errLock);
    }

    Replace m_kill{"ZorvUmaKill", Fails(0)};
    Replace m_exit{"ZorvUmaExit", Fails(0)};
};

TEST_F(ErrorFile, WithoutAFileNothingHappens)
{
    m_pInfo->m_errFd = -1;
    EXPECT_FALSE(Write());
    EXPECT_EQ(m_kill.Calls() + m_exit.Calls(), 0);
    ExpectUnlocked();
}

TEST_F(ErrorFile, AnIncompleteWriteEndsNobody)
{
    for (const uint64_t result : {uint64_t{0}, MINUS_ONE})
    {
        Replace write("ZorvUmaWrite", Fails(result));
        Replace sync("ZorvUmaFsync", Fails(0));
        EXPECT_FALSE(Write());
        EXPECT_EQ(m_kill.Calls() + m_exit.Calls() + sync.Calls(), 0);
        ExpectUnlocked();
    }
}

TEST_F(ErrorFile, TheCodeIsWrittenAsDigitsThenLauncherAndProcessEnd)
{
    m_pInfo->m_errFd = MakeMemoryFile();
    std::vector<std::string> order;
    Replace sync("ZorvUmaFsync", [&](const Call&) { return order.push_back("sync"), 0; });
    Replace kill("ZorvUmaKill",
                 [&](const Call& call)
                 {
                     EXPECT_EQ(call.Arg<pid_t>(0), 4242);
                     EXPECT_EQ(call.Arg<int>(1), 9);
                     ExpectUnlocked();
                     return order.push_back("kill"), 0;
                 });
    Replace exit("ZorvUmaExit",
                 [&](const Call& call)
                 {
                     EXPECT_EQ(call.Arg<int>(0), 0);
                     return order.push_back("exit"), 0;
                 });
    EXPECT_TRUE(Write()) << "the real exit was not reached";
    EXPECT_EQ(ReadWhole(m_pInfo->m_errFd), "3");
    EXPECT_EQ(order, (Strings{"sync", "kill", "exit"}));
}

// A kill of 0 would take the whole process group, of -1 everybody.
TEST_F(ErrorFile, WithoutALauncherNobodyIsKilled)
{
    for (const pid_t launcher : {0, -1, -4242})
    {
        m_pInfo->m_umaConfig.m_launchPid = launcher;
        EXPECT_TRUE(Write());
    }
    EXPECT_EQ(m_kill.Calls(), 0);
    EXPECT_EQ(m_exit.Calls(), 3);
}

// ---- the clock -------------------------------------------------------------------------------------------

using Clock = AgentTest;

TEST_F(Clock, CountsNanosecondsOfTheMonotonicClock)
{
    Replace clock("ZorvUmaClockGetTime",
                  [](const Call& call)
                  {
                      EXPECT_EQ(call.Arg<clockid_t>(0), CLOCK_MONOTONIC);
                      *call.Arg<timespec*>(1) = {12'345'678'901, 987'654'321};
                      return 0;
                  });
    EXPECT_EQ(ZorvUmaGetTime(), 12'345'678'901'987'654'321ULL);
}

TEST_F(Clock, LiesBetweenTwoReadingsOfItsOwn)
{
    const auto now = []
    {
        timespec time;
        clock_gettime(CLOCK_MONOTONIC, &time);
        return time.tv_sec * 1'000'000'000ULL + time.tv_nsec;
    };
    const uint64_t before = now();
    const uint64_t read = ZorvUmaGetTime();
    EXPECT_LE(before, read);
    EXPECT_LE(read, now());
}

TEST_F(Clock, IsZeroWhenTheCallFails)
{
    Replace clock("ZorvUmaClockGetTime", Fails(MINUS_ONE, EINVAL));
    EXPECT_EQ(ZorvUmaGetTime(), 0u);
}

} // namespace
