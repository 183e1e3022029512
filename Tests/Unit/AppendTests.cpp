// How a record finds its place: the fit test, the change of the buffer, and what happens without one.
#include "Support.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::NoMemory;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

// ---- the trace stream ------------------------------------------------------------------------------------

class Append : public RecordingTest
{
protected:
    void Prepare(ZorvUmaData* pStream)
    {
        m_pStream = pStream;
        ASSERT_TRUE(ZorvUmaCreateBuffers(m_pStream, m_logFd));
        m_buffers = BuffersOf(*m_pStream);
    }

    // A buffer as its thread holds it, with that many bytes still free.
    ZorvUmaBuffer* HeldBuffer(int index, uint32_t room)
    {
        ZorvUmaBuffer* pBuffer = m_buffers[index];
        pBuffer->m_state = ZORV_UMA_BUFFER_STATE_IN_USE;
        pBuffer->m_dataLen = pBuffer->m_bufSize - room;
        return pBuffer;
    }

    void TakeAllBuffers()
    {
        while (ZorvUmaGetFreeBuffer(m_pStream) != nullptr)
        {
        }
    }

    int Posts()
    {
        int value = 0;
        sem_getvalue(&m_pInfo->m_semaphore, &value);
        return value;
    }

    std::vector<ZorvUmaBuffer*> Queued()
    {
        return QueuedBuffers(*m_pStream->m_pQueue);
    }

    // The two lines of a record that found no buffer.
    Strings LostLines(int recordType)
    {
        return {
            Format("ERROR Failed to write the header for record (%d).", recordType),
            Format("WARN Failed to write record header, buffer is not allocated in process (%d) thread (%ld).",
                   getpid(), syscall(SYS_gettid))};
    }

    ZorvUmaData* m_pStream = nullptr;
    std::vector<ZorvUmaBuffer*> m_buffers;
};

class TraceAppend : public Append
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        ASSERT_NO_FATAL_FAILURE(Prepare(&m_pInfo->m_umtData));
    }

    bool Insert(uint16_t size = 64)
    {
        return ZorvUmtInsertTraceRecordHdr(m_pInfo, 321, 1000, 2000, size, ZORV_UMT_RECORD_SYSCALL, 5, 1);
    }

    ZorvUmaBuffer* UseBuffer(int index, uint32_t room)
    {
        return m_pThread->m_pUmtBuf = HeldBuffer(index, room);
    }
};

TEST_F(TraceAppend, TheFirstRecordTakesTheFirstReadyBuffer)
{
    EXPECT_TRUE(Insert());
    EXPECT_EQ(m_pThread->m_pUmtBuf, m_buffers[0]);
    EXPECT_EQ(m_buffers[0]->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
    EXPECT_TRUE(Queued().empty());
    EXPECT_EQ(Posts(), 0);
}

TEST_F(TraceAppend, TheHeaderIsFilledAndTheLengthIsLeftToTheCaller)
{
    ZorvUmaBuffer* pBuffer = UseBuffer(0, 10000);
    memset(pBuffer->m_pData + pBuffer->m_dataLen, 0xA5, 96);
    const uint32_t offset = pBuffer->m_dataLen;
    EXPECT_TRUE(Insert(80));
    const auto header = ReadAt<TraceHeader>(pBuffer, offset);
    EXPECT_EQ(header.m_recType, ZORV_UMT_RECORD_SYSCALL);
    EXPECT_EQ(header.m_recSize, 80);
    EXPECT_EQ(header.m_subType, 5);
    EXPECT_EQ(header.m_flags, 1);
    EXPECT_EQ(header.m_startTime, 1000u);
    EXPECT_EQ(header.m_endTime, 2000u);
    EXPECT_EQ(header.m_pid, getpid());
    EXPECT_EQ(header.m_tid, 321);
    EXPECT_EQ(pBuffer->m_dataLen, offset);
    EXPECT_EQ(static_cast<unsigned char>(pBuffer->m_pData[offset + 32]), 0xA5) << "the body is the caller's";
}

// Strictly less: a record that would fill the buffer to its last byte does not fit.
TEST_F(TraceAppend, ARecordThatWouldFillTheBufferExactlyDoesNotFit)
{
    ZorvUmaBuffer* pFull = UseBuffer(0, 64);
    EXPECT_TRUE(Insert(64));
    EXPECT_EQ(pFull->m_state, ZORV_UMA_BUFFER_STATE_FULL);
    EXPECT_EQ(Queued(), std::vector<ZorvUmaBuffer*>{pFull});
    EXPECT_EQ(m_pThread->m_pUmtBuf, m_buffers[1]);
    EXPECT_EQ(Posts(), 1);
    EXPECT_EQ(pFull->m_dataLen, pFull->m_bufSize - 64) << "that space stays unused";
}

TEST_F(TraceAppend, ARecordThatLeavesOneByteFits)
{
    ZorvUmaBuffer* pBuffer = UseBuffer(0, 64);
    EXPECT_TRUE(Insert(63));
    EXPECT_EQ(m_pThread->m_pUmtBuf, pBuffer);
    EXPECT_EQ(pBuffer->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
    EXPECT_TRUE(Queued().empty());
    EXPECT_EQ(Posts(), 0);
}

TEST_F(TraceAppend, ALargerRecordDoesNotFitEither)
{
    UseBuffer(0, 64);
    EXPECT_TRUE(Insert(65));
    EXPECT_EQ(m_pThread->m_pUmtBuf, m_buffers[1]);
}

TEST_F(TraceAppend, AProvisionalRecordReservesNoSpace)
{
    ZorvUmaBuffer* pBuffer = UseBuffer(0, 72);
    pBuffer->m_cacheLen = 64;
    EXPECT_TRUE(Insert(64));
    EXPECT_EQ(m_pThread->m_pUmtBuf, pBuffer);
}

TEST_F(TraceAppend, TheFullBufferIsQueuedBeforeTheNextIsTaken)
{
    UseBuffer(0, 8);
    CallLog calls{"ZorvUmaEnqueue", "ZorvUmaSemPost", "ZorvUmaGetFreeBuffer", "ZorvUmtAllocateNewBuffer"};
    EXPECT_TRUE(Insert());
    EXPECT_EQ(calls.Names(), (Strings{"ZorvUmaEnqueue", "ZorvUmaSemPost", "ZorvUmaGetFreeBuffer"}));
    EXPECT_EQ(calls.Calls()[0].Arg<ZorvUmaQueue*>(0), m_pStream->m_pQueue);
    EXPECT_EQ(calls.Calls()[1].Arg<sem_t*>(0), &m_pInfo->m_semaphore);
}

TEST_F(TraceAppend, AFailedEnqueueIsLoggedAndTheRecordStillPlaced)
{
    UseBuffer(0, 8);
    Replace enqueue("ZorvUmaEnqueue", Fails(0));
    EXPECT_TRUE(Insert());
    EXPECT_EQ(m_pThread->m_pUmtBuf, m_buffers[1]);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to enqueue the buffer."});
}

TEST_F(TraceAppend, AFailedPostIsLoggedAndTheRecordStillPlaced)
{
    UseBuffer(0, 8);
    Replace post("ZorvUmaSemPost", Fails(MINUS_ONE, EOVERFLOW));
    EXPECT_TRUE(Insert());
    EXPECT_EQ(m_pThread->m_pUmtBuf, m_buffers[1]);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to perform post on semaphore."});
}

// With all eight in use a ninth is made, then a tenth: the thread that added it claims it before it writes.
TEST_F(TraceAppend, WithAllBuffersInUseAnotherIsAddedAndClaimed)
{
    TakeAllBuffers();
    for (size_t count = 9; count <= 11; count++)
    {
        m_pThread->m_pUmtBuf = nullptr; // as another thread
        EXPECT_TRUE(Insert());
        ASSERT_EQ(BuffersOf(*m_pStream).size(), count);
        EXPECT_EQ(m_pThread->m_pUmtBuf, BuffersOf(*m_pStream).back());
        EXPECT_EQ(m_pThread->m_pUmtBuf->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
    }
    EXPECT_EQ(m_pStream->m_lostRecordCount, 0u);
    EXPECT_EQ(Log(), Strings{});
}

// Another thread can be faster than the one that added the buffer; nobody may write into it without a claim.
TEST_F(TraceAppend, ABufferAddedOnDemandThatAnotherThreadClaimsFirstIsNotShared)
{
    TakeAllBuffers();
    ZorvUmaBuffer* pStolen = nullptr;
    Replace add("ZorvUmtAllocateNewBuffer",
                [&](const Call& call)
                {
                    const uint64_t added = call.PassOn();
                    if (pStolen == nullptr)
                    {
                        pStolen = ZorvUmaGetFreeBuffer(m_pStream);
                        EXPECT_EQ(reinterpret_cast<uint64_t>(pStolen), added);
                    }
                    return added;
                });
    EXPECT_TRUE(Insert());
    EXPECT_NE(m_pThread->m_pUmtBuf, pStolen);
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_state, ZORV_UMA_BUFFER_STATE_IN_USE);
    EXPECT_EQ(m_pStream->m_lostRecordCount, 0u);
}

TEST_F(TraceAppend, WithoutABufferTheRecordIsLostCountedAndLogged)
{
    TakeAllBuffers();
    NoMemory noMemory(32768);
    EXPECT_FALSE(Insert());
    EXPECT_EQ(m_pStream->m_lostRecordCount, 1u);
    const Strings log = Log();
    const Strings lost = LostLines(ZORV_UMT_RECORD_SYSCALL);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log[0], "ERROR Failed to allocate the memory for buffer");
    EXPECT_EQ((Strings{log.begin() + 1, log.end()}), lost);
}

// The full one leaves the thread with its enqueue: it may not be queued a second time.
TEST_F(TraceAppend, WithoutABufferTheFullOneIsQueuedOnceAndTheNextRecordAsksAgain)
{
    TakeAllBuffers();
    ZorvUmaBuffer* pFull = UseBuffer(3, 8);
    {
        NoMemory noMemory(32768);
        EXPECT_FALSE(Insert());
        EXPECT_EQ(m_pThread->m_pUmtBuf, nullptr);
        EXPECT_FALSE(Insert());
        EXPECT_FALSE(Insert());
    }
    EXPECT_EQ(Queued(), std::vector<ZorvUmaBuffer*>{pFull});
    EXPECT_EQ(Posts(), 1);
    EXPECT_EQ(m_pStream->m_lostRecordCount, 3u);
    EXPECT_TRUE(Insert());
    EXPECT_EQ(m_pThread->m_pUmtBuf, BuffersOf(*m_pStream).back());
}

TEST_F(TraceAppend, ABufferWithoutStorageHoldsNothing)
{
    ZorvUmaBuffer* pBuffer = UseBuffer(0, 1000);
    char* pStorage = pBuffer->m_pData;
    pBuffer->m_pData = nullptr;
    EXPECT_FALSE(Insert());
    EXPECT_EQ(Log(), Strings{LostLines(0)[1]});
    pBuffer->m_pData = pStorage;
}

TEST_F(TraceAppend, WithoutRecordsNothingHappensSilently)
{
    EXPECT_FALSE(ZorvUmtInsertTraceRecordHdr(nullptr, 1, 2, 3, 64, 3, 0, 0));
    ZorvUmaFreeThreadInfo();
    EXPECT_FALSE(Insert());
    EXPECT_EQ(m_pStream->m_lostRecordCount, 0u);
    EXPECT_EQ(Log(), Strings{});
}

// ---- the sample stream -----------------------------------------------------------------------------------

class SampleAppend : public Append
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        ASSERT_NO_FATAL_FAILURE(Prepare(&m_pInfo->m_umsData));
    }

    bool InsertSample(uint16_t size = 64)
    {
        return ZorvUmsInsertSampleRecordHdr(m_pInfo, 321, 1000, size, 3, 2);
    }

    ZorvUmaBuffer* UseSampleBuffer(int index, uint32_t room)
    {
        return m_pThread->m_pUmsBuf = HeldBuffer(index, room);
    }
};

TEST_F(SampleAppend, TheHeaderIsFilledAndTheLengthIsLeftToTheCaller)
{
    Replace cpu("ZorvUmaGetCpu", Fails(77));
    ZorvUmaBuffer* pBuffer = UseSampleBuffer(0, 1000);
    const uint32_t offset = pBuffer->m_dataLen;
    EXPECT_TRUE(InsertSample(120));
    const auto header = ReadAt<SampleHeader>(pBuffer, offset);
    EXPECT_EQ(header.m_pid, getpid());
    EXPECT_EQ(header.m_tid, 321);
    EXPECT_EQ(header.m_recType, 3);
    EXPECT_EQ(header.m_recSize, 120);
    EXPECT_EQ(header.m_coreId, 77);
    EXPECT_EQ(header.m_flags, 2);
    EXPECT_EQ(header.m_startTime, 1000u);
    EXPECT_EQ(pBuffer->m_dataLen, offset);
}

TEST_F(SampleAppend, ARecordThatWouldFillTheBufferExactlyDoesNotFit)
{
    ZorvUmaBuffer* pFull = UseSampleBuffer(0, 64);
    EXPECT_TRUE(InsertSample(64));
    EXPECT_EQ(pFull->m_state, ZORV_UMA_BUFFER_STATE_FULL);
    EXPECT_EQ(Queued(), std::vector<ZorvUmaBuffer*>{pFull});
    EXPECT_EQ(m_pThread->m_pUmsBuf, m_buffers[1]);
    EXPECT_EQ(Posts(), 1);
}

TEST_F(SampleAppend, ARecordThatLeavesOneByteFits)
{
    ZorvUmaBuffer* pBuffer = UseSampleBuffer(0, 64);
    EXPECT_TRUE(InsertSample(63));
    EXPECT_EQ(m_pThread->m_pUmsBuf, pBuffer);
}

// The sample stream never grows: the record is counted, and nobody waits.
TEST_F(SampleAppend, WithAllEightTakenRecordsAreCountedAsLostSilently)
{
    TakeAllBuffers();
    for (uint32_t lost = 1; lost <= 3; lost++)
    {
        EXPECT_FALSE(InsertSample());
        EXPECT_EQ(m_pStream->m_lostRecordCount, lost);
    }
    EXPECT_EQ(BuffersOf(*m_pStream).size(), 8u);
    EXPECT_EQ(Log(), Strings{});
    m_buffers[6]->m_state = ZORV_UMA_BUFFER_STATE_READY;
    EXPECT_TRUE(InsertSample());
    EXPECT_EQ(m_pThread->m_pUmsBuf, m_buffers[6]);
}

TEST_F(SampleAppend, TheFullOneIsQueuedOnceAlsoWithoutANextOne)
{
    TakeAllBuffers();
    ZorvUmaBuffer* pFull = UseSampleBuffer(3, 8);
    EXPECT_FALSE(InsertSample());
    EXPECT_FALSE(InsertSample());
    EXPECT_EQ(Queued(), std::vector<ZorvUmaBuffer*>{pFull});
    EXPECT_EQ(Posts(), 1);
    EXPECT_EQ(m_pStream->m_lostRecordCount, 2u);
}

TEST_F(SampleAppend, FailuresOfEnqueueAndPostAreSilent)
{
    UseSampleBuffer(0, 8);
    Replace enqueue("ZorvUmaEnqueue", Fails(0));
    Replace post("ZorvUmaSemPost", Fails(MINUS_ONE));
    EXPECT_TRUE(InsertSample());
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(SampleAppend, WithoutRecordsNothingHappens)
{
    EXPECT_FALSE(ZorvUmsInsertSampleRecordHdr(nullptr, 1, 2, 64, 3, 0));
    ZorvUmaFreeThreadInfo();
    EXPECT_FALSE(InsertSample());
    EXPECT_EQ(m_pStream->m_lostRecordCount, 0u);
}

} // namespace
