// The members with logic of their own: cancel, exit and set-name.
#include "FakeLibrary.h"

#include <sys/syscall.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::Replace;

namespace
{

// ---- pthread_cancel --------------------------------------------------------------------------------------

class Cancel : public InterposerTest, public testing::WithParamInterface<Entry>
{
protected:
    int CancelThread(uint64_t thread = FIRST_ARGUMENT)
    {
        return static_cast<int>(CallExport(GetParam().m_pFunction, {thread}));
    }
};

TEST_P(Cancel, IsRecordedWithoutAThreshold)
{
    EnableEvent(ZORV_UMT_EVENT_PTHREAD, 1'000'000);
    g_library.m_duration = 10;
    g_library.m_during = [this]
    { EXPECT_TRUE(Buffer() == nullptr || Buffer()->m_cacheLen == 0) << "nothing is parked"; };
    EXPECT_EQ(CancelThread(), 0);
    ASSERT_EQ(Records().size(), 1u);
    const PthreadRecord record = Records()[0];
    EXPECT_EQ(record.m_hdr.m_subType, ZORV_PTHREAD_CANCEL);
    EXPECT_EQ(record.m_hdr.m_startTime, 1'000'000u);
    EXPECT_EQ(record.m_hdr.m_endTime, 1'000'010u);
    EXPECT_EQ(record.m_lockAddress, FIRST_ARGUMENT);
    EXPECT_EQ(record.m_funcVa, FakeAddress(GetParam().m_pFunction));
    EXPECT_EQ(record.m_retValue, 0);
}

TEST_P(Cancel, ThatReturnsZeroWritesNoThreadEndRecord)
{
    CallLog calls{"ZorvUmaWriteThreadEndRecord"};
    CancelThread();
    EXPECT_TRUE(calls.Calls().empty());
    EXPECT_EQ(TraceRecords(Buffer()).size(), 1u);
}

TEST_P(Cancel, ThatFailsWritesAThreadEndRecordNamingTheThread)
{
    g_library.m_result = ESRCH;
    EXPECT_EQ(CancelThread(), ESRCH);
    const auto records = TraceRecords(Buffer());
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(Records()[0].m_retValue, ESRCH);
    EXPECT_EQ(records[1].m_recType, ZORV_UMT_RECORD_THREAD_END);
    EXPECT_EQ(ReadAt<uint64_t>(Buffer(), 64 + 32), FIRST_ARGUMENT);
}

TEST_P(Cancel, OfTheCallingThreadThatFailsNamesZero)
{
    g_library.m_result = ESRCH;
    CancelThread(pthread_self());
    EXPECT_EQ(Records()[0].m_lockAddress, pthread_self());
    EXPECT_EQ(ReadAt<uint64_t>(Buffer(), 64 + 32), 0u);
}

// Only the enable flag is asked, and the thread-end record is independent of it.
TEST_P(Cancel, WithTheEventOffWritesTheThreadEndRecordAlone)
{
    m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_PTHREAD].m_enable = false;
    g_library.m_result = ESRCH;
    CancelThread();
    const auto records = TraceRecords(Buffer());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].m_recType, ZORV_UMT_RECORD_THREAD_END);
}

TEST_P(Cancel, InsideOnePauseWritesTheThreadEndRecordAlone)
{
    m_controller = {true, false, 7};
    g_library.m_result = ESRCH;
    CancelThread();
    EXPECT_EQ(TraceRecords(Buffer()).size(), 1u);
}

TEST_P(Cancel, OnceCollectionStoppedIsPassedThrough)
{
    m_pThread->m_stopCollection = true;
    g_library.m_result = ESRCH;
    EXPECT_EQ(CancelThread(), ESRCH);
    EXPECT_EQ(DataLength(), 0u);
    EXPECT_EQ(g_library.m_clockReads, 0);
}

TEST_P(Cancel, ErrnoIsTheProgramsOnEveryPath)
{
    for (const int result : {0, ESRCH})
    {
        g_library.m_result = result;
        errno = 77;
        CancelThread();
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(g_library.m_errnoAtCall, 77);
    }
}

INSTANTIATE_TEST_SUITE_P(, Cancel, testing::ValuesIn(EntriesOf({Pattern::CANCEL})), EntryName);

// ---- pthread_exit ----------------------------------------------------------------------------------------

class Exit : public InterposerTest
{
protected:
    // On a thread of its own; the buffer is the one that the thread held.
    void ExitThread()
    {
        CallOnThread(
            [this]
            {
                EXPECT_TRUE(RunToExit([] { CallExport("ZorvInterposePthreadExit", {FIRST_ARGUMENT}); }));
                m_hasRecord = !ZorvUmaIsCollectionStopped(m_pInfo);
            });
        m_pBuffer = BuffersOf(m_pInfo->m_umtData)[0];
    }

    ZorvUmaBuffer* m_pBuffer = nullptr;
    bool m_hasRecord = true;
};

TEST_F(Exit, RecordsAnEventWithoutDurationThenEndsTheThread)
{
    CallLog calls{"ZorvUmaFiniThread", "ZorvUmaFreeThreadInfo"};
    g_library.m_during = [&] {
        EXPECT_EQ(calls.Names(), (Strings{"ZorvUmaFiniThread", "ZorvUmaFreeThreadInfo"}))
            << "before the real one";
    };
    ExitThread();
    ASSERT_EQ(g_library.m_calls.size(), 1u);
    EXPECT_EQ(g_library.m_calls[0][0], FIRST_ARGUMENT);
    EXPECT_FALSE(m_hasRecord);
    const auto record = ReadAt<PthreadRecord>(m_pBuffer, 0);
    EXPECT_EQ(record.m_hdr.m_subType, ZORV_PTHREAD_EXIT);
    EXPECT_EQ(record.m_hdr.m_startTime, 1'000'000u);
    EXPECT_EQ(record.m_hdr.m_endTime, 1'000'000u);
    EXPECT_EQ(record.m_lockAddress, ~uint64_t{0});
    EXPECT_EQ(record.m_funcVa, FakeAddress("ZorvInterposePthreadExit"));
    EXPECT_EQ(record.m_retValue, 0);
    const auto records = TraceRecords(m_pBuffer);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].m_recType, ZORV_UMT_RECORD_THREAD_END);
    EXPECT_EQ(m_pBuffer->m_state, ZORV_UMA_BUFFER_STATE_FULL) << "handed to the writer";
}

TEST_F(Exit, IsNotRecordedWhilePausedWithAnyId)
{
    for (const uint64_t id : {0, 7})
    {
        m_controller = {true, false, id};
        CallLog calls{"ZorvUmtCapturePthreadRecord", "ZorvUmaFiniThread"};
        ExitThread();
        EXPECT_EQ(calls.Names(), Strings{"ZorvUmaFiniThread"});
    }
}

TEST_F(Exit, WithTheEventOffStillEndsTheThread)
{
    m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_PTHREAD].m_enable = false;
    CallLog calls{"ZorvUmtCapturePthreadRecord", "ZorvUmaFiniThread", "ZorvUmaFreeThreadInfo"};
    g_library.m_during = [&] {
        EXPECT_EQ(calls.Names(), (Strings{"ZorvUmaFiniThread", "ZorvUmaFreeThreadInfo"}));
    };
    ExitThread();
}

TEST_F(Exit, OnceCollectionStoppedCallsTheRealOneAtOnce)
{
    m_controller.m_isStop = true;
    CallLog calls{"ZorvUmaFiniThread", "ZorvUmaFreeThreadInfo", "ZorvUmtCapturePthreadRecord"};
    g_library.m_during = [&] { EXPECT_EQ(calls.Names(), Strings{}); };
    ExitThread();
    EXPECT_EQ(g_library.m_calls.size(), 1u);
}

TEST_F(Exit, OfTheMainThreadEndsItTheSameWay)
{
    Replace finish("ZorvUmaFiniProcess", Fails(0));
    EXPECT_TRUE(RunToExit([] { CallExport("ZorvInterposePthreadExit", {FIRST_ARGUMENT}); }));
    EXPECT_EQ(finish.Calls(), 1);
}

// ---- pthread_setname_np ----------------------------------------------------------------------------------

class SetName : public InterposerTest, public testing::WithParamInterface<Entry>
{
protected:
    int Set(uint64_t thread, const char* pName)
    {
        return static_cast<int>(
            CallExport(GetParam().m_pFunction, {thread, reinterpret_cast<uint64_t>(pName)}));
    }

    ProcBody Body()
    {
        return ReadAt<ProcBody>(Buffer(), sizeof(TraceHeader));
    }
};

TEST_P(SetName, OfTheCallingThreadWritesAProcRecord)
{
    g_library.m_during = [this] { EXPECT_EQ(DataLength(), 0u) << "the name is set first"; };
    EXPECT_EQ(Set(pthread_self(), "worker"), 0);
    const auto records = TraceRecords(Buffer());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].m_recType, ZORV_UMT_RECORD_PROC);
    EXPECT_EQ(records[0].m_tid, syscall(SYS_gettid));
    EXPECT_EQ(records[0].m_startTime, 1'000'000u);
    EXPECT_STREQ(Body().m_name, "worker");
    EXPECT_EQ(Body().m_pthreadId, pthread_self());
}

TEST_P(SetName, OfAnotherThreadWritesAProcRecordWithThreadIdMinusOne)
{
    EXPECT_EQ(Set(FIRST_ARGUMENT, "other"), 0);
    const auto records = TraceRecords(Buffer());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].m_tid, -1);
    EXPECT_STREQ(Body().m_name, "other");
    EXPECT_EQ(Body().m_pthreadId, FIRST_ARGUMENT);
}

TEST_P(SetName, ThatFailsWritesNothing)
{
    g_library.m_result = ERANGE;
    EXPECT_EQ(Set(pthread_self(), "a name that is much too long for a thread"), ERANGE);
    EXPECT_EQ(DataLength(), 0u);
}

TEST_P(SetName, OnceCollectionStoppedStillSetsTheName)
{
    m_pThread->m_stopCollection = true;
    g_library.m_result = 0;
    EXPECT_EQ(Set(pthread_self(), "worker"), 0);
    EXPECT_EQ(g_library.m_calls.size(), 1u);
    EXPECT_EQ(DataLength(), 0u);
}

// The proc record is no pthread event.
TEST_P(SetName, IsIndependentOfTheEvent)
{
    m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_PTHREAD].m_enable = false;
    Set(pthread_self(), "worker");
    EXPECT_EQ(DataLength(), TRACE_PROC_SIZE);
}

TEST_P(SetName, ErrnoIsTheProgramsOnEveryPath)
{
    for (const int result : {0, ERANGE})
    {
        g_library.m_result = result;
        errno = 77;
        Set(pthread_self(), "worker");
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(g_library.m_errnoAtCall, 77);
    }
}

INSTANTIATE_TEST_SUITE_P(, SetName, testing::ValuesIn(EntriesOf({Pattern::SETNAME})), EntryName);

} // namespace
