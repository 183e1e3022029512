// Every wrapper around a libc function: where it looks the name up, what it passes on, and what it does when
// the name cannot be found.
#include "Support.h"

#include <climits>
#include <csetjmp>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

enum Group
{
    LIBC,
    THREADS,
    RT,
};

// Kinds of parameters and results, one letter each:
//   p pointer or 64-bit integer, i 32-bit integer, v none, x does not return
struct Row
{
    const char* m_pWrapper;
    const char* m_pLibcName;
    Group m_group;
    const char* m_pParameters; // of the wrapper
    char m_result;
    uint64_t m_failure;      // what the wrapper returns when the look-up fails
    int64_t m_inserted = -1; // a constant that the libc function gets as its first argument
};

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

const Row g_rows[] = {
    {"ZorvUmaMalloc", "malloc", LIBC, "p", 'p', 0},
    {"ZorvUmaCalloc", "calloc", LIBC, "pp", 'p', 0},
    {"ZorvUmaFree", "free", LIBC, "p", 'v', 0},
    {"ZorvUmaOpen", "open", LIBC, "pi", 'i', MINUS_ONE},
    {"ZorvUmaOpenWithMode", "open", LIBC, "pii", 'i', MINUS_ONE},
    {"ZorvUmaClose", "close", LIBC, "i", 'i', MINUS_ONE},
    {"ZorvUmaFsync", "fsync", LIBC, "i", 'i', MINUS_ONE},
    {"ZorvUmaRead", "read", LIBC, "ipp", 'p', MINUS_ONE},
    {"ZorvUmaReadlink", "readlink", LIBC, "ppp", 'p', MINUS_ONE},
    {"ZorvUmaStat", "stat", LIBC, "pp", 'i', MINUS_ONE},
    {"ZorvUmaTruncate", "truncate", LIBC, "pp", 'i', MINUS_ONE},
    {"ZorvUmaFtruncate", "ftruncate", LIBC, "ip", 'i', MINUS_ONE},
    {"ZorvUmaMmap", "mmap", LIBC, "ppiiip", 'p', MINUS_ONE},
    {"ZorvUmaMunmap", "munmap", LIBC, "pp", 'i', MINUS_ONE},
    {"ZorvUmaFileOpen", "fopen", LIBC, "pp", 'p', 0},
    {"ZorvUmaFileGets", "fgets", LIBC, "pip", 'p', 0},
    {"ZorvUmaFileFlush", "fflush", LIBC, "p", 'i', MINUS_ONE},
    {"ZorvUmaFileClose", "fclose", LIBC, "p", 'i', MINUS_ONE},
    {"ZorvUmaIoctl", "ioctl", LIBC, "ip", 'i', MINUS_ONE},
    {"ZorvUmaIoctlWithFlags", "ioctl", LIBC, "ipi", 'i', MINUS_ONE},
    {"ZorvUmaGetCpu", "sched_getcpu", LIBC, "", 'i', MINUS_ONE},
    {"ZorvUmaGetenv", "getenv", LIBC, "p", 'p', 0},
    {"ZorvUmaGetThreadName", "prctl", LIBC, "p", 'i', MINUS_ONE, 16},
    {"ZorvUmaSetCurrentThreadName", "prctl", LIBC, "p", 'i', MINUS_ONE, 15},
    {"ZorvUmaGetHostName", "gethostname", LIBC, "pp", 'i', MINUS_ONE},
    {"ZorvUmaGetPid", "getpid", LIBC, "", 'i', MINUS_ONE},
    {"ZorvUmaPthreadCreate", "pthread_create", THREADS, "pppp", 'i', MINUS_ONE},
    {"ZorvUmaPthreadMutexInit", "pthread_mutex_init", THREADS, "pp", 'i', MINUS_ONE},
    {"ZorvUmaPthreadMutexLock", "pthread_mutex_lock", THREADS, "p", 'i', MINUS_ONE},
    {"ZorvUmaPthreadMutexUnlock", "pthread_mutex_unlock", THREADS, "p", 'i', MINUS_ONE},
    {"ZorvUmaPthreadSelf", "pthread_self", THREADS, "", 'p', 0},
    {"ZorvUmaPthreadSetAffinity", "pthread_setaffinity_np", THREADS, "ppp", 'i', MINUS_ONE},
    {"ZorvUmaPthreadGetName", "pthread_getname_np", THREADS, "ppp", 'i', MINUS_ONE},
    {"ZorvUmaPthreadJoin", "pthread_join", THREADS, "pp", 'i', MINUS_ONE},
    {"ZorvUmaPthreadCancel", "pthread_cancel", THREADS, "p", 'i', MINUS_ONE},
    {"ZorvUmaPthreadExit", "pthread_exit", THREADS, "p", 'x', 0},
    {"ZorvUmaSysconf", "sysconf", LIBC, "i", 'p', MINUS_ONE},
    {"ZorvUmaSigAction", "sigaction", LIBC, "ipp", 'i', MINUS_ONE},
    {"ZorvUmaKill", "kill", LIBC, "ii", 'i', MINUS_ONE},
    {"ZorvUmaOnExit", "on_exit", LIBC, "pp", 'i', MINUS_ONE},
    {"ZorvUmaExit", "exit", LIBC, "i", 'x', 0},
    {"ZorvUmaSemInit", "sem_init", THREADS, "pii", 'i', MINUS_ONE},
    {"ZorvUmaSemPost", "sem_post", THREADS, "p", 'i', MINUS_ONE},
    {"ZorvUmaSemTimedWait", "sem_timedwait", THREADS, "pp", 'i', MINUS_ONE},
    {"ZorvUmaClockGetTime", "clock_gettime", LIBC, "ip", 'i', MINUS_ONE},
    {"ZorvUmaTimerCreate", "timer_create", RT, "ipp", 'i', MINUS_ONE},
    {"ZorvUmaTimerSetTime", "timer_settime", RT, "pipp", 'i', MINUS_ONE},
    {"ZorvUmaTimerDelete", "timer_delete", RT, "p", 'i', MINUS_ONE},
    {"ZorvUmaStrtok", "strtok", LIBC, "pp", 'p', 0},
    {"ZorvUmaStrncmp", "strncmp", LIBC, "ppp", 'i', MINUS_ONE},
    {"ZorvUmaStrcmp", "strcmp", LIBC, "pp", 'i', MINUS_ONE},
    {"ZorvUmaStrtol", "strtol", LIBC, "ppi", 'p', LONG_MAX},
    {"ZorvUmaStrtoul", "strtoul", LIBC, "ppi", 'p', MINUS_ONE},
    {"ZorvUmaStrtoull", "strtoull", LIBC, "ppi", 'p', MINUS_ONE},
    {"ZorvUmaStrcpy", "strcpy", LIBC, "pp", 'p', 0},
    {"ZorvUmaStrdup", "strdup", LIBC, "p", 'p', 0},
    {"ZorvUmaStrlen", "strlen", LIBC, "p", 'p', 0},
    {"ZorvUmaStrerror", "strerror", LIBC, "i", 'p', 0},
    {"ZorvUmaStrstr", "strstr", LIBC, "pp", 'p', 0},
    {"ZorvUmaStrchr", "strchr", LIBC, "pi", 'p', 0},
    {"ZorvUmaStrcat", "strcat", LIBC, "pp", 'p', 0},
    {"ZorvUmaAtoi", "atoi", LIBC, "p", 'i', MINUS_ONE},
    {"ZorvUmaStrcspn", "strcspn", LIBC, "pp", 'p', 0},
    {"ZorvUmaMemset", "memset", LIBC, "pip", 'p', 0},
    {"ZorvUmaMemcpy", "memcpy", LIBC, "ppp", 'p', 0},
    {"ZorvUmaVprintf", "vprintf", LIBC, "pp", 'i', MINUS_ONE},
    {"ZorvUmaVfprintf", "vfprintf", LIBC, "ppp", 'i', MINUS_ONE},
    {"ZorvUmaVsprintf", "vsprintf", LIBC, "ppp", 'i', MINUS_ONE},
    {"ZorvUmaVsnprintf", "vsnprintf", LIBC, "pppp", 'i', MINUS_ONE},
    {"ZorvUmaVsscanf", "vsscanf", LIBC, "ppp", 'i', MINUS_ONE},
    {"ZorvUmaShmOpen", "shm_open", RT, "pii", 'i', MINUS_ONE},
    {"ZorvUmaShmUnlink", "shm_unlink", RT, "p", 'i', MINUS_ONE},
    {"ZorvUmaBaseName", "basename", LIBC, "p", 'p', 0},
    {"ZorvUmaStrncpy", "strncpy", LIBC, "ppp", 'p', 0},
    {"ZorvUmaGetrlimit", "getrlimit", LIBC, "ip", 'i', MINUS_ONE},
    {"ZorvUmaSetrlimit", "setrlimit", LIBC, "ip", 'i', MINUS_ONE},
};

// ---- the function behind the wrapper ---------------------------------------------------------------------

constexpr uint64_t FAKE_RESULT = 0x1122334455667788;
std::vector<uint64_t> g_seen;
jmp_buf g_noReturn;

uint64_t FakeFunction(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e, uint64_t f)
{
    g_seen = {a, b, c, d, e, f};
    return FAKE_RESULT;
}

void FakeWithoutReturn(uint64_t a)
{
    g_seen = {a};
    longjmp(g_noReturn, 1);
}

// ---- calling one wrapper ---------------------------------------------------------------------------------

uint64_t Narrow(char kind, uint64_t word)
{
    return kind == 'i' ? static_cast<uint32_t>(word) : kind == 'v' || kind == 'x' ? 0 : word;
}

// Distinct words; the values of 32-bit parameters stay positive so that any widening keeps them.
std::vector<uint64_t> Arguments(const Row& row)
{
    std::vector<uint64_t> words;
    for (const char* pKind = row.m_pParameters; *pKind != 0; pKind++)
    {
        const uint64_t index = words.size() + 1;
        words.push_back(*pKind == 'i' ? 0x10203040 + index : 0x5060708090A0B000 + index);
    }
    return words;
}

uint64_t CallWrapper(const Row& row)
{
    return Narrow(row.m_result, CallExport(row.m_pWrapper, Arguments(row)));
}

struct LookUp
{
    void* m_pHandle;
    std::string m_name;
};

// Answers every look-up with `pAnswer` and remembers it.
class LookUps
{
public:
    explicit LookUps(void* pAnswer)
        : m_replaced("dlsym",
                     [this, pAnswer](const Call& call)
                     {
                         m_seen.push_back({call.Arg<void*>(0), call.Arg<const char*>(1)});
                         return reinterpret_cast<uint64_t>(pAnswer);
                     })
    {
    }

    std::vector<LookUp> m_seen;

private:
    Replace m_replaced;
};

void* const LIBC_HANDLE = reinterpret_cast<void*>(0xC0DE0001);
void* const THREADS_HANDLE = reinterpret_cast<void*>(0xC0DE0002);
void* const RT_HANDLE = reinterpret_cast<void*>(0xC0DE0003);

class Wrapper : public testing::TestWithParam<Row>
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(LoadAgent(AgentStart::WITHOUT_LIBC));
        ASSERT_NE(Handlers(), nullptr);
    }

    void TearDown() override
    {
        *Handlers() = {};
    }

    // The handle that the wrapper asks when these are the known ones.
    void* HandleAsked(void* pLibc, void* pThreads, void* pRt)
    {
        *Handlers() = {pLibc, pThreads, pRt};
        StandardError ignored;
        LookUps lookUps(nullptr);
        CallWrapper(GetParam());
        EXPECT_EQ(lookUps.m_seen.size(), 1u);
        return lookUps.m_seen.empty() ? nullptr : lookUps.m_seen[0].m_pHandle;
    }
};

TEST_P(Wrapper, AsksTheHandleOfItsGroupFirst)
{
    void* const expected[] = {LIBC_HANDLE, THREADS_HANDLE, RT_HANDLE};
    EXPECT_EQ(HandleAsked(LIBC_HANDLE, THREADS_HANDLE, RT_HANDLE), expected[GetParam().m_group]);
}

TEST_P(Wrapper, AsksLibcWithoutAHandleOfItsGroup)
{
    EXPECT_EQ(HandleAsked(LIBC_HANDLE, nullptr, nullptr), LIBC_HANDLE);
}

TEST_P(Wrapper, AsksTheNextObjectWithoutLibc)
{
    EXPECT_EQ(HandleAsked(nullptr, nullptr, nullptr), RTLD_NEXT);
}

// The handles of the other groups are no substitute.
TEST_P(Wrapper, AsksNoHandleOfAnotherGroup)
{
    const Group group = GetParam().m_group;
    EXPECT_EQ(
        HandleAsked(nullptr, group == THREADS ? nullptr : THREADS_HANDLE, group == RT ? nullptr : RT_HANDLE),
        RTLD_NEXT);
}

TEST_P(Wrapper, SaysOnEveryCallThatTheNameIsMissing)
{
    const Row& row = GetParam();
    StandardError standardError;
    LookUps lookUps(nullptr);
    const std::string message =
        Format("Failed to get the symbol address for function (%s).\n", row.m_pLibcName);
    for (size_t i = 1; i <= 3; i++)
    {
        EXPECT_EQ(CallWrapper(row), Narrow(row.m_result, row.m_failure));
        EXPECT_EQ(standardError.Take(), message);
        ASSERT_EQ(lookUps.m_seen.size(), i) << "a look-up that failed is repeated";
        EXPECT_EQ(lookUps.m_seen.back().m_name, row.m_pLibcName);
    }
}

void ExpectPassedOn(const Row& row)
{
    std::vector<uint64_t> expected = Arguments(row);
    std::string kinds = row.m_pParameters;
    if (row.m_inserted >= 0)
    {
        expected.insert(expected.begin(), row.m_inserted);
        kinds.insert(0, "i");
    }
    ASSERT_GE(g_seen.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++)
    {
        EXPECT_EQ(Narrow(kinds[i], g_seen[i]), expected[i]) << "argument " << i;
    }
}

void CallAndExpectPassedOn(const Row& row)
{
    g_seen.clear();
    if (setjmp(g_noReturn) == 0)
    {
        EXPECT_EQ(CallWrapper(row), Narrow(row.m_result, FAKE_RESULT));
        EXPECT_NE(row.m_result, 'x');
    }
    ExpectPassedOn(row);
}

TEST_P(Wrapper, PassesArgumentsAndResultOnAfterOneLookUp)
{
    const Row& row = GetParam();
    void* pFake = row.m_result == 'x' ? reinterpret_cast<void*>(FakeWithoutReturn)
                                      : reinterpret_cast<void*>(FakeFunction);
    StandardError standardError;
    LookUps lookUps(pFake);
    CallAndExpectPassedOn(row);
    CallAndExpectPassedOn(row);
    EXPECT_EQ(lookUps.m_seen.size(), 1u);
    EXPECT_EQ(standardError.Take(), "");
}

std::string RowName(const testing::TestParamInfo<Row>& info)
{
    return info.param.m_pWrapper;
}

INSTANTIATE_TEST_SUITE_P(Table, Wrapper, testing::ValuesIn(g_rows), RowName);

// ---- wrappers of one name share nothing ------------------------------------------------------------------

class WrapperPair : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(LoadAgent(AgentStart::WITHOUT_LIBC));
    }
};

TEST_F(WrapperPair, EachKeepsItsOwnAddress)
{
    const char* pairs[][2] = {{"ZorvUmaOpen", "ZorvUmaOpenWithMode"},
                              {"ZorvUmaIoctl", "ZorvUmaIoctlWithFlags"},
                              {"ZorvUmaGetThreadName", "ZorvUmaSetCurrentThreadName"}};
    for (const auto& pair : pairs)
    {
        LookUps lookUps(reinterpret_cast<void*>(FakeFunction));
        CallExport(pair[0], {1, 2, 3});
        CallExport(pair[1], {1, 2, 3});
        CallExport(pair[0], {1, 2, 3});
        EXPECT_EQ(lookUps.m_seen.size(), 2u) << pair[0] << " and " << pair[1];
    }
}

// ---- wrappers that look nothing up -----------------------------------------------------------------------

using WrapperWithoutLookUp = WrapperPair;

TEST_F(WrapperWithoutLookUp, GetTidIsTheKernelsThreadId)
{
    LookUps lookUps(nullptr);
    EXPECT_EQ(ZorvUmaGetTid(), syscall(186));
    EXPECT_EQ(lookUps.m_seen.size(), 0u);
}

TEST_F(WrapperWithoutLookUp, PerfEventOpenPassesTheKernelsAnswerOn)
{
    LookUps lookUps(nullptr);
    StandardError standardError;
    const auto withBadSize = [](auto open)
    {
        perf_event_attr attributes{};
        attributes.size = 1; // no kernel accepts that; it puts the right one here
        errno = 0;
        EXPECT_EQ(open(&attributes), -1);
        return std::make_pair(errno, attributes.size);
    };
    const auto expected =
        withBadSize([](perf_event_attr* pAttributes) { return syscall(298, pAttributes, 0, -1, -1, 0UL); });
    EXPECT_EQ(withBadSize([](auto pAttributes) { return ZorvUmaPerfEventOpen(pAttributes, 0, -1, -1, 0); }),
              expected);
    EXPECT_EQ(standardError.Take() + std::to_string(lookUps.m_seen.size()), "0");
}

// The list-taking wrapper is replaced: what it answers must come back unchanged.
TEST_F(WrapperWithoutLookUp, VariadicOnesHandTheirListToTheListTakingOnes)
{
    char text[64];
    int number;
    struct
    {
        const char* m_pListTaking;
        std::function<int()> m_call;
        int m_formatIndex;
    } const rows[] = {
        {"ZorvUmaVprintf", [&] { return ZorvUmaPrintf("%d", 5); }, 0},
        {"ZorvUmaVfprintf", [&] { return ZorvUmaFprintf(stderr, "%d", 5); }, 1},
        {"ZorvUmaVsprintf", [&] { return ZorvUmaSprintf(text, "%d", 5); }, 1},
        {"ZorvUmaVsnprintf", [&] { return ZorvUmaSnprintf(text, sizeof text, "%d", 5); }, 2},
        {"ZorvUmaVsscanf", [&] { return ZorvUmaSscanf("5", "%d", &number); }, 1},
    };
    LookUps lookUps(nullptr);
    for (const auto& row : rows)
    {
        std::string format;
        Replace listTaking(row.m_pListTaking,
                           [&](const Call& call)
                           {
                               format = call.Arg<const char*>(row.m_formatIndex);
                               return 4711;
                           });
        EXPECT_EQ(row.m_call(), 4711) << row.m_pListTaking;
        EXPECT_EQ(format, "%d") << row.m_pListTaking;
    }
    EXPECT_EQ(lookUps.m_seen.size(), 0u);
}

// ---- variadic wrappers with libc behind them -------------------------------------------------------------

TEST_F(WrapperWithoutLookUp, VariadicOnesFormatAndScan)
{
    char text[32];
    EXPECT_EQ(ZorvUmaSnprintf(text, sizeof text, "%s-%d-%.1f", "a", 7, 2.5), 7);
    EXPECT_STREQ(text, "a-7-2.5");
    EXPECT_EQ(ZorvUmaSnprintf(text, size_t{3}, "%s", "abcdef"), 6);
    EXPECT_STREQ(text, "ab");
    EXPECT_EQ(ZorvUmaSprintf(text, "%lx", 0xABCUL), 3);
    EXPECT_STREQ(text, "abc");
    int number = 0;
    char word[8] = {};
    EXPECT_EQ(ZorvUmaSscanf("42 cats", "%d %7s", &number, word), 2);
    EXPECT_EQ(number, 42);
    EXPECT_STREQ(word, "cats");
    StandardError standardError;
    EXPECT_EQ(ZorvUmaFprintf(stderr, "%s %d\n", "line", 1), 7);
    EXPECT_EQ(standardError.Take(), "line 1\n");
}

} // namespace
