// Proc records and thread-end records, in both streams.
#include "Support.h"

#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::NoMemory;
using faults::Replace;

namespace
{

constexpr uint64_t THREAD_HANDLE = 0x7F00'1122'3344'5566;

class StreamRecords : public RecordingTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
        ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umsData, m_logFd));
        m_pInfo->m_umsConfig.m_configFlags = ZORV_UMS_CS | ZORV_UMS_PMC;
        MakeBuffersDirty(m_pInfo->m_umtData);
        MakeBuffersDirty(m_pInfo->m_umsData);
    }

    // Every byte of a record has to be written: what lies there may be an old provisional record.
    static void MakeBuffersDirty(const ZorvUmaData& data)
    {
        for (const ZorvUmaBuffer* pBuffer : BuffersOf(data))
        {
            memset(pBuffer->m_pData, 0xA5, pBuffer->m_bufSize);
        }
    }

    void TakeAllBuffers(ZorvUmaData& data)
    {
        while (ZorvUmaGetFreeBuffer(&data) != nullptr)
        {
        }
    }

    uint32_t TraceLength()
    {
        return m_pThread->m_pUmtBuf == nullptr ? 0 : m_pThread->m_pUmtBuf->m_dataLen;
    }

    uint32_t SampleLength()
    {
        return m_pThread->m_pUmsBuf == nullptr ? 0 : m_pThread->m_pUmsBuf->m_dataLen;
    }
};

// ---- proc records ----------------------------------------------------------------------------------------

class ProcRecord : public StreamRecords
{
protected:
    void Write(const char* pName, int len)
    {
        ZorvUmaWriteProcRecord(m_pInfo, 321, pName, len, 1000, THREAD_HANDLE);
    }

    static std::string NameIn(const ProcBody& body)
    {
        return std::string(body.m_name, sizeof body.m_name);
    }

    static std::string Padded(std::string name)
    {
        name.resize(32, '\0');
        return name;
    }

    ProcBody TraceBody()
    {
        return ReadAt<ProcBody>(m_pThread->m_pUmtBuf, sizeof(TraceHeader));
    }

    ProcBody SampleBody()
    {
        return ReadAt<ProcBody>(m_pThread->m_pUmsBuf, sizeof(SampleHeader));
    }
};

TEST_F(ProcRecord, OfTheTraceStreamHasEndTimeZero)
{
    Write("worker", 6);
    ASSERT_EQ(TraceLength(), TRACE_PROC_SIZE);
    const auto header = ReadAt<TraceHeader>(m_pThread->m_pUmtBuf, 0);
    EXPECT_EQ(header.m_recType, ZORV_UMT_RECORD_PROC);
    EXPECT_EQ(header.m_recSize, 80);
    EXPECT_EQ(header.m_subType, 0);
    EXPECT_EQ(header.m_flags, 0);
    EXPECT_EQ(header.m_startTime, 1000u);
    EXPECT_EQ(header.m_endTime, 0u);
    EXPECT_EQ(header.m_pid, getpid());
    EXPECT_EQ(header.m_tid, 321);
    const ProcBody body = TraceBody();
    EXPECT_EQ(body.m_pthreadId, THREAD_HANDLE);
    EXPECT_EQ(body.m_reserved, 0u);
    EXPECT_EQ(NameIn(body), Padded("worker"));
}

TEST_F(ProcRecord, OfTheSampleStreamCarriesTheConfiguredFlags)
{
    Replace cpu("ZorvUmaGetCpu", Fails(5));
    Write("worker", 6);
    ASSERT_EQ(SampleLength(), SAMPLE_PROC_SIZE);
    const auto header = ReadAt<SampleHeader>(m_pThread->m_pUmsBuf, 0);
    EXPECT_EQ(header.m_recType, ZORV_UMS_RECORD_PROC);
    EXPECT_EQ(header.m_recSize, 72);
    EXPECT_EQ(header.m_coreId, 5);
    EXPECT_EQ(header.m_flags, ZORV_UMS_CS | ZORV_UMS_PMC);
    EXPECT_EQ(header.m_startTime, 1000u);
    EXPECT_EQ(header.m_pid, getpid());
    EXPECT_EQ(header.m_tid, 321);
    const ProcBody body = SampleBody();
    EXPECT_EQ(body.m_pthreadId, THREAD_HANDLE);
    EXPECT_EQ(body.m_reserved, 0u);
    EXPECT_EQ(NameIn(body), Padded("worker"));
}

TEST_F(ProcRecord, ANameOfExactly32BytesHasNoTerminator)
{
    const std::string name = "abcdefghijklmnopqrstuvwxyz012345";
    Write(name.c_str(), 32);
    EXPECT_EQ(NameIn(TraceBody()), name);
    EXPECT_EQ(NameIn(SampleBody()), name);
    EXPECT_EQ(TraceBody().m_pthreadId, THREAD_HANDLE);
}

TEST_F(ProcRecord, OnlyTheGivenBytesAreCopied)
{
    Write("abcdef", 3);
    EXPECT_EQ(NameIn(TraceBody()), Padded("abc"));
    EXPECT_EQ(NameIn(SampleBody()), Padded("abc"));
}

TEST_F(ProcRecord, WithoutANameCarriesTheThreadsOwn)
{
    char own[32] = {};
    pthread_getname_np(pthread_self(), own, sizeof own);
    Write(nullptr, 0);
    EXPECT_EQ(NameIn(TraceBody()), Padded(own));
    EXPECT_EQ(NameIn(SampleBody()), Padded(own));
}

TEST_F(ProcRecord, OfAThreadWithoutAReadableNameIsNotWritten)
{
    Replace name("ZorvUmaGetCurrentThreadName", Fails(0));
    Write(nullptr, 0);
    EXPECT_EQ(TraceLength() + SampleLength(), 0u);
    Write("given", 5);
    EXPECT_EQ(TraceLength() + SampleLength(), TRACE_PROC_SIZE + SAMPLE_PROC_SIZE);
}

TEST_F(ProcRecord, GoesToEnabledStreamsOnly)
{
    m_pInfo->m_umsConfig.m_enable = false;
    Write("a", 1);
    EXPECT_EQ(TraceLength(), TRACE_PROC_SIZE);
    EXPECT_EQ(SampleLength(), 0u);
    m_pInfo->m_umsConfig.m_enable = true;
    m_pInfo->m_umtConfig.m_enable = false;
    Write("a", 1);
    EXPECT_EQ(TraceLength(), TRACE_PROC_SIZE);
    EXPECT_EQ(SampleLength(), SAMPLE_PROC_SIZE);
}

TEST_F(ProcRecord, IsNotWrittenOnceCollectionStopped)
{
    ZorvUmaWriteProcRecord(nullptr, 321, "a", 1, 1000, 0);
    m_pThread->m_stopCollection = true;
    Write("a", 1);
    EXPECT_EQ(TraceLength() + SampleLength(), 0u);
}

TEST_F(ProcRecord, WithoutATraceBufferIsLostAndLogged)
{
    m_pInfo->m_umsConfig.m_enable = false;
    TakeAllBuffers(m_pInfo->m_umtData);
    NoMemory noMemory(32768);
    Write("a", 1);
    EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 1u);
    const Strings expected = {
        "ERROR Failed to allocate the memory for buffer", "ERROR Failed to write the header for record (4).",
        Format("WARN Failed to write record header, buffer is not allocated in process (%d) thread (%ld).",
               getpid(), syscall(SYS_gettid))};
    EXPECT_EQ(Log(), expected);
}

TEST_F(ProcRecord, WithoutASampleBufferIsLostSilently)
{
    TakeAllBuffers(m_pInfo->m_umsData);
    Write("a", 1);
    EXPECT_EQ(m_pInfo->m_umsData.m_lostRecordCount, 1u);
    EXPECT_EQ(TraceLength(), TRACE_PROC_SIZE) << "the trace stream is not affected";
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(ProcRecord, ThatFillsItsBufferGoesIntoTheNext)
{
    Write("a", 1);
    ZorvUmaBuffer* pFirst = m_pThread->m_pUmtBuf;
    pFirst->m_dataLen = pFirst->m_bufSize - 80;
    Write("b", 1);
    EXPECT_NE(m_pThread->m_pUmtBuf, pFirst);
    EXPECT_EQ(NameIn(TraceBody()), Padded("b"));
    pFirst = m_pThread->m_pUmtBuf;
    pFirst->m_dataLen = pFirst->m_bufSize - 88;
    Write("c", 1);
    EXPECT_EQ(m_pThread->m_pUmtBuf, pFirst);
}

// ---- thread-end records ----------------------------------------------------------------------------------

class ThreadEnd : public StreamRecords
{
protected:
    void Write()
    {
        ZorvUmaWriteThreadEndRecord(m_pInfo, THREAD_HANDLE);
    }
};

TEST_F(ThreadEnd, OfTheTraceStreamHasEqualTimes)
{
    Replace time("ZorvUmaGetTime", Fails(4321));
    Write();
    EXPECT_EQ(time.Calls(), 1) << "one time for both records";
    ASSERT_EQ(TraceLength(), TRACE_THREAD_END_SIZE);
    const auto header = ReadAt<TraceHeader>(m_pThread->m_pUmtBuf, 0);
    EXPECT_EQ(header.m_recType, ZORV_UMT_RECORD_THREAD_END);
    EXPECT_EQ(header.m_recSize, 40);
    EXPECT_EQ(header.m_subType, 0);
    EXPECT_EQ(header.m_flags, 0);
    EXPECT_EQ(header.m_startTime, 4321u);
    EXPECT_EQ(header.m_endTime, 4321u);
    EXPECT_EQ(header.m_pid, getpid());
    EXPECT_EQ(header.m_tid, syscall(SYS_gettid));
    EXPECT_EQ(ReadAt<uint64_t>(m_pThread->m_pUmtBuf, 32), THREAD_HANDLE);
}

TEST_F(ThreadEnd, OfTheSampleStreamHasNoFlags)
{
    Replace time("ZorvUmaGetTime", Fails(4321));
    Write();
    ASSERT_EQ(SampleLength(), SAMPLE_THREAD_END_SIZE);
    const auto header = ReadAt<SampleHeader>(m_pThread->m_pUmsBuf, 0);
    EXPECT_EQ(header.m_recType, ZORV_UMS_RECORD_THREAD_END);
    EXPECT_EQ(header.m_recSize, 32);
    EXPECT_EQ(header.m_flags, 0);
    EXPECT_EQ(header.m_startTime, 4321u);
    EXPECT_EQ(header.m_pid, getpid());
    EXPECT_EQ(header.m_tid, syscall(SYS_gettid));
    EXPECT_EQ(ReadAt<uint64_t>(m_pThread->m_pUmsBuf, 24), THREAD_HANDLE);
}

TEST_F(ThreadEnd, GoesToEnabledStreamsOnly)
{
    m_pInfo->m_umsConfig.m_enable = false;
    Write();
    m_pInfo->m_umsConfig.m_enable = true;
    m_pInfo->m_umtConfig.m_enable = false;
    Write();
    EXPECT_EQ(TraceLength(), TRACE_THREAD_END_SIZE);
    EXPECT_EQ(SampleLength(), SAMPLE_THREAD_END_SIZE);
}

TEST_F(ThreadEnd, IsNotWrittenWithoutRecordsOrOnceStopped)
{
    ZorvUmaWriteThreadEndRecord(nullptr, 0);
    std::thread([this] { Write(); }).join();
    m_pThread->m_stopCollection = true;
    Write();
    EXPECT_EQ(TraceLength() + SampleLength(), 0u);
    EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 0u);
}

TEST_F(ThreadEnd, WithoutBuffersIsLostInBothStreams)
{
    TakeAllBuffers(m_pInfo->m_umtData);
    TakeAllBuffers(m_pInfo->m_umsData);
    NoMemory noMemory(32768);
    Write();
    EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 1u);
    EXPECT_EQ(m_pInfo->m_umsData.m_lostRecordCount, 1u);
    EXPECT_EQ(TraceLength() + SampleLength(), 0u);
}

TEST_F(ThreadEnd, WithoutStorageIsNotCountedIn)
{
    Write();
    char* pTrace = m_pThread->m_pUmtBuf->m_pData;
    char* pSample = m_pThread->m_pUmsBuf->m_pData;
    m_pThread->m_pUmtBuf->m_pData = m_pThread->m_pUmsBuf->m_pData = nullptr;
    Write();
    EXPECT_EQ(TraceLength(), TRACE_THREAD_END_SIZE);
    EXPECT_EQ(SampleLength(), SAMPLE_THREAD_END_SIZE);
    m_pThread->m_pUmtBuf->m_pData = pTrace;
    m_pThread->m_pUmsBuf->m_pData = pSample;
}

// ---- over a provisional record ---------------------------------------------------------------------------

using Provisional = ThreadEnd;

// Else the final write would add 64 stray bytes behind the record.
TEST_F(Provisional, AThreadEndRecordWithdrawsIt)
{
    ZorvUmaBuffer* pCache = ZorvUmtCachePthreadRecord(m_pInfo, 10, 20, 30, ZORV_PTHREAD_LOCK_MUTEX);
    ASSERT_NE(pCache, nullptr);
    ASSERT_EQ(pCache->m_cacheLen, 64u);
    Write();
    EXPECT_EQ(pCache->m_dataLen, TRACE_THREAD_END_SIZE);
    EXPECT_EQ(pCache->m_cacheLen, 0u);
}

TEST_F(Provisional, AProcRecordWithdrawsIt)
{
    ZorvUmaBuffer* pCache = ZorvUmtCachePthreadRecord(m_pInfo, 10, 20, 30, ZORV_PTHREAD_LOCK_MUTEX);
    ASSERT_NE(pCache, nullptr);
    ZorvUmaWriteProcRecord(m_pInfo, 1, "name", 4, 1000, 0);
    EXPECT_EQ(pCache->m_dataLen, TRACE_PROC_SIZE);
    EXPECT_EQ(pCache->m_cacheLen, 0u);
}

} // namespace
