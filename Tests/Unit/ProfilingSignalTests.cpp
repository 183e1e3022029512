// The profiling signal, and threads that rename themselves.
#include "StateCalls.h"

#include <csignal>
#include <sys/prctl.h>

using namespace agent;

namespace
{

// ---- the profiling signal --------------------------------------------------------------------------------

constexpr int PROFILING = 40;

class ProfilingSignal : public StateCalls
{
protected:
    ProfilingSignal()
        : m_write("ZorvUmaWriteErrorFile",
                  [this](const Call& call)
                  {
                      EXPECT_EQ(call.Arg<void*>(0), m_pInfo);
                      EXPECT_EQ(call.Arg<int>(1), 1);
                      EXPECT_TRUE(g_behind.m_calls.empty()) << "before anything else";
                      return m_isWritten ? 1 : 0;
                  }),
          m_flush("ZorvUmaFileFlush", Fails(0)), m_exit("ZorvUmaExit",
                                                        [this](const Call& call)
                                                        {
                                                            EXPECT_EQ(call.Arg<int>(0), 0);
                                                            EXPECT_EQ(m_flush.Calls(), 1);
                                                            return 0;
                                                        })
    {
    }

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StateCalls::SetUp());
        m_pInfo->m_umsConfig.m_timerSignalNum = PROFILING;
        m_pInfo->m_umsConfig.m_enable = false;
        EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    }

    bool m_isWritten = true;
    Replace m_write;
    Replace m_flush;
    Replace m_exit;
};

void Handle(int) {}

TEST_F(ProfilingSignal, ACollisionIsWrittenThenTheHandlerInstalled)
{
    g_behind.m_result = 0x99;
    EXPECT_EQ(CallExport("ZorvInterposeSignal", {PROFILING, reinterpret_cast<uint64_t>(Handle)}), 0x99u);
    EXPECT_EQ(m_write.Calls(), 1);
    EXPECT_EQ(m_exit.Calls(), 0);
    EXPECT_EQ(g_behind.m_calls.size(), 1u);
    ExpectOneOther(0);
}

TEST_F(ProfilingSignal, ACollisionThatCannotBeWrittenIsToldAndEndsTheProcess)
{
    m_isWritten = false;
    StandardError standardError;
    CallExport("ZorvInterposeSignal", {PROFILING, reinterpret_cast<uint64_t>(Handle)});
    EXPECT_EQ(
        standardError.Take(),
        "ERROR : Application has own signal handler for signal (40). Provide un-used realtime signal with "
        "--profiling-signal.\n");
    EXPECT_EQ(m_exit.Calls(), 1);
}

TEST_F(ProfilingSignal, ARealHandlerOfSigactionDependsOnTheFlag)
{
    const auto collides = [this](int flags, void* pHandler)
    {
        g_behind.m_calls.clear();
        struct sigaction action = {};
        action.sa_flags = flags;
        action.sa_handler = reinterpret_cast<void (*)(int)>(pHandler);
        const long before = m_write.Calls();
        CallExport("ZorvInterposeSigaction", {PROFILING, Word(&action), 0});
        EXPECT_EQ(g_behind.m_calls.size(), 1u);
        return m_write.Calls() != before;
    };
    EXPECT_FALSE(collides(0, nullptr));
    EXPECT_FALSE(collides(0, reinterpret_cast<void*>(1)));
    EXPECT_TRUE(collides(0, reinterpret_cast<void*>(2)));
    EXPECT_FALSE(collides(SA_SIGINFO, nullptr));
    EXPECT_TRUE(collides(SA_SIGINFO, reinterpret_cast<void*>(1)));
    CallExport("ZorvInterposeSigaction", {PROFILING, 0, 0});
    EXPECT_EQ(m_write.Calls(), 2);
}

TEST_F(ProfilingSignal, OtherSignalsAndOtherActionsAreNoCollision)
{
    CallExport("ZorvInterposeSignal", {PROFILING + 1, reinterpret_cast<uint64_t>(Handle)});
    CallExport("ZorvInterposeSignal", {PROFILING, 0});
    CallExport("ZorvInterposeSignal", {PROFILING, 1});
    EXPECT_EQ(m_write.Calls(), 0);
    EXPECT_EQ(g_behind.m_calls.size(), 3u);
    EXPECT_EQ(Records().size(), 3u);
}

TEST_F(ProfilingSignal, ItMayBeIgnoredWhileTheProcessIsSampled)
{
    m_pInfo->m_umsConfig.m_enable = true;
    CallExport("ZorvInterposeSignal", {PROFILING, 1});
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    CallExport("ZorvInterposeSigaction", {PROFILING, Word(&action), 0});
    EXPECT_EQ(g_behind.m_calls.size(), 2u);
    EXPECT_EQ(Records().size(), 2u);
}

// ---- prctl -----------------------------------------------------------------------------------------------

TEST_F(StateCalls, ANewNameIsWrittenAndTheCallRecorded)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    faults::Words written{};
    std::string name;
    Replace write("ZorvUmaWriteProcRecord",
                  [&](const Call& call)
                  {
                      written = call.m_words;
                      name = call.Arg<const char*>(2);
                      return 0;
                  });
    Replace get("ZorvUmaGetThreadName",
                [](const Call& call)
                {
                    EXPECT_TRUE(IsAllZero(call.Arg<const char*>(0), 32));
                    strcpy(call.Arg<char*>(0), "renamed");
                    return 0;
                });
    EXPECT_EQ(CallExport("ZorvInterposePrctl", {PR_SET_NAME, 2, 3, 4, 5}), 0u);
    EXPECT_EQ(g_behind.m_calls[0][4], 5u);
    EXPECT_EQ(written[0], Word(m_pInfo));
    EXPECT_EQ(static_cast<int>(written[1]), gettid());
    EXPECT_EQ(name, "renamed");
    EXPECT_EQ(static_cast<int>(written[3]), 7);
    EXPECT_EQ(written[4], m_now);
    EXPECT_EQ(written[5], 0u);
    ExpectOneOther(0);
}

TEST_F(StateCalls, OtherOptionsFailuresAndStoppedThreadsWriteNoName)
{
    Replace write("ZorvUmaWriteProcRecord", Fails(0));
    CallExport("ZorvInterposePrctl", {PR_GET_NAME, 2});
    g_behind.m_result = static_cast<uint64_t>(-1);
    EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposePrctl", {PR_SET_NAME, 2})), -1);
    g_behind.m_result = 0;
    {
        Replace get("ZorvUmaGetThreadName", Fails(static_cast<uint64_t>(-1)));
        CallExport("ZorvInterposePrctl", {PR_SET_NAME, 2});
    }
    m_pThread->m_stopCollection = true;
    CallExport("ZorvInterposePrctl", {PR_SET_NAME, 2});
    EXPECT_EQ(write.Calls(), 0);
    EXPECT_EQ(g_behind.m_calls.size(), 4u);
    EXPECT_TRUE(Records().empty());
}

TEST_F(StateCalls, ANewNameIsWrittenAlsoWhereTheSwitchSaysThatNothingIsRecorded)
{
    EnableEvent(ZORV_UMT_EVENT_SYSCALL);
    Replace write("ZorvUmaWriteProcRecord", Fails(0));
    Replace enabled("ZorvUmtIsEventEnabled", Fails(0));
    EXPECT_EQ(CallExport("ZorvInterposePrctl", {PR_SET_NAME, Word("name")}), 0u);
    EXPECT_EQ(enabled.Calls(), 1);
    EXPECT_EQ(write.Calls(), 1);
    EXPECT_TRUE(Records().empty());
}

} // namespace
