// Environments and arguments of programs that the process starts.
#include "Support.h"

#include <cstring>
#include <dlfcn.h>
#include <map>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::NoMemory;
using faults::Replace;

namespace
{

constexpr char AGENT[] = "/opt/agent.so";

// What reached the function behind the agent.
struct Passed
{
    int m_calls = 0;
    std::string m_path;
    char* const* m_ppArgv = nullptr;
    char* const* m_ppEnv = nullptr;
    std::string m_name;
    std::string m_value;
    int m_overwrite = -1;
};

Passed g_passed;
constexpr int RESULT = -77;

int FakeExec(const char* pPath, char* const* ppArgv, char* const* ppEnv)
{
    g_passed.m_calls++;
    g_passed.m_path = pPath == nullptr ? "" : pPath;
    g_passed.m_ppArgv = ppArgv;
    g_passed.m_ppEnv = ppEnv;
    errno = E2BIG;
    return RESULT;
}

int FakeFexec(int fd, char* const* ppArgv, char* const* ppEnv)
{
    return FakeExec(std::to_string(fd).c_str(), ppArgv, ppEnv);
}

int FakeSetenv(const char* pName, const char* pValue, int overwrite)
{
    g_passed.m_calls++;
    g_passed.m_name = pName == nullptr ? "(null)" : pName;
    g_passed.m_value = pValue == nullptr ? "(null)" : pValue;
    g_passed.m_overwrite = overwrite;
    return RESULT;
}

int FakePutenv(char* pString)
{
    g_passed.m_calls++;
    g_passed.m_value = pString == nullptr ? "(null)" : pString;
    return RESULT;
}

Strings ToStrings(char* const* ppTexts)
{
    Strings texts;
    for (; ppTexts != nullptr && *ppTexts != nullptr; ppTexts++)
    {
        texts.push_back(*ppTexts);
    }
    return texts;
}

struct Vector // of copies, with a null behind them
{
    explicit Vector(const Strings& texts)
    {
        for (const std::string& text : texts)
        {
            m_pointers.push_back(strdup(text.c_str()));
        }
        m_pointers.push_back(nullptr);
    }
    operator char**()
    {
        return m_pointers.data();
    }
    std::vector<char*> m_pointers;
};

uint64_t Word(const char* pText)
{
    return reinterpret_cast<uint64_t>(pText);
}

uint64_t Word(Vector& vector)
{
    return reinterpret_cast<uint64_t>(vector.m_pointers.data());
}

class Exec : public AgentTest
{
protected:
    Exec() : m_lookUp("dlsym", [this](const Call& call) { return AnswerLookUp(call); }) {}

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        g_passed = {};
        ZorvUmaConfig& config = m_pInfo->m_umaConfig;
        config.m_pUserModeAgentPath = strdup(AGENT);
        config.m_pPyAgentScriptPath = strdup("/py/agent.py");
        config.m_pPyAgentLibPath = strdup("/py/lib");
        config.m_pPythonTraceType = strdup("sampling");
        config.m_pCpuProfilingDir = strdup("/out/cpu");
        config.m_pMetadataDir = strdup("/out/meta");
    }

    static uint64_t AnswerLookUp(const Call& call)
    {
        static const std::map<std::string, void*> fakes = {
            {"execve", reinterpret_cast<void*>(FakeExec)},   {"execvpe", reinterpret_cast<void*>(FakeExec)},
            {"execv", reinterpret_cast<void*>(FakeExec)},    {"execvp", reinterpret_cast<void*>(FakeExec)},
            {"fexecve", reinterpret_cast<void*>(FakeFexec)}, {"setenv", reinterpret_cast<void*>(FakeSetenv)},
            {"putenv", reinterpret_cast<void*>(FakePutenv)}};
        const auto found = fakes.find(call.Arg<const char*>(1));
        return call.Arg<void*>(0) == RTLD_NEXT && found != fakes.end()
                   ? reinterpret_cast<uint64_t>(found->second)
                   : call.PassOn();
    }

    int Append(char* const* ppEnv)
    {
        m_index = -1;
        m_length = -1;
        return ZorvUmaIsAgentAppended(m_pInfo, ppEnv, &m_index, &m_length) ? 1 : 0;
    }

    Replace m_lookUp;
    int m_index = -1;
    int m_length = -1;
};

// The same with a Python agent for one version.
class PythonExec : public Exec
{
protected:
    PythonExec()
        : m_open("ZorvUmaFileOpen",
                 [this](const Call& call)
                 {
                     EXPECT_STREQ(call.Arg<const char*>(1), "r");
                     m_tried.push_back(call.Arg<const char*>(0));
                     return m_tried.back() == m_existing ? 0x7000 : 0;
                 }),
          m_close("ZorvUmaFileClose",
                  [](const Call& call)
                  {
                      EXPECT_EQ(call.Arg<uint64_t>(0), 0x7000u);
                      return 0;
                  })
    {
    }

    std::string m_existing = "/py/lib311.so";
    Strings m_tried;
    Replace m_open;
    Replace m_close;
};

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

// ---- Python ----------------------------------------------------------------------------------------------

TEST_F(PythonExec, TheLibrariesAreTriedInOrder)
{
    m_existing = "/py/lib312.so";
    EXPECT_TRUE(ZorvPythonLibPath("/py/lib"));
    EXPECT_EQ(m_tried, (Strings{"/py/lib310.so", "/py/lib311.so", "/py/lib312.so"}));
    EXPECT_EQ(m_close.Calls(), 1);
    m_existing = "none";
    EXPECT_FALSE(ZorvPythonLibPath("/py/lib"));
    EXPECT_EQ(m_close.Calls(), 1);
    EXPECT_FALSE(ZorvPythonLibPath(nullptr));
    EXPECT_EQ(m_tried.size(), 6u);
}

TEST_F(PythonExec, AtMost1023CharactersOfTheLibrarysPathAreUsed)
{
    EXPECT_FALSE(ZorvPythonLibPath(std::string(2000, 'x').c_str()));
    EXPECT_EQ(m_tried[0], std::string(1023, 'x') + "310.so");
}

TEST_F(PythonExec, AnInterpreterIsOneByItsNameWhileTracingIsOff)
{
    EXPECT_TRUE(ZorvUmaIsPythonInterpreter(m_pInfo, "/usr/bin/python3"));
    EXPECT_TRUE(ZorvUmaIsPythonInterpreter(m_pInfo, "my-python-x"));
    EXPECT_FALSE(ZorvUmaIsPythonInterpreter(m_pInfo, "/usr/python/ruby"));
    EXPECT_FALSE(ZorvUmaIsPythonInterpreter(m_pInfo, nullptr));
    EXPECT_FALSE(ZorvUmaIsPythonInterpreter(nullptr, "/usr/bin/python3"));
    m_pInfo->m_umtConfig.m_enable = true;
    EXPECT_FALSE(ZorvUmaIsPythonInterpreter(m_pInfo, "/usr/bin/python3"));
}

TEST_F(Exec, TheArgumentsReceiveTheAgentBehindTheFirst)
{
    Vector argv({"python3", "app.py", "x"});
    char** ppNew = ZorvUmaUpdateArgs(m_pInfo, argv);
    EXPECT_EQ(ToStrings(ppNew),
              (Strings{"python3", "/py/agent.py", "sampling", "/out/cpu", "/out/meta", "app.py", "x"}));
    EXPECT_NE(ppNew[1], m_pInfo->m_umaConfig.m_pPyAgentScriptPath) << "a copy";
}

TEST_F(Exec, EmptyArgumentsGiveFiveNulls)
{
    Vector argv({});
    char** ppNew = ZorvUmaUpdateArgs(m_pInfo, argv);
    ASSERT_NE(ppNew, nullptr);
    for (int i = 0; i < 5; i++)
    {
        EXPECT_EQ(ppNew[i], nullptr);
    }
    NoMemory none;
    EXPECT_EQ(ZorvUmaUpdateArgs(m_pInfo, argv), nullptr);
}

// ---- the calls -------------------------------------------------------------------------------------------

TEST_F(Exec, ExecveIsLoggedAndPassedUnchangedWhereTheAgentIsThere)
{
    Vector argv({"a"});
    Vector env({"LD_PRELOAD=/opt/agent.so"});
    errno = 0;
    EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeExecve", {Word("/bin/a"), Word(argv), Word(env)})),
              RESULT);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_TRUE(g_passed.m_ppArgv == argv.m_pointers.data());
    EXPECT_TRUE(g_passed.m_ppEnv == env.m_pointers.data());
    EXPECT_EQ(Log(), Strings{"INFO execve : /bin/a."});
}

TEST_F(Exec, ExecvpeWithoutTheAgentLogsAndPutsItIn)
{
    Vector argv({"a"});
    Vector env({"A=1"});
    CallExport("ZorvInterposeExecvpe", {Word("a"), Word(argv), Word(env)});
    EXPECT_EQ(ToStrings(g_passed.m_ppEnv), (Strings{"A=1", "LD_PRELOAD=/opt/agent.so"}));
    EXPECT_EQ(
        Log(),
        (Strings{"INFO execvpe : a.",
                 "ERROR LD_PRELOAD is not appended with agent path (/opt/agent.so). Failed to trace a."}));
    EXPECT_EQ(ReadLog(m_logFd)[1].m_function, "ZorvInterposeExecvpe");
}

TEST_F(Exec, ANullEnvironmentIsToldAndPassedUnchanged)
{
    Vector argv({"a"});
    CallExport("ZorvInterposeExecve", {Word("/bin/a"), Word(argv), 0});
    EXPECT_EQ(g_passed.m_calls, 1);
    EXPECT_EQ(g_passed.m_ppEnv, nullptr);
    EXPECT_EQ(
        Log(),
        (Strings{"INFO execve : /bin/a.",
                 "ERROR LD_PRELOAD is not appended with agent path (/opt/agent.so). Failed to trace /bin/a."}));
}

TEST_F(PythonExec, ExecvOfAnInterpreterReceivesTheScript)
{
    Vector argv({"python3", "app.py"});
    CallExport("ZorvInterposeExecv", {Word("/usr/bin/python3"), Word(argv)});
    EXPECT_EQ(ToStrings(g_passed.m_ppArgv),
              (Strings{"python3", "/py/agent.py", "sampling", "/out/cpu", "/out/meta", "app.py"}));
    EXPECT_EQ(Log(), Strings{});
}

TEST_F(PythonExec, ANullVectorOfAnInterpreterIsPassedAndLogged)
{
    CallExport("ZorvInterposeExecvp", {Word("python3"), 0});
    EXPECT_EQ(g_passed.m_ppArgv, nullptr);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to append python agent."});
    EXPECT_EQ(ReadLog(m_logFd)[0].m_function, "ZorvInterposeExecvp");
}

TEST_F(PythonExec, TheListFormsReceiveTheLibrarysPathPrefix)
{
    CallExport("ZorvInterposeExecl", {Word("/usr/bin/python3"), Word("python3"), Word("app.py"), 0});
    EXPECT_EQ(ToStrings(g_passed.m_ppArgv),
              (Strings{"python3", "/py/lib", "sampling", "/out/cpu", "/out/meta", "app.py"}));
}

TEST_F(Exec, ExecleTakesTheEnvironmentBehindTheList)
{
    Vector env({"A=1"});
    CallExport("ZorvInterposeExecle", {Word("/bin/a"), Word("a"), Word("b"), 0, Word(env)});
    EXPECT_EQ(ToStrings(g_passed.m_ppArgv), (Strings{"a", "b"}));
    EXPECT_EQ(ToStrings(g_passed.m_ppEnv), (Strings{"A=1", "LD_PRELOAD=/opt/agent.so"}));
    EXPECT_EQ(
        Log(),
        Strings{"ERROR LD_PRELOAD is not appended with agent path (/opt/agent.so). Failed to trace /bin/a."});
    EXPECT_EQ(ReadLog(m_logFd)[0].m_function, "ZorvInterposeExecle");
}

TEST_F(Exec, AListWithoutMemoryFailsAndIsLogged)
{
    NoMemory none(0, 1024); // the log's line is larger
    EXPECT_EQ(static_cast<int>(CallExport("ZorvInterposeExeclp", {Word("a"), Word("a"), 0})), -1);
    EXPECT_EQ(g_passed.m_calls, 0);
    EXPECT_EQ(Log(), Strings{"ERROR Failed to allocate the memory."});
    EXPECT_EQ(ReadLog(m_logFd)[0].m_function, "ZorvInterposeExeclp");
}

TEST_F(Exec, FexecveNamesTheFileBehindTheDescriptor)
{
    Replace link("ZorvUmaReadlink",
                 [](const Call& call)
                 {
                     EXPECT_EQ(call.Arg<const char*>(0),
                               Format("/proc/%d/task/%d/fd/%d", getpid(), gettid(), 9));
                     EXPECT_EQ(call.Arg<size_t>(2), 4096u);
                     strcpy(call.Arg<char*>(1), "/bin/target!!");
                     return 11;
                 });
    Vector env({"A=1"});
    CallExport("ZorvInterposeFexecve", {9, 0, Word(env)});
    EXPECT_EQ(g_passed.m_path, "9");
    EXPECT_EQ(ToStrings(g_passed.m_ppEnv), (Strings{"A=1", "LD_PRELOAD=/opt/agent.so"}));
    EXPECT_EQ(Log().back(), "ERROR LD_PRELOAD is not appended with agent path (/opt/agent.so). Failed to trace "
                            "/bin/target.");
}

TEST_F(Exec, FexecveWithoutALinkOrMemoryIsPassedUnchanged)
{
    Vector env({"A=1"});
    const std::string link = Format("/proc/%d/task/%d/fd/9", getpid(), gettid());
    {
        Replace failing("ZorvUmaReadlink", faults::Fails(static_cast<uint64_t>(-1), EACCES));
        CallExport("ZorvInterposeFexecve", {9, 0, Word(env)});
    }
    {
        NoMemory none(4096, 4097);
        CallExport("ZorvInterposeFexecve", {9, 0, Word(env)});
    }
    EXPECT_EQ(g_passed.m_calls, 2);
    EXPECT_TRUE(g_passed.m_ppEnv == env.m_pointers.data());
    EXPECT_EQ(Log(), (Strings{"ERROR Failed to read symbolic link " + link + " : Permission denied.",
                              "ERROR Failed to allocate memory to read symbolic link " + link + "."}));
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
