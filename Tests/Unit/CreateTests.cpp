// Thread creation: what the new thread is started with, and the record of the call.
#include "FakeLibrary.h"

#include <cstring>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::NoMemory;
using faults::Replace;

namespace
{

constexpr pthread_t NEW_THREAD = 0x7F0011223344;

void* Routine(void* pArgument)
{
    return pArgument;
}

class Create : public InterposerTest, public testing::WithParamInterface<Entry>
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(InterposerTest::SetUp());
        g_library.m_during = [this] { m_thread = NEW_THREAD; };
    }

    int CreateThread()
    {
        return static_cast<int>(
            CallExport(GetParam().m_pFunction, {reinterpret_cast<uint64_t>(&m_thread), 0xA77,
                                                reinterpret_cast<uint64_t>(Routine), 0xA46}));
    }

    // What the library was asked to start.
    uint64_t StartedRoutine()
    {
        return g_library.m_calls.at(0)[2];
    }

    const ZorvUmtThreadWrapperArg* StartedBlock()
    {
        return reinterpret_cast<const ZorvUmtThreadWrapperArg*>(g_library.m_calls.at(0)[3]);
    }

    void ExpectWrapped()
    {
        ASSERT_EQ(g_library.m_calls.size(), 1u);
        EXPECT_EQ(g_library.m_calls[0][0], reinterpret_cast<uint64_t>(&m_thread));
        EXPECT_EQ(g_library.m_calls[0][1], 0xA77u);
        EXPECT_EQ(StartedRoutine(), reinterpret_cast<uint64_t>(FindExport("ZorvUmtPthreadCreateWrapper")));
        EXPECT_EQ(StartedBlock()->m_pStartRoutine, Routine);
        EXPECT_EQ(StartedBlock()->m_pArg, reinterpret_cast<void*>(0xA46));
        EXPECT_EQ(StartedBlock()->m_pProfileInfo, ZorvUmaGetProfileInfo());
    }

    void ExpectUnwrapped()
    {
        ASSERT_EQ(g_library.m_calls.size(), 1u);
        EXPECT_EQ(StartedRoutine(), reinterpret_cast<uint64_t>(Routine));
        EXPECT_EQ(g_library.m_calls[0][3], 0xA46u);
    }

    pthread_t m_thread = 1;
};

TEST_P(Create, TheNewThreadStartsInTheWrapper)
{
    EXPECT_EQ(CreateThread(), 0);
    ExpectWrapped();
}

TEST_P(Create, IsRecordedWithTheNewHandleAndWithoutAThreshold)
{
    EnableEvent(ZORV_UMT_EVENT_PTHREAD, 1'000'000);
    g_library.m_duration = 20;
    CreateThread();
    ASSERT_EQ(Records().size(), 1u);
    const PthreadRecord record = Records()[0];
    EXPECT_EQ(record.m_hdr.m_subType, ZORV_PTHREAD_CREATE);
    EXPECT_EQ(record.m_hdr.m_startTime, 1'000'000u);
    EXPECT_EQ(record.m_hdr.m_endTime, 1'000'020u);
    EXPECT_EQ(record.m_lockAddress, NEW_THREAD) << "read after the call";
    EXPECT_EQ(record.m_funcVa, FakeAddress(GetParam().m_pFunction));
    EXPECT_EQ(record.m_retValue, 0);
    EXPECT_EQ(Buffer()->m_cacheLen, 0u);
}

TEST_P(Create, ThatFailsIsRecordedAndKeepsItsBlock)
{
    g_library.m_result = EAGAIN;
    CallLog frees{"ZorvUmaFree"};
    EXPECT_EQ(CreateThread(), EAGAIN);
    ASSERT_EQ(Records().size(), 1u);
    EXPECT_EQ(Records()[0].m_retValue, EAGAIN);
    for (const Call& call : frees.Calls())
    {
        EXPECT_NE(call.Arg<const void*>(0), StartedBlock());
    }
}

TEST_P(Create, WithTheEventOffIsNotRecordedYetWrapped)
{
    m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_PTHREAD].m_enable = false;
    CreateThread();
    ExpectWrapped();
    EXPECT_EQ(DataLength(), 0u);
}

TEST_P(Create, WhileTheCreatingThreadIsStoppedIsNotWrapped)
{
    m_pThread->m_stopCollection = true;
    g_library.m_result = 3;
    EXPECT_EQ(CreateThread(), 3);
    ExpectUnwrapped();
    EXPECT_EQ(DataLength(), 0u);
}

TEST_P(Create, OnceFinalisationHasBegunIsNotWrapped)
{
    m_pInfo->m_isFlush = true;
    CreateThread();
    ExpectUnwrapped();
}

TEST_P(Create, WithoutMemoryForTheBlockStartsTheRoutineItself)
{
    NoMemory noMemory(sizeof(ZorvUmtThreadWrapperArg), sizeof(ZorvUmtThreadWrapperArg) + 8);
    errno = 77;
    EXPECT_EQ(CreateThread(), 0);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(noMemory.Refused(), 1);
    ExpectUnwrapped();
    EXPECT_EQ(Records().size(), 1u) << "the call is recorded all the same";
}

TEST_P(Create, IsDroppedOnlyInsideOneAndTheSamePause)
{
    const std::pair<uint64_t, uint64_t> pauses[] = {{7, 7}, {7, 8}, {7, 0}, {0, 7}};
    for (const auto& [before, after] : pauses)
    {
        const uint32_t length = DataLength();
        m_controller = {before != 0, false, before};
        g_library.m_during = [this, id = after] { m_controller = {id != 0, false, id}; };
        CreateThread();
        EXPECT_EQ(DataLength() - length, before == after ? 0u : 64u) << before << " " << after;
    }
}

// A library's constructor can create a thread before the agent's own constructor ran.
TEST_P(Create, BeforeTheAgentsConstructorRunsIt)
{
    ZorvUmaProfileInfo* pInfo = m_pInfo;
    Replace record("ZorvUmaGetProfileInfo", [pInfo](const Call& call)
                   { return call.m_number == 1 ? 0 : reinterpret_cast<uint64_t>(pInfo); });
    Replace constructor("ZorvUmaInit", faults::Fails(0));
    EXPECT_EQ(CreateThread(), 0);
    EXPECT_EQ(constructor.Calls(), 1);
    ASSERT_EQ(g_library.m_calls.size(), 1u);
    EXPECT_EQ(StartedBlock()->m_pProfileInfo, pInfo);
}

TEST_P(Create, WithoutAnyProcessRecordIsPassedThrough)
{
    Replace record("ZorvUmaGetProfileInfo", faults::Fails(0));
    Replace constructor("ZorvUmaInit", faults::Fails(0));
    EXPECT_EQ(CreateThread(), 0);
    ExpectUnwrapped();
}

TEST_P(Create, ErrnoIsTheProgramsOnEveryPath)
{
    for (const int result : {0, EAGAIN})
    {
        g_library.m_result = result;
        errno = 77;
        CreateThread();
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(g_library.m_errnoAtCall, 77);
    }
}

INSTANTIATE_TEST_SUITE_P(, Create, testing::ValuesIn(EntriesOf({Pattern::CREATE})), EntryName);

} // namespace
