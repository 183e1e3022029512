// The members that never block: recorded only on success, and only with a threshold of exactly zero.
#include "FakeLibrary.h"

#include <sys/syscall.h>
#include <unistd.h>

using namespace agent;

namespace
{

class Try : public InterposerTest, public testing::WithParamInterface<Entry>
{
};

TEST_P(Try, SuccessIsRecordedWithThresholdZero)
{
    g_library.m_duration = 30;
    g_library.m_during = [this]
    { EXPECT_TRUE(Buffer() == nullptr || Buffer()->m_cacheLen == 0) << "nothing is parked"; };
    EXPECT_EQ(CallEntry(GetParam()), 0);
    ASSERT_EQ(Records().size(), 1u);
    const PthreadRecord record = Records()[0];
    EXPECT_EQ(record.m_hdr.m_recType, ZORV_UMT_RECORD_PTHREAD);
    EXPECT_EQ(record.m_hdr.m_subType, GetParam().m_type);
    EXPECT_EQ(record.m_hdr.m_startTime, 1'000'000u);
    EXPECT_EQ(record.m_hdr.m_endTime, 1'000'030u);
    EXPECT_EQ(record.m_hdr.m_tid, syscall(SYS_gettid));
    EXPECT_EQ(record.m_lockAddress, FIRST_ARGUMENT);
    EXPECT_EQ(record.m_funcVa, FakeAddress(GetParam().m_pFunction));
    EXPECT_EQ(record.m_retValue, 0);
}

TEST_P(Try, AFailureWritesNothingAlsoWithThresholdZero)
{
    for (const int result : {EBUSY, -1})
    {
        g_library.m_result = result;
        EXPECT_EQ(CallEntry(GetParam()), result);
    }
    EXPECT_EQ(DataLength(), 0u);
}

TEST_P(Try, AThresholdOfOneWritesNothingAlsoOnSuccess)
{
    EnableEvent(ZORV_UMT_EVENT_PTHREAD, 1);
    g_library.m_duration = 1'000'000;
    CallEntry(GetParam());
    EXPECT_EQ(DataLength(), 0u);
    EXPECT_EQ(g_library.m_clockReads, 0) << "passed through";
}

TEST_P(Try, IsPassedThroughWhenNotTraced)
{
    m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_PTHREAD].m_enable = false;
    CallEntry(GetParam());
    EnableEvent(ZORV_UMT_EVENT_PTHREAD);
    m_controller.m_isStop = true;
    CallEntry(GetParam());
    EXPECT_EQ(DataLength(), 0u);
    EXPECT_EQ(g_library.m_clockReads, 0);
    EXPECT_EQ(g_library.m_calls.size(), 2u);
}

TEST_P(Try, IsDroppedOnlyInsideOneAndTheSamePause)
{
    const std::pair<uint64_t, uint64_t> pauses[] = {{7, 7}, {7, 8}, {7, 0}, {0, 7}};
    for (const auto& [before, after] : pauses)
    {
        const uint32_t length = DataLength();
        m_controller = {before != 0, false, before};
        g_library.m_during = [this, id = after] { m_controller = {id != 0, false, id}; };
        CallEntry(GetParam());
        EXPECT_EQ(DataLength() - length, before == after ? 0u : 64u) << before << " " << after;
    }
}

TEST_P(Try, TheIdOfAPauseThatIsOverIsNoPause)
{
    m_controller = {false, false, 7};
    CallEntry(GetParam());
    EXPECT_EQ(Records().size(), 1u);
}

TEST_P(Try, ErrnoIsTheProgramsOnEveryPath)
{
    for (const int result : {0, -1})
    {
        g_library.m_result = result;
        errno = 77;
        CallEntry(GetParam());
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(g_library.m_errnoAtCall, 77);
    }
    g_library.m_errno = EAGAIN;
    CallEntry(GetParam());
    EXPECT_EQ(errno, EAGAIN);
}

TEST_P(Try, ALostCallCountsOnce)
{
    while (ZorvUmaGetFreeBuffer(&m_pInfo->m_umtData) != nullptr)
    {
    }
    faults::NoMemory noMemory(32768);
    CallEntry(GetParam());
    EXPECT_EQ(m_pInfo->m_umtData.m_lostRecordCount, 1u);
}

INSTANTIATE_TEST_SUITE_P(, Try, testing::ValuesIn(EntriesOf({Pattern::TRY})), EntryName);

} // namespace
