// The queue of full buffers.
#include "Support.h"

#include <thread>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::FailsOn;
using faults::NoMemory;
using faults::Replace;

namespace
{

// ---- first in, first out ---------------------------------------------------------------------------------

class Queue : public AgentTest
{
protected:
    Stream m_stream{true};
    ZorvUmaQueue* const m_pQueue = &m_stream.m_queue;
    ZorvUmaBuffer m_buffers[3]{};
};

TEST_F(Queue, GivesBackInTheOrderOfArrival)
{
    EXPECT_TRUE(ZorvUmaIsQueueEmpty(m_pQueue));
    for (ZorvUmaBuffer& buffer : m_buffers)
    {
        buffer.m_pNext = &buffer; // a stale link
        EXPECT_TRUE(ZorvUmaEnqueue(m_pQueue, &buffer));
        EXPECT_EQ(buffer.m_pNext, nullptr);
        EXPECT_FALSE(ZorvUmaIsQueueEmpty(m_pQueue));
    }
    EXPECT_EQ(QueuedBuffers(*m_pQueue).size(), 3u);
    for (ZorvUmaBuffer& buffer : m_buffers)
    {
        EXPECT_EQ(ZorvUmaDequeue(m_pQueue), &buffer);
        EXPECT_EQ(buffer.m_pNext, nullptr);
    }
    EXPECT_TRUE(ZorvUmaIsQueueEmpty(m_pQueue));
    EXPECT_EQ(m_pQueue->m_pFront, nullptr);
    EXPECT_EQ(m_pQueue->m_pRear, nullptr);
    EXPECT_EQ(ZorvUmaDequeue(m_pQueue), nullptr);
}

TEST_F(Queue, CanBeFilledAgainAfterItRanEmpty)
{
    ZorvUmaEnqueue(m_pQueue, &m_buffers[0]);
    ZorvUmaDequeue(m_pQueue);
    ZorvUmaEnqueue(m_pQueue, &m_buffers[1]);
    EXPECT_EQ(QueuedBuffers(*m_pQueue), std::vector<ZorvUmaBuffer*>{&m_buffers[1]});
    EXPECT_EQ(ZorvUmaDequeue(m_pQueue), &m_buffers[1]);
}

TEST_F(Queue, TakesNoNull)
{
    EXPECT_FALSE(ZorvUmaEnqueue(nullptr, &m_buffers[0]));
    EXPECT_FALSE(ZorvUmaEnqueue(m_pQueue, nullptr));
    EXPECT_TRUE(ZorvUmaIsQueueEmpty(m_pQueue));
}

// Empty means that both ends are null; a queue that is not there is not empty.
TEST_F(Queue, EmptyNeedsBothEndsNull)
{
    EXPECT_FALSE(ZorvUmaIsQueueEmpty(nullptr));
    m_pQueue->m_pFront = &m_buffers[0];
    EXPECT_FALSE(ZorvUmaIsQueueEmpty(m_pQueue));
    m_pQueue->m_pFront = nullptr;
    m_pQueue->m_pRear = &m_buffers[0];
    EXPECT_FALSE(ZorvUmaIsQueueEmpty(m_pQueue));
    EXPECT_EQ(ZorvUmaDequeue(m_pQueue), nullptr) << "there is no front";
}

TEST_F(Queue, IsLockedAroundEveryChange)
{
    CallLog locks{"ZorvUmaPthreadMutexLock", "ZorvUmaPthreadMutexUnlock"};
    ZorvUmaEnqueue(m_pQueue, &m_buffers[0]);
    ZorvUmaDequeue(m_pQueue);
    ZorvUmaDequeue(m_pQueue); // also before it is found empty
    Strings expected;
    for (int i = 0; i < 3; i++)
    {
        expected.insert(expected.end(), {"ZorvUmaPthreadMutexLock", "ZorvUmaPthreadMutexUnlock"});
    }
    EXPECT_EQ(locks.Names(), expected);
    for (const Call& call : locks.Calls())
    {
        EXPECT_EQ(call.Arg<pthread_mutex_t*>(0), &m_pQueue->m_lock);
    }
}

TEST_F(Queue, LosesNothingBetweenProducersAndAConsumer)
{
    constexpr int PRODUCERS = 3;
    constexpr int EACH = 20000;
    std::vector<ZorvUmaBuffer> buffers(PRODUCERS * EACH);
    std::vector<std::thread> threads;
    for (int producer = 0; producer < PRODUCERS; producer++)
    {
        threads.emplace_back(
            [&, producer]
            {
                for (int i = 0; i < EACH; i++)
                {
                    buffers[producer * EACH + i].m_dataLen = i;
                    ZorvUmaEnqueue(m_pQueue, &buffers[producer * EACH + i]);
                }
            });
    }
    uint32_t next[PRODUCERS] = {};
    for (int taken = 0; taken < PRODUCERS * EACH;)
    {
        if (ZorvUmaBuffer* pBuffer = ZorvUmaDequeue(m_pQueue))
        {
            taken++;
            const auto producer = (pBuffer - buffers.data()) / EACH;
            ASSERT_EQ(pBuffer->m_dataLen, next[producer]++);
        }
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(ZorvUmaDequeue(m_pQueue), nullptr);
}

// ---- made and destroyed with the process -----------------------------------------------------------------

class Queues : public AgentTest
{
protected:
    bool Create(bool isSampling, bool isTracing)
    {
        m_pInfo->m_umsConfig.m_enable = isSampling;
        m_pInfo->m_umtConfig.m_enable = isTracing;
        return ZorvUmaCreateQueue(m_pInfo);
    }

    ZorvUmaQueue*& SampleQueue()
    {
        return m_pInfo->m_umsData.m_pQueue;
    }

    ZorvUmaQueue*& TraceQueue()
    {
        return m_pInfo->m_umtData.m_pQueue;
    }
};

TEST_F(Queues, OneForEachEnabledStream)
{
    EXPECT_TRUE(Create(true, true));
    for (ZorvUmaQueue* pQueue : {SampleQueue(), TraceQueue()})
    {
        ASSERT_NE(pQueue, nullptr);
        EXPECT_TRUE(ZorvUmaIsQueueEmpty(pQueue));
        EXPECT_EQ(pthread_mutex_trylock(&pQueue->m_lock), 0);
    }
}

TEST_F(Queues, WithSamplingDisabledThereIsNoSampleQueue)
{
    EXPECT_TRUE(Create(false, true));
    EXPECT_EQ(SampleQueue(), nullptr);
    EXPECT_NE(TraceQueue(), nullptr);
}

TEST_F(Queues, WithTracingDisabledThereIsNoTraceQueue)
{
    EXPECT_TRUE(Create(true, false));
    EXPECT_NE(SampleQueue(), nullptr);
    EXPECT_EQ(TraceQueue(), nullptr);
}

TEST_F(Queues, NullIsNothingToDo)
{
    EXPECT_TRUE(ZorvUmaCreateQueue(nullptr));
    ZorvUmaDestroyQueue(nullptr);
}

TEST_F(Queues, AreEmptyInUsedMemoryToo)
{
    Replace dirty("ZorvUmaMalloc",
                  [](const Call& call)
                  {
                      const uint64_t result = call.PassOn();
                      memset(reinterpret_cast<void*>(result), 0xA5, call.Arg<size_t>(0));
                      return result;
                  });
    EXPECT_TRUE(Create(true, true));
    EXPECT_TRUE(ZorvUmaIsQueueEmpty(SampleQueue()));
    EXPECT_TRUE(ZorvUmaIsQueueEmpty(TraceQueue()));
    EXPECT_EQ(pthread_mutex_trylock(&TraceQueue()->m_lock), 0);
}

TEST_F(Queues, NoMemoryForTheFirstOrTheSecond)
{
    for (long spare : {0, 1})
    {
        NoMemory noMemory(1, 1024, spare);
        EXPECT_FALSE(Create(true, true));
        EXPECT_EQ(noMemory.Refused(), 1);
    }
}

TEST_F(Queues, DestroyingFreesThemAndLeavesTheirBuffers)
{
    ASSERT_TRUE(Create(true, true));
    ZorvUmaBuffer buffer{5, 6, ZORV_UMA_BUFFER_STATE_FULL, 7, nullptr, nullptr};
    ZorvUmaEnqueue(TraceQueue(), &buffer);
    CallLog frees{"ZorvUmaFree"};
    ZorvUmaDestroyQueue(m_pInfo);
    EXPECT_EQ(frees.Calls().size(), 2u);
    EXPECT_EQ(SampleQueue(), nullptr);
    EXPECT_EQ(TraceQueue(), nullptr);
    EXPECT_EQ(buffer.m_dataLen, 5u);
    EXPECT_EQ(buffer.m_state, ZORV_UMA_BUFFER_STATE_FULL);
    ZorvUmaDestroyQueue(m_pInfo);
    EXPECT_EQ(frees.Calls().size(), 2u);
}

} // namespace
