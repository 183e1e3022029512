// The pieces of a session: its directory, the shared memory, the stand-in, the program's environment.
#include "FileBytes.h"
#include "Session/AgentReports.h"
#include "Session/ControlBlock.h"
#include "Session/Failure.h"
#include "Session/LauncherStandIn.h"
#include "Session/ProgramRun.h"
#include "Session/ProgramSearch.h"
#include "Session/Ranks.h"
#include "Session/SessionDirectory.h"
#include "Session/Sizes.h"
#include "Session/ThreadLimits.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace qelix;
namespace fs = std::filesystem;

TEST(SessionDirectory, HasAFolderForEachKindOfFile)
{
    const TestFolder folder;
    const SessionDirectory session = MakeSessionDirectory(folder.m_path + "/outer/inner/");
    EXPECT_EQ(session.m_path, folder.m_path + "/outer/inner");
    for (const char* pName : {".log", ".error", "trace", "sample", "metadata"})
    {
        EXPECT_TRUE(fs::is_directory(session.m_path + "/" + pName)) << pName;
    }
    EXPECT_THROW(MakeSessionDirectory(session.m_path), Failure) << "sessions are never mixed";
    RemoveSessionDirectory(session);
    EXPECT_FALSE(fs::exists(session.m_path));
}

TEST(SessionDirectory, AnEmptyDirectoryOfTheUserIsTakenAndLeftBehind)
{
    const TestFolder folder;
    const SessionDirectory session = MakeSessionDirectory(folder.m_path);
    RemoveSessionDirectory(session);
    EXPECT_TRUE(fs::is_directory(folder.m_path));
    EXPECT_TRUE(fs::is_empty(folder.m_path));
}

TEST(SessionDirectory, AFileInTheWayIsRefused)
{
    const TestFolder folder;
    EXPECT_THROW(MakeSessionDirectory(folder.Write("file", std::string("x"))), Failure);
}

TEST(SessionDirectory, DefaultNameCanAlwaysBeConfigured)
{
    setenv("TZ", "UTC", 1);
    tzset();
    constexpr time_t start = 1'700'000'000;
    EXPECT_EQ(DefaultSessionName("/usr/bin/xz", start, 77), "qelix-xz-20231114-221320-77");
    EXPECT_EQ(DefaultSessionName("./a=b c\n", start, 77), "qelix-a_b_c_-20231114-221320-77");
}

TEST(ControlBlock, Has64ZeroBytesForItsOwnerAloneAndIsRemoved)
{
    std::string name;
    {
        const ControlBlock block;
        name = block.m_name;
        const int fd = shm_open(name.c_str(), O_RDONLY, 0);
        ASSERT_GE(fd, 0);
        struct stat status;
        ASSERT_EQ(fstat(fd, &status), 0);
        EXPECT_EQ(status.st_size, 64);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        char bytes[64];
        ASSERT_EQ(read(fd, bytes, sizeof(bytes)), 64);
        EXPECT_TRUE(std::all_of(bytes, bytes + 64, [](char c) { return c == 0; }));
        close(fd);
    }
    EXPECT_EQ(shm_open(name.c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ControlBlock, ANameThatAnotherQelixHoldsIsLeftToIt)
{
    const ControlBlock first;
    const ControlBlock second;
    EXPECT_NE(first.m_name, second.m_name);
}

TEST(ThreadLimits, AreToldFromTheImportsOfAFile)
{
    EXPECT_EQ(ThreadLimitsOf("/usr/bin/unshare").m_namespaceCalls, std::vector<std::string>{"unshare"});
    EXPECT_TRUE(ThreadLimitsOf("/proc/self/exe").m_namespaceCalls.empty());
    EXPECT_TRUE(ThreadLimitsOf("/etc/passwd").m_namespaceCalls.empty());
    EXPECT_TRUE(ThreadLimitsOf("/nonexistent").m_identityCalls.empty());
    constexpr int failed = 1 << 8;
    EXPECT_NE(SecondThreadReason("/usr/bin/unshare", failed), "");
    EXPECT_EQ(SecondThreadReason("/usr/bin/unshare", 0), "");
    EXPECT_EQ(SecondThreadReason("/usr/bin/unshare", SIGSEGV), "") << "it is refused, not killed";
    EXPECT_EQ(SecondThreadReason("/bin/true", failed), "");
}

TEST(Ranks, AreWholeNumbersThatSomebodyTells)
{
    EXPECT_EQ(ParseRank("0"), 0);
    EXPECT_EQ(ParseRank("70000"), 70000);
    EXPECT_EQ(ParseRank("none"), std::nullopt);
    for (const char* pText : {"", "-1", "1x", " 1", "4294967296", "AUTO"})
    {
        EXPECT_THROW(ParseRank(pText), Failure) << pText;
    }
    setenv("PMI_RANK", "nonsense", 1);
    EXPECT_EQ(ParseRank("auto"), std::nullopt);
    setenv("PMI_RANK", "12", 1);
    EXPECT_EQ(ParseRank("auto"), 12);
    unsetenv("PMI_RANK");
}

TEST(LauncherStandIn, DiesInOurPlaceAndIsReaped)
{
    pid_t pid;
    {
        const LauncherStandIn standIn("/nonexistent", "");
        pid = standIn.m_pid;
        EXPECT_GT(pid, 1);
        EXPECT_NE(pid, getpid());
        EXPECT_EQ(kill(pid, SIGKILL), 0); // as an agent does
    }
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(ControlBlock, APauseHasAnIdOfItsOwn)
{
    const ControlBlock block;
    const auto pauseId = [&block]
    {
        uint64_t id = 0;
        const int fd = shm_open(block.m_name.c_str(), O_RDONLY, 0);
        EXPECT_EQ(pread(fd, &id, sizeof(id), 8), 8);
        close(fd);
        return id;
    };
    EXPECT_EQ(CollectionStateOf(block.m_name), ZORV_COLLECTION_RUNNING);
    EXPECT_EQ(PauseCollection(block.m_name), ZORV_COLLECTION_RUNNING);
    EXPECT_EQ(CollectionStateOf(block.m_name), ZORV_COLLECTION_PAUSED);
    const uint64_t first = pauseId();
    EXPECT_NE(first, 0u);
    EXPECT_EQ(PauseCollection(block.m_name), ZORV_COLLECTION_PAUSED);
    EXPECT_EQ(pauseId(), first) << "the pause that is on goes on";
    EXPECT_EQ(ResumeCollection(block.m_name), ZORV_COLLECTION_PAUSED);
    EXPECT_EQ(CollectionStateOf(block.m_name), ZORV_COLLECTION_RUNNING);
    PauseCollection(block.m_name);
    EXPECT_NE(pauseId(), first) << "a call from one pause to the next has run in between";
    EXPECT_EQ(StopCollection(block.m_name), ZORV_COLLECTION_PAUSED);
    EXPECT_EQ(ResumeCollection(block.m_name), ZORV_COLLECTION_STOPPED);
    EXPECT_EQ(CollectionStateOf(block.m_name), ZORV_COLLECTION_STOPPED);
}

TEST(ControlBlock, OnlyABlockOfOursIsSteered)
{
    const std::string foreign = "/zorv-test-" + std::to_string(getpid());
    const std::string shorter = "/qelix-" + std::to_string(getpid()) + "-0";
    for (const std::string& name : {foreign, shorter})
    {
        const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
        ASSERT_EQ(ftruncate(fd, name == foreign ? 64 : 63), 0);
        close(fd);
        EXPECT_FALSE(CollectionStateOf(name)) << name;
        EXPECT_THROW(PauseCollection(name), Failure) << name;
    }
    RemoveControlBlock(foreign);
    EXPECT_EQ(shm_unlink(foreign.c_str()), 0) << "it was not ours to remove";
    RemoveControlBlock(shorter);
    EXPECT_EQ(shm_unlink(shorter.c_str()), -1);
    for (const char* pName : {"", "/", "/qelix-", "/qelix-../../etc/passwd", "qelix-1"})
    {
        EXPECT_THROW(StopCollection(pName), Failure) << pName;
    }
}

TEST(Sizes, AreReadAndWritten)
{
    EXPECT_EQ(ParseSize("4096"), 4096u);
    EXPECT_EQ(ParseSize("500K"), 500u << 10);
    EXPECT_EQ(ParseSize("20MiB"), 20u << 20);
    EXPECT_EQ(ParseSize("2GB"), uint64_t{2} << 30);
    EXPECT_EQ(ParseSize("7B"), 7u);
    for (const char* pText :
         {"", "M", "-1", "1.5G", "1X", "7iB", "1KK", "99999999999999999999", "99999999999T"})
    {
        EXPECT_FALSE(ParseSize(pText)) << pText;
    }
    EXPECT_EQ(SizeText(1023), "1023 B");
    EXPECT_EQ(SizeText(1536), "1.5 KiB");
    EXPECT_EQ(SizeText(uint64_t{5} << 40), "5.0 TiB");
}

TEST(LauncherStandIn, OnlySigkillEndsIt)
{
    const LauncherStandIn standIn("/nonexistent", "");
    kill(standIn.m_pid, SIGTERM);
    kill(standIn.m_pid, SIGINT);
    usleep(20000); // time for a signal to end it
    siginfo_t info = {};
    EXPECT_EQ(waitid(P_PID, standIn.m_pid, &info, WEXITED | WNOHANG | WNOWAIT), 0);
    EXPECT_EQ(info.si_pid, 0);
}

namespace
{

std::vector<std::string> EntriesOf(const std::vector<std::string>& environment, const std::string& name)
{
    std::vector<std::string> found;
    std::copy_if(environment.begin(), environment.end(), std::back_inserter(found),
                 [&](const std::string& entry) { return entry.starts_with(name + "="); });
    return found;
}

} // namespace

TEST(ProgramEnvironment, TheAgentComesAheadOfWhatIsPreloadedAlready)
{
    using Entries = std::vector<std::string>;
    unsetenv("LD_PRELOAD");
    EXPECT_EQ(EntriesOf(ProgramEnvironment("/a.so", "/s"), "LD_PRELOAD"), Entries{"LD_PRELOAD=/a.so"});
    setenv("LD_PRELOAD", "", 1);
    EXPECT_EQ(EntriesOf(ProgramEnvironment("/a.so", "/s"), "LD_PRELOAD"), Entries{"LD_PRELOAD=/a.so"});
    setenv("LD_PRELOAD", "libx.so liby.so", 1);
    setenv("QELIX_SESSION_DIR", "/old", 1);
    const std::vector<std::string> environment = ProgramEnvironment("/a.so", "/s");
    unsetenv("LD_PRELOAD");
    unsetenv("QELIX_SESSION_DIR");
    EXPECT_EQ(EntriesOf(environment, "LD_PRELOAD"), Entries{"LD_PRELOAD=/a.so:libx.so liby.so"});
    EXPECT_EQ(EntriesOf(environment, "QELIX_SESSION_DIR"), Entries{"QELIX_SESSION_DIR=/s"});
    EXPECT_EQ(EntriesOf(environment, "QELIX_UMA_CONFIG_FILE"), Entries{"QELIX_UMA_CONFIG_FILE=/s/agent.conf"});
    EXPECT_FALSE(EntriesOf(environment, "PATH").empty());
}

namespace
{

int StatusOfSearch(const std::string& name)
{
    try
    {
        FindProgram(name);
    }
    catch (const Failure& failure)
    {
        return StatusOf(failure.m_code);
    }
    return 0;
}

struct ProgramSearchTest : testing::Test
{
    TestFolder m_folder;
    std::string m_oldPath = getenv("PATH");

    ~ProgramSearchTest() override
    {
        setenv("PATH", m_oldPath.c_str(), 1);
    }

    std::string Program(const std::string& name, mode_t mode)
    {
        const std::string path = m_folder.Write(name, std::string("#!/bin/sh\n"));
        chmod(path.c_str(), mode);
        return path;
    }
};

} // namespace

TEST_F(ProgramSearchTest, LooksThroughThePathInItsOrder)
{
    Program("one/tool", 0644);
    const std::string second = Program("two/tool", 0755);
    setenv("PATH",
           (m_folder.m_path + "/missing:" + m_folder.m_path + "/one:" + m_folder.m_path + "/two").c_str(), 1);
    EXPECT_EQ(FindProgram("tool"), second);
}

TEST_F(ProgramSearchTest, TellsMissingFromNotExecutable)
{
    Program("one/tool", 0644);
    setenv("PATH", (m_folder.m_path + "/one").c_str(), 1);
    EXPECT_EQ(StatusOfSearch("tool"), 126);
    EXPECT_EQ(StatusOfSearch("other"), 127);
    EXPECT_EQ(StatusOfSearch(""), 127);
    EXPECT_EQ(StatusOfSearch(m_folder.m_path), 126);
    EXPECT_EQ(StatusOfSearch(m_folder.m_path + "/one/tool"), 126);
    EXPECT_EQ(StatusOfSearch(m_folder.m_path + "/one/other"), 127);
    EXPECT_EQ(StatusOfSearch(m_folder.m_path + "/one/tool/below"), 127);
}

TEST(AgentReports, EachCodeIsExplainedInWords)
{
    const auto explain = [](const char* pCode) { return ExplainAgentError({"/s/.error/x_7.err", 7, pCode}); };
    EXPECT_NE(explain("1").find("signal"), std::string::npos);
    EXPECT_NE(explain("2").find("ulimit -n"), std::string::npos);
    EXPECT_NE(explain("3").find("take libjemalloc out of LD_PRELOAD"), std::string::npos);
    EXPECT_NE(explain("9").find("/s/.error/x_7.err"), std::string::npos);
    EXPECT_NE(explain("3").find("process 7"), std::string::npos);
}
