// The members that can block: parked before the call, completed or withdrawn after it. Timed ones are the same
// with a test of their deadline before; the spin lock is the same without the parking.
#include "FakeLibrary.h"

#include <sys/syscall.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::NoMemory;
using faults::Replace;

namespace
{

class Blocking : public InterposerTest, public testing::WithParamInterface<Entry>
{
protected:
    bool IsParked()
    {
        return GetParam().m_pattern != Pattern::SPIN;
    }

    void ExpectCall(const PthreadRecord& record, uint64_t start, uint64_t end, int result)
    {
        EXPECT_EQ(record.m_hdr.m_recType, ZORV_UMT_RECORD_PTHREAD);
        EXPECT_EQ(record.m_hdr.m_recSize, 64);
        EXPECT_EQ(record.m_hdr.m_subType, GetParam().m_type);
        EXPECT_EQ(record.m_hdr.m_flags, 0);
        EXPECT_EQ(record.m_hdr.m_startTime, start);
        EXPECT_EQ(record.m_hdr.m_endTime, end);
        EXPECT_EQ(record.m_hdr.m_pid, getpid());
        EXPECT_EQ(record.m_hdr.m_tid, syscall(SYS_gettid));
        EXPECT_EQ(record.m_lockAddress, FIRST_ARGUMENT);
        EXPECT_EQ(record.m_funcVa, FakeAddress(GetParam().m_pFunction));
        EXPECT_EQ(record.m_parId, 0u);
        EXPECT_EQ(record.m_retValue, result);
        EXPECT_EQ(record.m_csSize, 0);
    }

    void ExpectNoRecord()
    {
        EXPECT_EQ(DataLength(), 0u);
        EXPECT_EQ(Buffer() == nullptr ? 0 : Buffer()->m_cacheLen, 0u);
        EXPECT_EQ(g_library.m_calls.size(), 1u) << "the call itself is always made";
    }
};

// ---- the record ------------------------------------------------------------------------------------------

TEST_P(Blocking, TheCallIsRecordedWithTimesLockFunctionAndResult)
{
    g_library.m_duration = 500;
    g_library.m_result = ETIMEDOUT;
    EXPECT_EQ(CallEntry(GetParam()), ETIMEDOUT);
    ASSERT_EQ(Records().size(), 1u);
    ExpectCall(Records()[0], 1'000'000, 1'000'500, ETIMEDOUT);
    EXPECT_EQ(Buffer()->m_cacheLen, 0u);
}

TEST_P(Blocking, ANegativeResultIsRecordedAsItIs)
{
    g_library.m_result = -1;
    g_library.m_errno = EINTR;
    EXPECT_EQ(CallEntry(GetParam()), -1);
    EXPECT_EQ(errno, EINTR);
    ASSERT_EQ(Records().size(), 1u);
    EXPECT_EQ(Records()[0].m_retValue, -1);
}

TEST_P(Blocking, DuringTheCallAProvisionalRecordIsParked)
{
    bool wasCalled = false;
    g_library.m_during = [&]
    {
        wasCalled = true;
        if (!IsParked())
        {
            EXPECT_TRUE(Buffer() == nullptr || Buffer()->m_cacheLen == 0);
            return;
        }
        ASSERT_NE(Buffer(), nullptr);
        EXPECT_EQ(Buffer()->m_cacheLen, 64u);
        EXPECT_EQ(Buffer()->m_dataLen, 0u);
        ExpectCall(ReadAt<PthreadRecord>(Buffer(), 0), 1'000'000, NOT_ENDED, 0);
    };
    CallEntry(GetParam());
    EXPECT_TRUE(wasCalled);
}

TEST_P(Blocking, TheParallelRegionIsRecorded)
{
    m_pInfo->m_pZorvGetOpenMPParId = []() -> uint64_t { return 4711; };
    CallEntry(GetParam());
    ASSERT_EQ(Records().size(), 1u);
    EXPECT_EQ(Records()[0].m_parId, 4711u);
}

// ---- functions in place of the agent's -------------------------------------------------------------------

#ifndef ZORV_FAULTS_OFF_THE_PATH
TEST_P(Blocking, ABufferOfAnotherCacheIsCompletedAndWithdrawn)
{
    if (!IsParked())
    {
        return;
    }
    ZorvUmaBuffer other{};
    Replace cache("ZorvUmtCachePthreadRecord",
                  [&](const Call&)
                  {
                      other.m_cacheLen = 64;
                      return reinterpret_cast<uint64_t>(&other);
                  });
    std::vector<uint64_t> completed;
    Replace capture("ZorvUmtCapturePthreadRecord",
                    [&](const Call& call)
                    {
                        completed.push_back(call.Arg<uint64_t>(7));
                        return 0;
                    });
    CallEntry(GetParam());
    EXPECT_EQ(completed, std::vector<uint64_t>{reinterpret_cast<uint64_t>(&other)});
    EXPECT_EQ(other.m_cacheLen, 0u);

    EnableEvent(ZORV_UMT_EVENT_PTHREAD, 500);
    CallEntry(GetParam());
    EXPECT_EQ(completed.size(), 1u) << "shorter than the threshold";
    EXPECT_EQ(other.m_cacheLen, 0u);
}
#endif

// ---- the threshold ---------------------------------------------------------------------------------------

TEST_P(Blocking, ADurationEqualToTheThresholdIsRecorded)
{
    EnableEvent(ZORV_UMT_EVENT_PTHREAD, 500);
    g_library.m_duration = 500;
    CallEntry(GetParam());
    EXPECT_EQ(Records().size(), 1u);
}

TEST_P(Blocking, ADurationBelowTheThresholdIsNotRecordedAndTheProvisionalRecordWithdrawn)
{
    EnableEvent(ZORV_UMT_EVENT_PTHREAD, 500);
    g_library.m_duration = 499;
    CallEntry(GetParam());
    ExpectNoRecord();
}

TEST_P(Blocking, AThresholdOfZeroRecordsEveryCall)
{
    for (size_t i = 1; i <= 3; i++)
    {
        CallEntry(GetParam());
        EXPECT_EQ(Records().size(), i);
    }
}

// The next record takes the place of a withdrawn one.
TEST_P(Blocking, WithdrawnBytesAreOverwritten)
{
    EnableEvent(ZORV_UMT_EVENT_PTHREAD, 500);
    CallEntry(GetParam());
    g_library.m_duration = 500;
    CallEntry(GetParam());
    ASSERT_EQ(Records().size(), 1u);
    ExpectCall(Records()[0], 1'000'000, 1'000'500, 0);
}

// ---- pauses ----------------------------------------------------------------------------------------------

struct Pauses
{
    uint64_t m_before; // 0: running
    uint64_t m_after;
    bool m_isRecorded;
};

TEST_P(Blocking, IsDroppedOnlyInsideOneAndTheSamePause)
{
    const Pauses rows[] = {{0, 0, true}, {7, 7, false}, {7, 8, true}, {7, 0, true}, {0, 7, true}};
    for (const Pauses& row : rows)
    {
        const uint32_t before = DataLength();
        m_controller = {row.m_before != 0, false, row.m_before};
        g_library.m_during = [&] { m_controller = {row.m_after != 0, false, row.m_after}; };
        CallEntry(GetParam());
        EXPECT_EQ(DataLength() - before, row.m_isRecorded ? 64u : 0u) << row.m_before << " " << row.m_after;
        EXPECT_TRUE(Buffer() == nullptr || Buffer()->m_cacheLen == 0);
    }
}

TEST_P(Blocking, APauseWithoutAnIdIsNoPause)
{
    m_controller = {true, false, 0};
    CallEntry(GetParam());
    EXPECT_EQ(Records().size(), 1u);
}

TEST_P(Blocking, TheIdOfAPauseThatIsOverIsNoPause)
{
    m_controller = {false, false, 7};
    CallEntry(GetParam());
    EXPECT_EQ(Records().size(), 1u);
}

// ---- not traced ------------------------------------------------------------------------------------------

TEST_P(Blocking, IsPassedThroughWhenTheEventIsOff)
{
    m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_PTHREAD].m_enable = false;
    CallEntry(GetParam());
    ExpectNoRecord();
    EXPECT_EQ(g_library.m_clockReads, 0) << "not even the clock is read";
}

TEST_P(Blocking, IsPassedThroughOnceCollectionStopped)
{
    m_controller.m_isStop = true;
    CallEntry(GetParam());
    ExpectNoRecord();
}

TEST_P(Blocking, IsPassedThroughOnAThreadWithoutARecord)
{
    ZorvUmaFreeThreadInfo();
    g_library.m_result = 5;
    EXPECT_EQ(CallEntry(GetParam()), 5);
    EXPECT_EQ(g_library.m_clockReads, 0);
}

TEST_P(Blocking, IsPassedThroughWithoutAProcessRecord)
{
    ZorvUmaFreeProfileInfo();
    g_library.m_result = 5;
    EXPECT_EQ(CallEntry(GetParam()), 5);
    EXPECT_EQ(g_library.m_clockReads, 0);
}

// ---- errno -----------------------------------------------------------------------------------------------

TEST_P(Blocking, ErrnoIsTheProgramsOnEveryPath)
{
    for (const int own : {0, ENOSPC})
    {
        g_library.m_errno = own;
        for (int i = 0; i < 2; i++)
        {
            errno = 77;
            CallEntry(GetParam());
            EXPECT_EQ(errno, own != 0 ? own : 77);
            EXPECT_EQ(g_library.m_errnoAtCall, 77);
        }
    }
}

TEST_P(Blocking, ErrnoSurvivesABufferChange)
{
    CallEntry(GetParam());
    Buffer()->m_dataLen = Buffer()->m_bufSize - 64;
    Replace post("ZorvUmaSemPost", faults::Fails(~uint64_t{0}, EOVERFLOW)); // and the log line about it
    errno = 77;
    CallEntry(GetParam());
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(DataLength(), 64u);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to perform post on semaphore."});
}

TEST_P(Blocking, ErrnoSurvivesALostRecord)
{
    while (ZorvUmaGetFreeBuffer(&m_pInfo->m_umtData) != nullptr)
    {
    }
    NoMemory noMemory(32768);
    errno = 77;
    g_library.m_result = 3;
    EXPECT_EQ(CallEntry(GetParam()), 3);
    EXPECT_EQ(errno, 77);
}

// ---- without a buffer ------------------------------------------------------------------------------------

// The parking and the record both ask for a buffer; it is one call that is lost.
TEST_P(Blocking, ALostCallCountsOnce)
{
    while (ZorvUmaGetFreeBuffer(&m_pInfo->m_umtData) != nullptr)
    {
    }
    NoMemory noMemory(32768);
    for (uint32_t lost = 1; lost <= 3; lost++)
    {
        CallEntry(GetParam());
        EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, lost);
    }
    EXPECT_EQ(DataLength(), 0u);
}

// A parking that failed makes the record complete on its own, when a buffer is there after the call.
TEST_P(Blocking, ARecordThatCouldNotBeParkedIsWrittenAfterTheCall)
{
    while (ZorvUmaGetFreeBuffer(&m_pInfo->m_umtData) != nullptr)
    {
    }
    {
        NoMemory noMemory(32768);
        g_library.m_during = [this]
        { BuffersOf(m_pInfo->m_umtData)[4]->m_state = ZORV_UMA_BUFFER_STATE_READY; };
        g_library.m_duration = 10;
        CallEntry(GetParam());
    }
    if (IsParked())
    {
        ASSERT_EQ(Buffer(), BuffersOf(m_pInfo->m_umtData)[4]);
        ASSERT_EQ(Records().size(), 1u);
        ExpectCall(Records()[0], 1'000'000, 1'000'010, 0);
        EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 0u) << "it was not lost";
    }
}

TEST_P(Blocking, AFullBufferIsQueuedOnceAndTheRecordGoesIntoTheNext)
{
    CallEntry(GetParam());
    ZorvUmaBuffer* pFirst = Buffer();
    pFirst->m_dataLen = pFirst->m_bufSize - 64;
    CallEntry(GetParam());
    EXPECT_EQ(QueuedBuffers(*m_pInfo->m_umtData.m_pQueue), std::vector<ZorvUmaBuffer*>{pFirst});
    EXPECT_EQ(pFirst->m_cacheLen, 0u);
    EXPECT_NE(Buffer(), pFirst);
    EXPECT_EQ(Records().size(), 1u);
}

// ---- interrupted -----------------------------------------------------------------------------------------

// A signal handler makes the same call: its record stands, and the buffer can be read to its end.
TEST_P(Blocking, ACallFromASignalHandlerInsideTheCallLeavesAReadableBuffer)
{
    bool isInside = false;
    g_library.m_during = [&]
    {
        if (!std::exchange(isInside, true))
        {
            CallEntry(GetParam());
        }
    };
    CallEntry(GetParam());
    EXPECT_EQ(g_library.m_calls.size(), 2u);
    EXPECT_EQ(Buffer()->m_cacheLen, 0u);
    EXPECT_GE(TraceRecords(Buffer()).size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(, Blocking,
                         testing::ValuesIn(EntriesOf({Pattern::BLOCKING, Pattern::TIMED, Pattern::SPIN})),
                         EntryName);

// ---- deadlines -------------------------------------------------------------------------------------------

class Timed : public InterposerTest, public testing::WithParamInterface<Entry>
{
protected:
    bool IsTraced(const timespec* pDeadline, uint64_t threshold)
    {
        EnableEvent(ZORV_UMT_EVENT_PTHREAD, threshold);
        g_library.m_duration = threshold; // long enough for a record
        std::vector<uint64_t> words = ArgumentsOf(GetParam());
        words.back() = reinterpret_cast<uint64_t>(pDeadline);
        const uint32_t before = DataLength();
        const size_t calls = g_library.m_calls.size();
        g_library.m_result = 9;
        EXPECT_EQ(static_cast<int>(CallExport(GetParam().m_pFunction, words)), 9);
        EXPECT_EQ(g_library.m_calls.size(), calls + 1);
        EXPECT_EQ(g_library.m_calls.back()[GetParam().m_parameters - 1], reinterpret_cast<uint64_t>(pDeadline));
        return DataLength() != before;
    }
};

TEST_P(Timed, ADeadlineBelowTheThresholdIsPassedThroughUntraced)
{
    const timespec zero = {0, 0};
    EXPECT_FALSE(IsTraced(&zero, 1));
    const timespec small = {0, 499};
    EXPECT_FALSE(IsTraced(&small, 500));
    const timespec second = {1, 0};
    EXPECT_FALSE(IsTraced(&second, 1'000'000'001));
}

TEST_P(Timed, ADeadlineThatReachesTheThresholdIsTraced)
{
    const timespec zero = {0, 0};
    EXPECT_TRUE(IsTraced(&zero, 0));
    const timespec small = {0, 500};
    EXPECT_TRUE(IsTraced(&small, 500));
    const timespec second = {1, 1};
    EXPECT_TRUE(IsTraced(&second, 1'000'000'001));
}

// Each field is taken as unsigned: a negative one lies far beyond every threshold.
TEST_P(Timed, NegativeFieldsAreLargeNumbersAndNeverTrap)
{
    const timespec negativeNanoseconds = {0, -1};
    EXPECT_TRUE(IsTraced(&negativeNanoseconds, 1'000));
    for (const timespec odd :
         {timespec{-1, 0}, timespec{-1, -1}, timespec{INT64_MAX, INT64_MAX}, timespec{INT64_MIN, 0}})
    {
        IsTraced(&odd, 1'000);
    }
}

// libc allows it where the lock is free.
TEST_P(Timed, ANullDeadlineIsPassedOnAndNotRead)
{
    IsTraced(nullptr, 0);
    IsTraced(nullptr, 1'000);
}

INSTANTIATE_TEST_SUITE_P(, Timed, testing::ValuesIn(EntriesOf({Pattern::TIMED})), EntryName);

} // namespace
