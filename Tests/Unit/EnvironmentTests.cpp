// The agent in environments.
#include "ExecCalls.h"

using namespace agent;

namespace
{

// ---- whether the agent is there --------------------------------------------------------------------------

TEST_F(Exec, TheAgentIsFoundInAPreloadEntry)
{
    Vector env({"A=1", "LD_PRELOAD=x.so:/opt/agent.so:y.so", "B=2"});
    EXPECT_EQ(Append(env), 1);
    EXPECT_EQ(m_index, 1);
    EXPECT_EQ(m_length, 4);
}

TEST_F(Exec, TheLastPreloadEntryIsToldAndOnceFoundStaysFound)
{
    Vector env({"LD_PRELOAD=/opt/agent.so", "LD_PRELOAD=x.so"});
    EXPECT_EQ(Append(env), 1);
    EXPECT_EQ(m_index, 1);
    EXPECT_EQ(m_length, 3);
}

TEST_F(Exec, WithoutAPreloadEntryTheIndexIsLeftAlone)
{
    Vector env({"A=/opt/agent.so", "MY_LD_PRELOAD=/opt/agent.so", "LD_PRELOAD"});
    EXPECT_EQ(Append(env), 0);
    EXPECT_EQ(m_index, -1);
    EXPECT_EQ(m_length, 4);
    m_index = 17;
    EXPECT_FALSE(ZorvUmaIsAgentAppended(m_pInfo, env, &m_index, &m_length));
    EXPECT_EQ(m_index, 17);
}

TEST_F(Exec, ANullEnvironmentHasLengthOne)
{
    EXPECT_EQ(Append(nullptr), 0);
    EXPECT_EQ(m_length, 1);
    EXPECT_EQ(m_index, -1);
}

// ---- new environments ------------------------------------------------------------------------------------

TEST_F(Exec, WithoutAPreloadEntryOneIsAppended)
{
    Vector env({"A=1", "B=2"});
    char** ppNew = ZorvUmaUpdateEnv(m_pInfo, env, 3, -1);
    EXPECT_EQ(ToStrings(ppNew), (Strings{"A=1", "B=2", "LD_PRELOAD=/opt/agent.so"}));
    EXPECT_EQ(ppNew[0], env.m_pointers[0]) << "entries are taken over, not copied";
}

TEST_F(Exec, APreloadEntryIsReplacedWithTheAgentFirst)
{
    Vector env({"A=1", "LD_PRELOAD=libfoo.so", "B=2"});
    char** ppNew = ZorvUmaUpdateEnv(m_pInfo, env, 4, 1);
    EXPECT_EQ(ToStrings(ppNew), (Strings{"A=1", "LD_PRELOAD=/opt/agent.so:libfoo.so", "B=2"}));
    EXPECT_STREQ(env.m_pointers[1], "LD_PRELOAD=libfoo.so") << "the caller's stays";
}

TEST_F(Exec, AtMostTheGivenLengthIsCopied)
{
    Vector env({"A=1", "B=2", "C=3"});
    char** ppNew = ZorvUmaUpdateEnv(m_pInfo, env, 2, -1);
    EXPECT_STREQ(ppNew[1], "B=2");
    EXPECT_STREQ(ppNew[2], "LD_PRELOAD=/opt/agent.so");
}

TEST_F(Exec, OfALengthOfZeroOnlyTheNewEntryComes)
{
    Vector env({"A=1"});
    char** ppNew = ZorvUmaUpdateEnv(m_pInfo, env, 0, -1);
    ASSERT_NE(ppNew, nullptr);
    EXPECT_STREQ(ppNew[0], "LD_PRELOAD=/opt/agent.so");
}

TEST_F(Exec, AnOldEntryWithoutAnEqualSignLeavesTheSlotUnfilled)
{
    Vector env({"A=1", "LD_PRELOAD", "B=2"});
    EXPECT_EQ(ToStrings(ZorvUmaUpdateEnv(m_pInfo, env, 4, 1)), (Strings{"A=1", "", "B=2"}));
}

TEST_F(Exec, WithoutMemoryForTheStringTheEnvironmentEndsThere)
{
    Vector env({"A=1", "LD_PRELOAD=x", "B=2"});
    {
        NoMemory none(0, SIZE_MAX, 1);
        EXPECT_EQ(ToStrings(ZorvUmaUpdateEnv(m_pInfo, env, 4, 1)), Strings{"A=1"});
    }
    NoMemory none(0, SIZE_MAX, 1);
    EXPECT_EQ(ToStrings(ZorvUmaUpdateEnv(m_pInfo, env, 4, -1)), (Strings{"A=1", "LD_PRELOAD=x", "B=2"}));
}

TEST_F(Exec, NoNewEnvironmentWithoutRecordEnvironmentOrMemory)
{
    Vector env({"A=1"});
    EXPECT_EQ(ZorvUmaUpdateEnv(nullptr, env, 2, -1), nullptr);
    EXPECT_EQ(ZorvUmaUpdateEnv(m_pInfo, nullptr, 2, -1), nullptr);
    NoMemory none;
    EXPECT_EQ(ZorvUmaUpdateEnv(m_pInfo, env, 2, -1), nullptr);
}

// ---- setenv, putenv --------------------------------------------------------------------------------------

TEST_F(Exec, SetenvPutsTheAgentIntoAPreloadList)
{
    const auto set = [](const char* pName, const char* pValue)
    {
        EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeSetenv", {Word(pName), Word(pValue), 1})), RESULT);
        EXPECT_EQ(g_passed.m_overwrite, 1);
        return g_passed.m_value;
    };
    EXPECT_EQ(set("LD_PRELOAD", "x.so"), "/opt/agent.so:x.so");
    EXPECT_EQ(set("LD_PRELOAD", ""), "/opt/agent.so:");
    EXPECT_EQ(set("LD_PRELOAD", "a:/opt/agent.so"), "a:/opt/agent.so");
    EXPECT_EQ(set("LD_PRELOADS", "x.so"), "x.so");
    EXPECT_EQ(set("LD_PRELOAD", nullptr), "(null)");
    EXPECT_EQ(set(nullptr, "x.so"), "x.so");
    NoMemory none;
    EXPECT_EQ(set("LD_PRELOAD", "x.so"), "x.so");
}

TEST_F(Exec, PutenvPutsTheAgentIntoAPreloadList)
{
    const auto put = [](const char* pString)
    {
        EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposePutenv", {Word(pString)})), RESULT);
        return g_passed.m_value;
    };
    EXPECT_EQ(put("LD_PRELOAD=x.so"), "LD_PRELOAD=/opt/agent.so:x.so");
    EXPECT_EQ(put("LD_PRELOAD=/opt/agent.so"), "LD_PRELOAD=/opt/agent.so");
    EXPECT_EQ(put("LD_PRELOAD"), "LD_PRELOAD");
    EXPECT_EQ(put("A=x.so"), "A=x.so");
    EXPECT_EQ(put(nullptr), "(null)");
    NoMemory none;
    EXPECT_EQ(put("LD_PRELOAD=x.so"), "LD_PRELOAD=x.so");
}

} // namespace
