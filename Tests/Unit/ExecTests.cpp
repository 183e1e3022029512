// Programs that the process starts, and what Python interpreters receive.
#include "ExecCalls.h"

using namespace agent;

namespace
{

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

} // namespace
