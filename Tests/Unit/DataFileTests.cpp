// A stream's file and its first buffers: opened, prepared, and prepared again.
#include "Support.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

// ---- opening ---------------------------------------------------------------------------------------------

class DataFile : public AgentTest
{
protected:
    std::string Expected(const char* pName, const char* pFormat)
    {
        return m_directory / Format("%s_%s_%d.%s", pName, HostName().c_str(), getpid(), pFormat);
    }

    bool Open(int* pFd, const char* pDirectory = nullptr)
    {
        return ZorvUmaOpenFileForWrite(pDirectory != nullptr ? pDirectory : m_directory.Path().c_str(), pFd,
                                       "trace", "umt", m_logFd);
    }

    TemporaryDirectory m_directory;
};

TEST_F(DataFile, NamesContainHostAndProcess)
{
    const char* kinds[][2] = {{"profile", "ums"}, {"trace", "umt"}, {"metadata", "meta"}};
    for (const auto& kind : kinds)
    {
        int fd = -1;
        EXPECT_TRUE(ZorvUmaOpenFileForWrite(m_directory.Path().c_str(), &fd, kind[0], kind[1], m_logFd));
        EXPECT_GE(fd, 0);
        EXPECT_TRUE(std::filesystem::exists(Expected(kind[0], kind[1]))) << kind[0];
        close(fd);
    }
}

TEST_F(DataFile, HasTheNumberThatTheOpeningGave)
{
    const int file = MakeMemoryFile();
    Replace open("fnOpenFile", [&](const Call&) { return file; });
    int fd = -1;
    EXPECT_TRUE(Open(&fd));
    EXPECT_EQ(fd, file);
    EXPECT_TRUE(IsOpen(file));
    close(file);
}

TEST_F(DataFile, AnExistingOneIsTruncated)
{
    std::ofstream(Expected("trace", "umt")) << "from an earlier run";
    int fd = -1;
    EXPECT_TRUE(Open(&fd));
    EXPECT_EQ(std::filesystem::file_size(Expected("trace", "umt")), 0u);
    close(fd);
}

TEST_F(DataFile, IsOpenedForWritingAndNotForChildren)
{
    CallLog opens{"fnOpenFile"};
    int fd = -1;
    EXPECT_TRUE(Open(&fd));
    ASSERT_EQ(opens.Calls().size(), 1u);
    EXPECT_EQ(opens.Calls()[0].Arg<int>(1), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC);
    EXPECT_EQ(opens.Calls()[0].Arg<mode_t>(2), 0644u);
    close(fd);
}

TEST_F(DataFile, MissingArgumentsFailSilently)
{
    const char* pDirectory = m_directory.Path().c_str();
    int fd = -5;
    EXPECT_FALSE(ZorvUmaOpenFileForWrite(nullptr, &fd, "trace", "umt", m_logFd));
    EXPECT_FALSE(ZorvUmaOpenFileForWrite(pDirectory, nullptr, "trace", "umt", m_logFd));
    EXPECT_FALSE(ZorvUmaOpenFileForWrite(pDirectory, &fd, nullptr, "umt", m_logFd));
    EXPECT_FALSE(ZorvUmaOpenFileForWrite(pDirectory, &fd, "trace", nullptr, m_logFd));
    EXPECT_FALSE(ZorvUmaOpenFileForWrite(pDirectory, &fd, "trace", "umt", -1));
    EXPECT_EQ(fd, -5);
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(DataFile, AHostWithoutANameIsLogged)
{
    Replace host("ZorvUmaGetHostName", Fails(MINUS_ONE, ENAMETOOLONG));
    int fd = -5;
    EXPECT_FALSE(Open(&fd));
    EXPECT_EQ(fd, -5);
    EXPECT_EQ(Log(), Strings{std::string("ERROR Failed to get hostname : ") + strerror(ENAMETOOLONG) + "."});
}

TEST_F(DataFile, AFailedOpenIsStoredAndLogged)
{
    Replace open("fnOpenFile", Fails(static_cast<uint64_t>(-7), EDQUOT));
    int fd = -5;
    EXPECT_FALSE(Open(&fd));
    EXPECT_EQ(fd, -7) << "whatever it is";
    EXPECT_EQ(Log(), Strings{Format("ERROR Failed to open the file (%s) : %s.",
                                    Expected("trace", "umt").c_str(), strerror(EDQUOT))});
}

TEST_F(DataFile, AMissingDirectoryIsLogged)
{
    int fd = -5;
    const std::string missing = m_directory / "missing";
    EXPECT_FALSE(Open(&fd, missing.c_str()));
    EXPECT_LT(fd, 0);
    ASSERT_EQ(Log().size(), 1u);
    EXPECT_TRUE(Log()[0].ends_with(std::string(") : ") + strerror(ENOENT) + ".")) << Log()[0];
}

// A path of more than 4,095 bytes may not run over the buffer that it is built in.
TEST_F(DataFile, APathThatIsTooLongIsAFailure)
{
    int fd = -5;
    const std::string endless(5000, 'd');
    EXPECT_FALSE(Open(&fd, endless.c_str()));
    EXPECT_LT(fd, 0);
}

// ---- preparing -------------------------------------------------------------------------------------------

class Prepare : public DataFile
{
protected:
    bool Init()
    {
        return ZorvUmaInitDataWriting(&m_data, m_directory.Path().c_str(), "trace", "umt", m_logFd);
    }

    ZorvUmaData m_data{};
};

TEST_F(Prepare, OpensTheFileAndMakesEightBuffers)
{
    m_data.m_fd = -1;
    CallLog calls{"ZorvUmaPthreadMutexInit", "ZorvUmaOpenFileForWrite", "ZorvUmaCreateBuffers"};
    EXPECT_TRUE(Init());
    EXPECT_EQ(calls.Names(),
              (Strings{"ZorvUmaPthreadMutexInit", "ZorvUmaOpenFileForWrite", "ZorvUmaCreateBuffers"}));
    EXPECT_GE(m_data.m_fd, 0);
    EXPECT_EQ(BuffersOf(m_data).size(), 8u);
    EXPECT_EQ(pthread_mutex_trylock(&m_data.m_lock), 0);
    close(m_data.m_fd);
}

TEST_F(Prepare, MissingArgumentsFail)
{
    const char* pDirectory = m_directory.Path().c_str();
    CallLog calls{"ZorvUmaOpenFileForWrite"};
    EXPECT_FALSE(ZorvUmaInitDataWriting(nullptr, pDirectory, "trace", "umt", m_logFd));
    EXPECT_FALSE(ZorvUmaInitDataWriting(&m_data, nullptr, "trace", "umt", m_logFd));
    EXPECT_FALSE(ZorvUmaInitDataWriting(&m_data, pDirectory, nullptr, "umt", m_logFd));
    EXPECT_FALSE(ZorvUmaInitDataWriting(&m_data, pDirectory, "trace", nullptr, m_logFd));
    EXPECT_FALSE(ZorvUmaInitDataWriting(&m_data, pDirectory, "trace", "umt", -1));
    EXPECT_TRUE(calls.Calls().empty());
}

TEST_F(Prepare, AFailedOpenMakesNoBuffers)
{
    Replace open("ZorvUmaOpenFileForWrite", Fails(0));
    EXPECT_FALSE(Init());
    EXPECT_TRUE(BuffersOf(m_data).empty());
}

TEST_F(Prepare, TheBuffersAreItsResult)
{
    Replace create("ZorvUmaCreateBuffers", Fails(0));
    EXPECT_FALSE(Init());
}

// A second preparation in one address space frees the storage and the head node alone.
TEST_F(Prepare, AgainFreesStorageAndHeadOnly)
{
    ASSERT_TRUE(Init());
    close(m_data.m_fd);
    std::vector<ZorvUmaListNode*> nodes;
    for (ZorvUmaListNode* pNode = m_data.m_pBufList; pNode != nullptr; pNode = pNode->m_pNext)
    {
        nodes.push_back(pNode);
        FillBuffer(&pNode->m_buffer, 100, 'x');
        pNode->m_buffer.m_cacheLen = 64;
        pNode->m_buffer.m_state = ZORV_UMA_BUFFER_STATE_FULL;
    }
    std::vector<void*> freed;
    Replace free("ZorvUmaFree",
                 [&](const Call& call)
                 {
                     freed.push_back(call.Arg<void*>(0));
                     return 0; // keep the memory to look at it
                 });
    Replace create("ZorvUmaCreateBuffers", Fails(1));
    ASSERT_TRUE(Init());
    EXPECT_EQ(m_data.m_pBufList, nullptr);
    EXPECT_EQ(m_data.m_pListEnd, nodes.back()) << "left as it was";
    EXPECT_EQ(std::count(freed.begin(), freed.end(), nodes[0]), 1);
    for (ZorvUmaListNode* pNode : nodes)
    {
        const ZorvUmaBuffer& buffer = pNode->m_buffer;
        EXPECT_EQ(buffer.m_pData, nullptr);
        EXPECT_EQ(buffer.m_dataLen + buffer.m_cacheLen + buffer.m_bufSize, 0u);
        EXPECT_EQ(buffer.m_state, ZORV_UMA_BUFFER_STATE_NONE);
        EXPECT_EQ(std::count(freed.begin(), freed.end(), pNode), pNode == nodes[0] ? 1 : 0);
    }
    close(m_data.m_fd);
}

TEST_F(Prepare, AgainResetsBuffersWithoutStorageToo)
{
    ASSERT_TRUE(Init());
    close(m_data.m_fd);
    ZorvUmaBuffer* pBuffer = BuffersOf(m_data)[1];
    free(pBuffer->m_pData);
    *pBuffer = {100, 64, ZORV_UMA_BUFFER_STATE_FULL, 32768, nullptr, nullptr};
    ASSERT_TRUE(Init());
    EXPECT_EQ(pBuffer->m_dataLen + pBuffer->m_cacheLen + pBuffer->m_bufSize, 0u);
    EXPECT_EQ(pBuffer->m_state, ZORV_UMA_BUFFER_STATE_NONE);
    close(m_data.m_fd);
}

TEST_F(Prepare, AgainStartsAListOfEightNewOnes)
{
    ASSERT_TRUE(Init());
    close(m_data.m_fd);
    ASSERT_TRUE(Init());
    EXPECT_EQ(BuffersOf(m_data).size(), 8u);
    EXPECT_NE(ZorvUmtAllocateNewBuffer(&m_data, m_logFd), nullptr);
    EXPECT_EQ(BuffersOf(m_data).size(), 9u);
    close(m_data.m_fd);
}

} // namespace
