// The buffers of a stream: made, added, taken, and what they cost in memory.
#include "Support.h"

#include <fcntl.h>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::FailsOn;
using faults::NoMemory;
using faults::Replace;

namespace
{

const uint32_t STORAGE_SIZE = static_cast<uint32_t>(sysconf(_SC_PAGESIZE)) * 8;

class Buffers : public AgentTest
{
protected:
    void ExpectReadyAndEmpty(const ZorvUmaBuffer* pBuffer)
    {
        EXPECT_EQ(pBuffer->m_dataLen, 0u);
        EXPECT_EQ(pBuffer->m_cacheLen, 0u);
        EXPECT_EQ(pBuffer->m_state, ZORV_UMA_BUFFER_STATE_READY);
        EXPECT_EQ(pBuffer->m_bufSize, STORAGE_SIZE);
        EXPECT_EQ(pBuffer->m_pNext, nullptr);
        ASSERT_NE(pBuffer->m_pData, nullptr);
        EXPECT_TRUE(IsAllZero(pBuffer->m_pData, pBuffer->m_bufSize));
    }

    Stream m_stream{true};
    ZorvUmaData* const m_pData = &m_stream.m_data;
};

// ---- the first eight -------------------------------------------------------------------------------------

TEST_F(Buffers, EightReadyOnesAreMade)
{
    EXPECT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    const auto buffers = BuffersOf(*m_pData);
    ASSERT_EQ(buffers.size(), 8u);
    for (const ZorvUmaBuffer* pBuffer : buffers)
    {
        ExpectReadyAndEmpty(pBuffer);
    }
    EXPECT_EQ(&m_pData->m_pListEnd->m_buffer, buffers.back());
    EXPECT_EQ(m_pData->m_lostRecordCount, 0u);
}

TEST_F(Buffers, ASecondThreadsEightFollowTheFirst)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    const auto first = BuffersOf(*m_pData);
    ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    const auto both = BuffersOf(*m_pData);
    ASSERT_EQ(both.size(), 16u);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), both.begin()));
}

TEST_F(Buffers, TheSizeFollowsThePage)
{
    Replace page("ZorvUmaSysconf",
                 [](const Call& call)
                 {
                     EXPECT_EQ(call.Arg<int>(0), _SC_PAGESIZE);
                     return 65536;
                 });
    EXPECT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    EXPECT_EQ(BuffersOf(*m_pData)[0]->m_bufSize, 8u * 65536);
}

TEST_F(Buffers, NeedAStreamAndALog)
{
    EXPECT_FALSE(ZorvUmaCreateBuffers(nullptr, m_logFd));
    EXPECT_FALSE(ZorvUmaCreateBuffers(m_pData, -1));
    EXPECT_TRUE(BuffersOf(*m_pData).empty());
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(Buffers, StorageThatIsUsedMemoryIsZeroedToo)
{
    for (int i = 0; i < 8; i++)
    {
        void* pUsed = malloc(STORAGE_SIZE);
        memset(pUsed, 0xA5, STORAGE_SIZE);
        free(pUsed);
    }
    ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    for (const ZorvUmaBuffer* pBuffer : BuffersOf(*m_pData))
    {
        EXPECT_TRUE(IsAllZero(pBuffer->m_pData, pBuffer->m_bufSize));
    }
}

TEST_F(Buffers, NoStorageAtEachOfTheEight)
{
    for (long made = 0; made < 8; made++)
    {
        Stream stream(true);
        NoMemory noMemory(STORAGE_SIZE, SIZE_MAX, made);
        EXPECT_FALSE(ZorvUmaCreateBuffers(&stream.m_data, m_logFd));
        EXPECT_EQ(noMemory.Refused(), 1) << made;
        EXPECT_EQ(BuffersOf(stream.m_data).size(), static_cast<size_t>(made)) << "those made stay in the list";
    }
    EXPECT_EQ(Log(), Strings(8, "ERROR Failed to allocate the memory for buffer"));
}

TEST_F(Buffers, NoListNodeAtEachOfTheEight)
{
    for (long made = 0; made < 8; made++)
    {
        Stream stream(true);
        NoMemory noMemory(1, 1024, made); // smaller than a log line's buffer
        EXPECT_FALSE(ZorvUmaCreateBuffers(&stream.m_data, m_logFd));
        EXPECT_EQ(noMemory.Refused(), 1) << made;
        EXPECT_EQ(BuffersOf(stream.m_data).size(), static_cast<size_t>(made));
    }
    EXPECT_EQ(Log(), Strings(8, "ERROR Failed to insert the buffer into list"));
}

// ---- one more on demand ----------------------------------------------------------------------------------

TEST_F(Buffers, OneAddedOnDemandEntersTheListReady)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    ZorvUmaBuffer* pAdded = ZorvUmtAllocateNewBuffer(m_pData, m_logFd);
    ASSERT_NE(pAdded, nullptr);
    const auto buffers = BuffersOf(*m_pData);
    ASSERT_EQ(buffers.size(), 9u);
    EXPECT_EQ(buffers.back(), pAdded) << "the list's copy is what the caller gets";
    ExpectReadyAndEmpty(pAdded);
}

TEST_F(Buffers, AddingNeedsAStreamAndALog)
{
    EXPECT_EQ(ZorvUmtAllocateNewBuffer(nullptr, m_logFd), nullptr);
    EXPECT_EQ(ZorvUmtAllocateNewBuffer(m_pData, -1), nullptr);
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(Buffers, AddingWithoutStorageIsLogged)
{
    NoMemory noMemory(STORAGE_SIZE);
    EXPECT_EQ(ZorvUmtAllocateNewBuffer(m_pData, m_logFd), nullptr);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to allocate the memory for buffer"});
}

TEST_F(Buffers, AddingWithoutAListNodeIsLogged)
{
    NoMemory noMemory(1, 1024);
    EXPECT_EQ(ZorvUmtAllocateNewBuffer(m_pData, m_logFd), nullptr);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to insert the buffer into list"});
    EXPECT_TRUE(BuffersOf(*m_pData).empty());
}

// ---- the list --------------------------------------------------------------------------------------------

TEST_F(Buffers, InsertingCopiesTheBufferIntoItsNode)
{
    char storage[8];
    const ZorvUmaBuffer buffer = {11, 12, ZORV_UMA_BUFFER_STATE_FULL, 13, storage, nullptr};
    ZorvUmaBuffer* pFirst = ZorvUmaInsertIntoList(m_pData, buffer);
    ASSERT_NE(pFirst, nullptr);
    EXPECT_EQ(memcmp(pFirst, &buffer, sizeof buffer), 0);
    EXPECT_EQ(&m_pData->m_pBufList->m_buffer, pFirst);
    EXPECT_EQ(m_pData->m_pListEnd, m_pData->m_pBufList);
    ZorvUmaBuffer* pSecond = ZorvUmaInsertIntoList(m_pData, buffer);
    EXPECT_EQ(BuffersOf(*m_pData), (std::vector<ZorvUmaBuffer*>{pFirst, pSecond}));
    EXPECT_EQ(&m_pData->m_pListEnd->m_buffer, pSecond);
    EXPECT_EQ(m_pData->m_pListEnd->m_pNext, nullptr);
}

TEST_F(Buffers, InsertingIntoAnEmptyListOverwritesAStaleEnd)
{
    ZorvUmaListNode stale{};
    m_pData->m_pListEnd = &stale;
    ZorvUmaBuffer* pInserted = ZorvUmaInsertIntoList(m_pData, {});
    EXPECT_EQ(&m_pData->m_pListEnd->m_buffer, pInserted);
    EXPECT_EQ(stale.m_pNext, nullptr);
}

TEST_F(Buffers, InsertingBehindAHeadWithoutAnEndFails)
{
    ZorvUmaListNode head{};
    m_pData->m_pBufList = &head;
    CallLog frees{"ZorvUmaFree"};
    EXPECT_EQ(ZorvUmaInsertIntoList(m_pData, {}), nullptr);
    EXPECT_EQ(head.m_pNext, nullptr);
    EXPECT_TRUE(frees.Calls().empty()) << "the node is not freed";
    EXPECT_EQ(pthread_mutex_trylock(&m_pData->m_lock), 0) << "the lock is not left held";
}

TEST_F(Buffers, InsertingWithoutMemoryIsSilent)
{
    NoMemory noMemory;
    EXPECT_EQ(ZorvUmaInsertIntoList(m_pData, {}), nullptr);
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(Buffers, InsertingAndTakingLockTheList)
{
    CallLog locks{"ZorvUmaPthreadMutexLock", "ZorvUmaPthreadMutexUnlock"};
    ZorvUmaInsertIntoList(m_pData, {});
    ZorvUmaGetFreeBuffer(m_pData);
    EXPECT_EQ(locks.Names(), (Strings{"ZorvUmaPthreadMutexLock", "ZorvUmaPthreadMutexUnlock",
                                      "ZorvUmaPthreadMutexLock", "ZorvUmaPthreadMutexUnlock"}));
    for (const Call& call : locks.Calls())
    {
        EXPECT_EQ(call.Arg<pthread_mutex_t*>(0), &m_pData->m_lock);
    }
}

// ---- taking one ------------------------------------------------------------------------------------------

TEST_F(Buffers, TheFirstReadyOneFromTheHeadIsTaken)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    const auto buffers = BuffersOf(*m_pData);
    for (ZorvUmaBuffer* pExpected : buffers)
    {
        EXPECT_EQ(ZorvUmaGetFreeBuffer(m_pData), pExpected);
        EXPECT_EQ(pExpected->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
    }
    EXPECT_EQ(ZorvUmaGetFreeBuffer(m_pData), nullptr);
    buffers[5]->m_state = ZORV_UMA_BUFFER_STATE_READY;
    buffers[2]->m_state = ZORV_UMA_BUFFER_STATE_READY;
    EXPECT_EQ(ZorvUmaGetFreeBuffer(m_pData), buffers[2]) << "low positions are reused first";
}

TEST_F(Buffers, OneThatIsFullFreedOrWithoutStorageIsNotTaken)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    const auto buffers = BuffersOf(*m_pData);
    buffers[0]->m_state = ZORV_UMA_BUFFER_STATE_FULL;
    buffers[1]->m_state = ZORV_UMA_BUFFER_STATE_NONE;
    buffers[2]->m_state = ZORV_UMA_BUFFER_STATE_IN_USE;
    buffers[3]->m_pData = nullptr;
    EXPECT_EQ(ZorvUmaGetFreeBuffer(m_pData), buffers[4]);
    EXPECT_EQ(buffers[3]->m_state, ZORV_UMA_BUFFER_STATE_READY);
}

TEST_F(Buffers, NoneIsTakenFromNothing)
{
    EXPECT_EQ(ZorvUmaGetFreeBuffer(nullptr), nullptr);
    EXPECT_EQ(ZorvUmaGetFreeBuffer(m_pData), nullptr);
}

TEST_F(Buffers, EachIsTakenByOneThreadOnly)
{
    for (int i = 0; i < 16; i++)
    {
        ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    }
    std::vector<ZorvUmaBuffer*> taken[4];
    std::vector<std::thread> threads;
    for (auto& mine : taken)
    {
        threads.emplace_back(
            [&]
            {
                while (ZorvUmaBuffer* pBuffer = ZorvUmaGetFreeBuffer(m_pData))
                {
                    mine.push_back(pBuffer);
                }
            });
    }
    std::vector<ZorvUmaBuffer*> all;
    for (size_t i = 0; i < threads.size(); i++)
    {
        threads[i].join();
        all.insert(all.end(), taken[i].begin(), taken[i].end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all.size(), 128u);
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
}

// ---- memory ----------------------------------------------------------------------------------------------

// The process's private memory in the kernel's own count; read without allocating. The kernel's shared page of
// zeroes, which a page that was only read shows, is not in it.
long PrivateKibibytes()
{
    static char text[4096];
    const int fd = open("/proc/self/smaps_rollup", O_RDONLY);
    const ssize_t count = read(fd, text, sizeof text - 1);
    close(fd);
    text[count > 0 ? count : 0] = 0;
    const char* pLine = strstr(text, "Anonymous:");
    return pLine != nullptr ? atol(pLine + strlen("Anonymous:")) : -1;
}

// As many as these threads add to a stream, with what the list and the allocator need.
class BufferMemory : public Buffers, public testing::WithParamInterface<int>
{
};

TEST_P(BufferMemory, EightNewBuffersCostAtMost40Kibibytes)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    const long before = PrivateKibibytes();
    ASSERT_GT(before, 0);
    for (int thread = 0; thread < GetParam(); thread++)
    {
        ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    }
    EXPECT_LE(PrivateKibibytes() - before, GetParam() * 40);
}

INSTANTIATE_TEST_SUITE_P(Threads, BufferMemory, testing::Values(1, 2, 100));

// A buffer that was emptied holds on to the pages that were written, and to no more.
TEST_F(Buffers, EmptyingABufferTouchesNoOtherPage)
{
    ASSERT_TRUE(ZorvUmaCreateBuffers(m_pData, m_logFd));
    const auto buffers = BuffersOf(*m_pData);
    for (ZorvUmaBuffer* pBuffer : buffers)
    {
        FillBuffer(pBuffer, 64, 'x');
        pBuffer->m_state = ZORV_UMA_BUFFER_STATE_FULL;
        ZorvUmaEnqueue(m_pData->m_pQueue, pBuffer);
    }
    const long before = PrivateKibibytes();
    ASSERT_TRUE(ZorvUmaWriteBuffer(m_pData, m_logFd));
    EXPECT_LE(PrivateKibibytes() - before, 8);
}

} // namespace
