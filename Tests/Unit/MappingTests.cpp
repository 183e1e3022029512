// Modules and executable mappings that come while the program runs.
#include "StateCalls.h"

#include <sys/mman.h>
#include <sys/stat.h>

using namespace agent;

namespace
{

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

} // namespace
