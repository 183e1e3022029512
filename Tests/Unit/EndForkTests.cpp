// Ends of the process, raw system calls, and forks.
#include "StateCalls.h"

#include <linux/futex.h>
#include <sys/syscall.h>

using namespace agent;

namespace
{

// ---- ends ------------------------------------------------------------------------------------------------

TEST_F(StateCalls, TheEndsFinaliseBeforeTheRealCall)
{
    for (const char* pName : {"ZorvInterposeExit", "ZorvInterposeExitLibc", "ZorvInterposeQuickExit_2_10",
                              "ZorvInterposeQuickExit_2_24", "ZorvInterposeQuickExit", "ZorvInterposeAbort"})
    {
        g_behind.m_calls.clear();
        size_t before = 99;
        Replace fini("ZorvUmaFiniProcess",
                     [&](const Call& call)
                     {
                         EXPECT_EQ(call.Arg<void*>(0), m_pInfo);
                         EXPECT_FALSE(call.Arg<bool>(1));
                         before = g_behind.m_calls.size();
                         return 0;
                     });
        CallExport(pName, {42});
        EXPECT_EQ(before, 0u) << pName;
        EXPECT_EQ(g_behind.m_calls.size(), 1u) << pName;
    }
    EXPECT_EQ(g_behind.m_calls.size(), 1u);
}

TEST_F(StateCalls, AnEndWithoutAProcessRecordIsPassedOn)
{
    Replace info("ZorvUmaGetProfileInfo", Fails(0));
    Replace fini("ZorvUmaFiniProcess", Fails(0));
    CallExport("ZorvInterposeExit", {42});
    EXPECT_EQ(fini.Calls(), 0);
    EXPECT_EQ(g_behind.m_calls.at(0)[0], 42u);
}

TEST_F(StateCalls, TheExitNumbersFinaliseAndArePassedOn)
{
    Replace fini("ZorvUmaFiniProcess", Fails(0));
    for (const long number : {SYS_exit, SYS_exit_group})
    {
        CallExport("ZorvInterposeSyscall", {static_cast<uint64_t>(number), 7});
    }
    EXPECT_EQ(fini.Calls(), 2);
    EXPECT_EQ(g_behind.m_calls.at(1)[1], 7u);
}

// ---- futex -----------------------------------------------------------------------------------------------

TEST_F(StateCalls, WaitingFutexOperationsAreRecordedWithTheirNumber)
{
    EnableEvent(ZORV_UMT_EVENT_LOCK);
    g_behind.m_during = [this] { EXPECT_EQ(m_pThread->m_pUmtBuf->m_cacheLen, 64u); };
    for (const uint64_t operation : {0, 6, 8, 9, 11, 128, 256 | 128, 9 | 256})
    {
        CallExport("ZorvInterposeSyscall", {SYS_futex, 0x1234567890, operation});
    }
    ASSERT_EQ(Records().size(), 8u);
    for (const SyscallRecord& record : Records())
    {
        EXPECT_EQ(record.m_hdr.m_subType, 3);
        EXPECT_EQ(record.m_hdr.m_flags, ZORV_UMT_FLAG_SYSCALL_ID);
        EXPECT_EQ(record.m_funcVa, 202u);
        EXPECT_EQ(record.m_sysValue, 0x1234567890u);
    }
    EXPECT_EQ(m_pThread->m_pUmtBuf->m_cacheLen, 0u);
}

TEST_F(StateCalls, OtherFutexOperationsAndNumbersAreNotRecorded)
{
    EnableEvent(ZORV_UMT_EVENT_LOCK);
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    for (const uint64_t operation : {1, 2, 3, 4, 5, 7, 10, 12, 13, 1 | 128, 64, 512})
    {
        CallExport("ZorvInterposeSyscall", {SYS_futex, 0x1234567890, operation});
    }
    CallExport("ZorvInterposeSyscall", {SYS_getpid});
    EXPECT_EQ(g_behind.m_calls.size(), 13u);
    EXPECT_TRUE(Records().empty());
}

// ---- fork ------------------------------------------------------------------------------------------------

TEST_F(StateCalls, AForkIsRecordedInTheParent)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL, 10);
    g_behind.m_result = 4711;
    EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 4711u);
    ExpectOneOther(0);
    EnableEvent(ZORV_UMT_EVENT_SYSCALL, 11);
    CallExport("ZorvInterposeFork", {});
    EXPECT_EQ(Records().size(), 1u) << "shorter than the threshold";
}

TEST_F(StateCalls, AForkInsideOnePauseOrWithTheEventOffOrAFailedOneIsNotRecorded)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    g_behind.m_result = static_cast<uint64_t>(-1);
    EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeFork", {})), -1);
    g_behind.m_result = 4711;
    m_controller = {true, false, 7};
    CallExport("ZorvInterposeFork", {});
    m_controller = {false, false, 0};
    m_pInfo->m_umtConfig.m_umtEventList[ZORV_UMT_EVENT_SYSCALL].m_enable = false;
    CallExport("ZorvInterposeFork", {});
    EXPECT_TRUE(Records().empty());
}

// In these the fake says that this is the child.
TEST_F(StateCalls, AChildThatIsNotProfiledIsFlushedStoppedAndDisabled)
{
    m_pInfo->m_umaConfig.m_profileChildren = false;
    EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 0u);
    ZorvUmaProfileInfo* pChild = ZorvUmaGetProfileInfo();
    ASSERT_NE(pChild, m_pInfo);
    EXPECT_TRUE(pChild->m_isFlush);
    EXPECT_FALSE(pChild->m_umsConfig.m_enable);
    EXPECT_FALSE(pChild->m_umtConfig.m_enable);
    EXPECT_TRUE(ZorvUmaIsCollectionStopped(pChild));
    EXPECT_EQ(Log(), Strings{Format("INFO Process id (%d) is not sampled or traced.", getpid())});
}

TEST_F(StateCalls, NoDescendantOfAChildThatIsNotProfiledIsProfiled)
{
    Replace init("ZorvUmaInitProcess", Fails(1));
    m_pInfo->m_umaConfig.m_profileChildren = false;
    for (int generation = 0; generation < 3; generation++)
    {
        EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 0u);
        EXPECT_TRUE(ZorvUmaGetProfileInfo()->m_isFlush);
    }
    EXPECT_EQ(init.Calls(), 0);
}

TEST_F(StateCalls, AProfiledChildIsInitialisedWithARecordOfItsOwn)
{
    void* pInitialised = nullptr;
    Replace init("ZorvUmaInitProcess",
                 [&](const Call& call)
                 {
                     pInitialised = call.Arg<void*>(0);
                     return 0; // a failed start is none of fork's business
                 });
    EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 0u);
    EXPECT_NE(pInitialised, m_pInfo);
    EXPECT_EQ(pInitialised, ZorvUmaGetProfileInfo());
}

TEST_F(StateCalls, AChildWithoutRecordsSeesAFailedFork)
{
    Replace init("ZorvUmaInitProcess", Fails(1));
    {
        Replace allocate("ZorvUmaAllocateProfileInfo", Fails(0));
        EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeFork", {})), -1);
    }
    Replace allocate("ZorvUmaAllocateThreadInfo", Fails(0));
    EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeFork", {})), -1);
    EXPECT_EQ(init.Calls(), 0);
}

TEST_F(StateCalls, AForkOfAStoppedThreadStillMakesARecordForTheChild)
{
    m_pThread->m_stopCollection = true;
    Replace init("ZorvUmaInitProcess", Fails(1));
    EXPECT_EQ(CallExport("ZorvInterposeFork", {}), 0u);
    EXPECT_EQ(init.Calls(), 1);
}

} // namespace
