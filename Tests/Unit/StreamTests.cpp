// A stream's data on its way to the file: drained from the queue, written out at the end.
#include "Support.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
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

// ---- draining the queue ----------------------------------------------------------------------------------

class Drain : public AgentTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
        m_buffers = BuffersOf(*m_pData);
    }

    void Queue(int index, uint32_t dataLen, char byte)
    {
        FillBuffer(m_buffers[index], dataLen, byte);
        m_buffers[index]->m_state = ZORV_UMA_BUFFER_STATE_FULL;
        ASSERT_TRUE(ZorvUmaEnqueue(m_pData->m_pQueue, m_buffers[index]));
    }

    bool Write()
    {
        return ZorvUmaWriteBuffer(m_pData, m_logFd);
    }

    std::string Written()
    {
        return ReadWhole(m_stream.m_data.m_fd >= 0 ? m_stream.m_data.m_fd : m_fd);
    }

    Stream m_stream{true};
    ZorvUmaData* const m_pData = &m_stream.m_data;
    const int m_fd = dup(m_stream.m_data.m_fd);
    std::vector<ZorvUmaBuffer*> m_buffers;
};

TEST_F(Drain, WritesTheWholeQueueInOrderWithOneWriteEach)
{
    Queue(3, 300, 'c');
    Queue(1, 32767, 'a');
    Queue(2, 64, 'b');
    CallLog writes{"ZorvUmaWrite"};
    EXPECT_TRUE(Write());
    EXPECT_EQ(Written(), std::string(300, 'c') + std::string(32767, 'a') + std::string(64, 'b'));
    EXPECT_EQ(writes.Calls().size(), 3u);
    EXPECT_TRUE(ZorvUmaIsQueueEmpty(m_pData->m_pQueue));
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(Drain, MakesAWrittenBufferReadyAndZero)
{
    Queue(0, 1000, 'a');
    m_buffers[0]->m_pData[32767] = 'z'; // the provisional bytes behind the data too
    m_buffers[0]->m_cacheLen = 64;
    EXPECT_TRUE(Write());
    EXPECT_EQ(m_buffers[0]->m_state, ZORV_UMA_BUFFER_STATE_READY);
    EXPECT_EQ(m_buffers[0]->m_dataLen, 0u);
    EXPECT_EQ(m_buffers[0]->m_cacheLen, 0u);
    EXPECT_EQ(m_buffers[0]->m_bufSize, 32768u);
    EXPECT_TRUE(IsAllZero(m_buffers[0]->m_pData, 32768));
    EXPECT_EQ(ZorvUmaGetFreeBuffer(m_pData), m_buffers[0]);
}

TEST_F(Drain, OfAnEmptyQueueIsFalse)
{
    EXPECT_FALSE(Write());
    EXPECT_EQ(Written(), "");
}

TEST_F(Drain, NeedsAStreamAndALog)
{
    Queue(0, 100, 'a');
    EXPECT_FALSE(ZorvUmaWriteBuffer(nullptr, m_logFd));
    EXPECT_FALSE(ZorvUmaWriteBuffer(m_pData, -1));
    EXPECT_EQ(QueuedBuffers(*m_pData->m_pQueue).size(), 1u);
}

TEST_F(Drain, SkipsWhatIsNotFullOrHasNoStorage)
{
    Queue(0, 100, 'a');
    Queue(1, 100, 'b');
    Queue(2, 100, 'c');
    m_buffers[0]->m_state = ZORV_UMA_BUFFER_STATE_IN_USE;
    m_buffers[1]->m_pData = nullptr;
    EXPECT_TRUE(Write());
    EXPECT_EQ(Written(), std::string(100, 'c'));
    EXPECT_TRUE(ZorvUmaIsQueueEmpty(m_pData->m_pQueue));
    EXPECT_EQ(m_buffers[0]->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
    EXPECT_EQ(m_buffers[0]->m_dataLen, 100u);
    EXPECT_EQ(m_buffers[1]->m_dataLen, 100u);
}

TEST_F(Drain, WithOnlySkippedBuffersIsFalse)
{
    Queue(0, 100, 'a');
    m_buffers[0]->m_state = ZORV_UMA_BUFFER_STATE_READY;
    EXPECT_FALSE(Write());
}

// The last buffer decides.
TEST_F(Drain, AFailedWriteLeavesTheBufferFullAndOutOfUse)
{
    for (const uint64_t result : {uint64_t{99}, MINUS_ONE, uint64_t{0}})
    {
        Stream stream(true);
        ZorvUmaCreateBuffers(&stream.m_data, m_logFd);
        const auto buffers = BuffersOf(stream.m_data);
        for (int i = 0; i < 3; i++)
        {
            FillBuffer(buffers[i], 100, 'a');
            buffers[i]->m_state = ZORV_UMA_BUFFER_STATE_FULL;
            ZorvUmaEnqueue(&stream.m_queue, buffers[i]);
        }
        int logWrites = 0;
        Replace write("ZorvUmaWrite",
                      [&](const Call& call)
                      {
                          const bool isData = call.Arg<int>(0) == stream.m_data.m_fd;
                          const bool isSecond = isData && call.Arg<char*>(1) == buffers[1]->m_pData;
                          logWrites += !isData;
                          return isSecond ? result : call.PassOn();
                      });
        EXPECT_TRUE(ZorvUmaWriteBuffer(&stream.m_data, m_logFd)) << "the third was written";
        EXPECT_EQ(buffers[1]->m_state, ZORV_UMA_BUFFER_STATE_FULL);
        EXPECT_EQ(buffers[1]->m_dataLen, 100u);
        EXPECT_EQ(buffers[1]->m_pData[0], 'a');
        EXPECT_EQ(buffers[2]->m_state, ZORV_UMA_BUFFER_STATE_READY);
        EXPECT_TRUE(ZorvUmaIsQueueEmpty(&stream.m_queue));
        EXPECT_EQ(logWrites, 1);
    }
    EXPECT_EQ(Log(), Strings(3, "ERROR Failed to write buffer from global list to file."));
}

TEST_F(Drain, AFailureOfTheLastBufferIsItsResult)
{
    Queue(0, 100, 'a');
    Queue(1, 100, 'b');
    Replace write("ZorvUmaWrite", FailsOn(2, MINUS_ONE, ENOSPC));
    EXPECT_FALSE(Write());
}

TEST_F(Drain, ABufferWhoseWriteFailedIsNeverReusedAndWrittenAgainAtTheEnd)
{
    Queue(0, 100, 'a');
    {
        Replace write("ZorvUmaWrite", FailsOn(1, MINUS_ONE, ENOSPC));
        EXPECT_FALSE(Write());
    }
    EXPECT_EQ(ZorvUmaGetFreeBuffer(m_pData), m_buffers[1]);
    Queue(2, 50, 'b');
    EXPECT_TRUE(Write());
    const int fd = m_fd;
    EXPECT_TRUE(ZorvUmaFiniDataWriting(m_pData, m_logFd, false));
    EXPECT_EQ(ReadWhole(fd), std::string(50, 'b') + std::string(100, 'a'));
}

// The limit sends SIGXFSZ, which ends a process: the program may not die of what the agent writes.
TEST_F(Drain, AFileSizeLimitEndsNobody)
{
    TemporaryDirectory directory;
    Queue(0, 1000, 'a');
    FillBuffer(m_buffers[1], 1000, 'b');
    const pid_t child = fork();
    if (child == 0)
    {
        const rlimit limit = {100, 100};
        setrlimit(RLIMIT_FSIZE, &limit);
        m_pData->m_fd = open((directory / "data").c_str(), O_WRONLY | O_CREAT, 0644);
        const bool isWritten = Write();
        const bool isFinished = ZorvUmaFiniDataWriting(m_pData, m_logFd, false);
        _exit(isWritten || !isFinished || m_pData->m_fd != -1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---- the final write -------------------------------------------------------------------------------------

class FinalWrite : public Drain
{
protected:
    std::string Finish()
    {
        EXPECT_TRUE(ZorvUmaFiniDataWriting(m_pData, m_logFd, false));
        return ReadWhole(m_fd);
    }
};

TEST_F(FinalWrite, WritesTheQueueFirstThenEveryBufferInListOrder)
{
    Queue(5, 50, 'q');
    FillBuffer(m_buffers[0], 10, 'a');
    FillBuffer(m_buffers[2], 20, 'b');
    FillBuffer(m_buffers[7], 30, 'c');
    m_buffers[0]->m_state = ZORV_UMA_BUFFER_STATE_IN_USE;
    m_buffers[2]->m_state = ZORV_UMA_BUFFER_STATE_FULL;
    EXPECT_EQ(Finish(),
              std::string(50, 'q') + std::string(10, 'a') + std::string(20, 'b') + std::string(30, 'c'));
}

// A thread that is blocked in a traced call leaves its provisional record behind the data.
TEST_F(FinalWrite, IncludesTheProvisionalBytesBehindTheData)
{
    FillBuffer(m_buffers[0], 128, 'a');
    memset(m_buffers[0]->m_pData + 128, 'p', 64);
    m_buffers[0]->m_cacheLen = 64;
    m_buffers[0]->m_state = ZORV_UMA_BUFFER_STATE_IN_USE;
    CallLog writes{"ZorvUmaWrite"};
    EXPECT_EQ(Finish(), std::string(128, 'a') + std::string(64, 'p'));
    EXPECT_EQ(writes.Calls()[0].m_words[2], 192u) << "in one call";
}

TEST_F(FinalWrite, LeavesOutProvisionalBytesWithoutDataBeforeThem)
{
    memset(m_buffers[0]->m_pData, 'p', 64);
    m_buffers[0]->m_cacheLen = 64;
    m_buffers[0]->m_state = ZORV_UMA_BUFFER_STATE_IN_USE;
    EXPECT_EQ(Finish(), "");
}

TEST_F(FinalWrite, AShortOneIsLoggedAndTheOthersFollow)
{
    FillBuffer(m_buffers[0], 100, 'a');
    FillBuffer(m_buffers[1], 100, 'b');
    Replace write("ZorvUmaWrite", FailsOn(1, 99));
    EXPECT_EQ(Finish(), std::string(100, 'b'));
    EXPECT_EQ(Log(), (Strings{"ERROR Failed to write buffer from global array to file.",
                              "INFO Lost trace records count = 0"}));
    EXPECT_EQ(ReadLog(m_logFd)[0].m_function, "ZorvUmaFiniDataWriting");
}

TEST_F(FinalWrite, ForgetsTheListAndClosesTheFile)
{
    const int fd = m_pData->m_fd;
    CallLog calls{"ZorvUmaFsync", "ZorvUmaClose"};
    Finish();
    EXPECT_EQ(m_pData->m_pBufList, nullptr);
    EXPECT_EQ(m_pData->m_fd, -1);
    EXPECT_FALSE(IsOpen(fd));
    ASSERT_GE(calls.Calls().size(), 2u);
    EXPECT_EQ(calls.Calls()[0].Arg<int>(0), fd);
    EXPECT_EQ((Strings{calls.Names()[0], calls.Names()[1]}), (Strings{"ZorvUmaFsync", "ZorvUmaClose"}));
}

TEST_F(FinalWrite, GivesTheStorageBackInEveryState)
{
    const auto states = {ZORV_UMA_BUFFER_STATE_NONE, ZORV_UMA_BUFFER_STATE_READY, ZORV_UMA_BUFFER_STATE_IN_USE,
                         ZORV_UMA_BUFFER_STATE_FULL};
    int index = 0;
    std::vector<void*> storage;
    for (const auto state : states)
    {
        m_buffers[index]->m_state = state;
        m_buffers[index]->m_cacheLen = 64;
        FillBuffer(m_buffers[index], 64, 'a');
        storage.push_back(m_buffers[index++]->m_pData);
    }
    CallLog frees{"ZorvUmaFree"};
    Finish();
    for (index = 0; index < 4; index++)
    {
        const auto isIt = [&](const Call& call) { return call.Arg<void*>(0) == storage[index]; };
        EXPECT_EQ(std::count_if(frees.Calls().begin(), frees.Calls().end(), isIt), 1);
        if (index != 0) // the head's node is freed
        {
            EXPECT_EQ(m_buffers[index]->m_pData, nullptr);
            EXPECT_EQ(m_buffers[index]->m_dataLen + m_buffers[index]->m_cacheLen + m_buffers[index]->m_bufSize,
                      0u);
            EXPECT_EQ(m_buffers[index]->m_state, ZORV_UMA_BUFFER_STATE_NONE);
        }
    }
}

TEST_F(FinalWrite, FreesTheHeadNodeAlone)
{
    std::vector<void*> nodes;
    for (ZorvUmaListNode* pNode = m_pData->m_pBufList; pNode != nullptr; pNode = pNode->m_pNext)
    {
        nodes.push_back(pNode);
    }
    CallLog frees{"ZorvUmaFree"};
    Finish();
    for (size_t i = 0; i < nodes.size(); i++)
    {
        const auto isIt = [&](const Call& call) { return call.Arg<void*>(0) == nodes[i]; };
        EXPECT_EQ(std::count_if(frees.Calls().begin(), frees.Calls().end(), isIt), i == 0 ? 1 : 0);
    }
}

TEST_F(FinalWrite, WithoutAFileStillFreesAndReports)
{
    close(m_pData->m_fd);
    m_pData->m_fd = -1;
    EXPECT_TRUE(ZorvUmaFiniDataWriting(m_pData, m_logFd, false));
    EXPECT_EQ(m_pData->m_pBufList, nullptr);
    EXPECT_EQ(Log(), Strings{"INFO Lost trace records count = 0"});
}

TEST_F(FinalWrite, NeedsAStreamAndALog)
{
    EXPECT_FALSE(ZorvUmaFiniDataWriting(nullptr, m_logFd, false));
    EXPECT_FALSE(ZorvUmaFiniDataWriting(m_pData, -1, false));
    EXPECT_EQ(BuffersOf(*m_pData).size(), 8u);
}

TEST_F(FinalWrite, ReportsLostRecordsOfItsKind)
{
    m_pData->m_lostRecordCount = 4000000000;
    Finish();
    EXPECT_EQ(Log(), Strings{"INFO Lost trace records count = 4000000000"});
    Stream samples(false);
    ZorvUmaCreateBuffers(&samples.m_data, m_logFd);
    samples.m_data.m_lostRecordCount = 3;
    EXPECT_TRUE(ZorvUmaFiniDataWriting(&samples.m_data, m_logFd, true)); // the flag is not used
    EXPECT_EQ(Log().back(), "INFO Lost sample records count = 3");
}

} // namespace
