// Programs that the process starts, with a fake behind the agent that says what reached it.
#pragma once

#include "Support.h"

#include <cstring>
#include <dlfcn.h>
#include <map>
#include <unistd.h>

namespace agent
{

using faults::Call;
using faults::NoMemory;
using faults::Replace;

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

inline Passed g_passed;
constexpr int RESULT = -77;

inline int FakeExec(const char* pPath, char* const* ppArgv, char* const* ppEnv)
{
    g_passed.m_calls++;
    g_passed.m_path = pPath == nullptr ? "" : pPath;
    g_passed.m_ppArgv = ppArgv;
    g_passed.m_ppEnv = ppEnv;
    errno = E2BIG;
    return RESULT;
}

inline int FakeFexec(int fd, char* const* ppArgv, char* const* ppEnv)
{
    return FakeExec(std::to_string(fd).c_str(), ppArgv, ppEnv);
}

inline int FakeSetenv(const char* pName, const char* pValue, int overwrite)
{
    g_passed.m_calls++;
    g_passed.m_name = pName == nullptr ? "(null)" : pName;
    g_passed.m_value = pValue == nullptr ? "(null)" : pValue;
    g_passed.m_overwrite = overwrite;
    return RESULT;
}

inline int FakePutenv(char* pString)
{
    g_passed.m_calls++;
    g_passed.m_value = pString == nullptr ? "(null)" : pString;
    return RESULT;
}

inline Strings ToStrings(char* const* ppTexts)
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

inline uint64_t Word(const char* pText)
{
    return reinterpret_cast<uint64_t>(pText);
}

inline uint64_t Word(Vector& vector)
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

} // namespace agent
