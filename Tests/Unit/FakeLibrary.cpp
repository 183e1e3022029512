#include "FakeLibrary.h"

#include <csetjmp>
#include <cstring>
#include <dlfcn.h>
#include <thread>
#include <utility>

namespace agent
{

using faults::Call;

FakeLibrary g_library;

namespace
{

jmp_buf g_exit;

// ---- the table of entries --------------------------------------------------------------------------------

struct Member
{
    const char* m_pFunction;
    const char* m_pLibcName;
    const char* m_pOld; // null: one unversioned entry only
    const char* m_pNew;
    Pattern m_pattern;
    uint16_t m_type;
    int m_parameters;
};

const Member g_members[] = {
    {"PthreadMutexLock", "pthread_mutex_lock", nullptr, nullptr, Pattern::BLOCKING, ZORV_PTHREAD_LOCK_MUTEX, 1},
    {"PthreadMutexTryLock", "pthread_mutex_trylock", "2_2_5", "2_34", Pattern::TRY, ZORV_PTHREAD_LOCK_MUTEX, 1},
    {"PthreadMutexTimedLock", "pthread_mutex_timedlock", "2_2_5", "2_34", Pattern::TIMED,
     ZORV_PTHREAD_LOCK_MUTEX, 2},
    {"PthreadCondWait", "pthread_cond_wait", "2_2_5", "2_3_2", Pattern::BLOCKING, ZORV_PTHREAD_WAIT_CV, 2},
    {"PthreadCondTimedWait", "pthread_cond_timedwait", "2_2_5", "2_3_2", Pattern::TIMED, ZORV_PTHREAD_WAIT_CV,
     3},
    {"PthreadReadLock", "pthread_rwlock_rdlock", "2_2_5", "2_34", Pattern::BLOCKING, ZORV_PTHREAD_LOCK_RW, 1},
    {"PthreadTryReadLock", "pthread_rwlock_tryrdlock", "2_2_5", "2_34", Pattern::TRY, ZORV_PTHREAD_LOCK_RW, 1},
    {"PthreadTimedReadLock", "pthread_rwlock_timedrdlock", "2_2_5", "2_34", Pattern::TIMED,
     ZORV_PTHREAD_LOCK_RW, 2},
    {"PthreadWriteLock", "pthread_rwlock_wrlock", "2_2_5", "2_34", Pattern::BLOCKING, ZORV_PTHREAD_LOCK_RW, 1},
    {"PthreadTryWriteLock", "pthread_rwlock_trywrlock", "2_2_5", "2_34", Pattern::TRY, ZORV_PTHREAD_LOCK_RW, 1},
    {"PthreadTimedWriteLock", "pthread_rwlock_timedwrlock", "2_2_5", "2_34", Pattern::TIMED,
     ZORV_PTHREAD_LOCK_RW, 2},
    {"PthreadSpinLock", "pthread_spin_lock", "2_2_5", "2_34", Pattern::SPIN, ZORV_PTHREAD_LOCK_SPIN, 1},
    {"PthreadSpinTryLock", "pthread_spin_trylock", "2_2_5", "2_34", Pattern::TRY, ZORV_PTHREAD_LOCK_SPIN, 1},
    {"PthreadBarrierWait", "pthread_barrier_wait", "2_2_5", "2_34", Pattern::BLOCKING,
     ZORV_PTHREAD_WAIT_BARRIER, 1},
    {"SemWait", "sem_wait", "2_2_5", "2_34", Pattern::BLOCKING, ZORV_PTHREAD_WAIT_SEMAPHORE, 1},
    {"SemTryWait", "sem_trywait", "2_2_5", "2_34", Pattern::TRY, ZORV_PTHREAD_WAIT_SEMAPHORE, 1},
    {"SemTimedWait", "sem_timedwait", "2_2_5", "2_34", Pattern::TIMED, ZORV_PTHREAD_WAIT_SEMAPHORE, 2},
    {"PthreadJoin", "pthread_join", "2_2_5", "2_34", Pattern::BLOCKING, ZORV_PTHREAD_JOIN, 2},
    {"PthreadMutexClockLock", "pthread_mutex_clocklock", nullptr, nullptr, Pattern::TIMED,
     ZORV_PTHREAD_LOCK_MUTEX, 3},
    {"PthreadCondClockWait", "pthread_cond_clockwait", nullptr, nullptr, Pattern::TIMED, ZORV_PTHREAD_WAIT_CV,
     4},
    {"PthreadClockReadLock", "pthread_rwlock_clockrdlock", nullptr, nullptr, Pattern::TIMED,
     ZORV_PTHREAD_LOCK_RW, 3},
    {"PthreadClockWriteLock", "pthread_rwlock_clockwrlock", nullptr, nullptr, Pattern::TIMED,
     ZORV_PTHREAD_LOCK_RW, 3},
    {"SemClockWait", "sem_clockwait", nullptr, nullptr, Pattern::TIMED, ZORV_PTHREAD_WAIT_SEMAPHORE, 3},
    {"PthreadTryJoinNp", "pthread_tryjoin_np", nullptr, nullptr, Pattern::TRY, ZORV_PTHREAD_JOIN, 2},
    {"PthreadTimedJoinNp", "pthread_timedjoin_np", nullptr, nullptr, Pattern::TIMED, ZORV_PTHREAD_JOIN, 3},
    {"PthreadClockJoinNp", "pthread_clockjoin_np", nullptr, nullptr, Pattern::TIMED, ZORV_PTHREAD_JOIN, 4},
    {"PthreadCancel", "pthread_cancel", "2_2_5", "2_34", Pattern::CANCEL, ZORV_PTHREAD_CANCEL, 1},
    {"PthreadExit", "pthread_exit", nullptr, nullptr, Pattern::EXIT, ZORV_PTHREAD_EXIT, 1},
    {"PthreadSetNameNp", "pthread_setname_np", "2_12", "2_34", Pattern::SETNAME, 0, 2},
    {"PthreadCreate", "pthread_create", "2_2_5", "2_34", Pattern::CREATE, ZORV_PTHREAD_CREATE, 4},
};

const char* Kept(std::string text)
{
    return strdup(text.c_str());
}

// "2_3_2" names the version GLIBC_2.3.2.
const char* VersionOf(std::string suffix)
{
    for (char& c : suffix)
    {
        c = c == '_' ? '.' : c;
    }
    return Kept("GLIBC_" + suffix);
}

std::vector<Entry> MakeEntries()
{
    std::vector<Entry> entries;
    for (const Member& member : g_members)
    {
        const std::string function = std::string("ZorvInterpose") + member.m_pFunction;
        const auto add = [&](const std::string& name, const char* pVersion)
        {
            entries.push_back({Kept(name), member.m_pLibcName, pVersion, member.m_pattern, member.m_type,
                               member.m_parameters});
        };
        for (const char* pSuffix : {member.m_pOld, member.m_pNew})
        {
            if (pSuffix != nullptr)
            {
                add(function + "_" + pSuffix, VersionOf(pSuffix));
            }
        }
        add(function, nullptr);
    }
    return entries;
}

// ---- the functions behind them ---------------------------------------------------------------------------

int RunFake(const std::array<uint64_t, 6>& words)
{
    g_library.m_errnoAtCall = errno;
    g_library.m_calls.push_back(words);
    if (g_library.m_during)
    {
        g_library.m_during();
    }
    g_library.m_now += g_library.m_duration;
    errno = g_library.m_errno != 0 ? g_library.m_errno : g_library.m_errnoAtCall;
    return g_library.m_result;
}

// The clock behind the agent's, whichever way it is read.
int FakeClock(clockid_t, timespec* pNow)
{
    g_library.m_clockReads++;
    errno = ENOTTY;
    *pNow = {static_cast<time_t>(g_library.m_now / 1'000'000'000),
             static_cast<long>(g_library.m_now % 1'000'000'000)};
    return 0;
}

// One function for each entry: the address tells them apart.
template <size_t INDEX> int Fake(uint64_t a, uint64_t b, uint64_t c, uint64_t d, uint64_t e, uint64_t f)
{
    static volatile size_t index = INDEX; // keeps the linker from folding them into one
    (void)index;
    return RunFake({a, b, c, d, e, f});
}

void FakeExit(uint64_t a)
{
    RunFake({a});
    longjmp(g_exit, 1);
}

using FakeFunction = int(uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t);

template <size_t... INDEX> FakeFunction* FakeAt(size_t index, std::index_sequence<INDEX...>)
{
    static FakeFunction* const functions[] = {Fake<INDEX>...};
    return functions[index];
}

uint64_t AddressOf(const Entry& entry)
{
    const auto index = static_cast<size_t>(&entry - Entries().data());
    return entry.m_pattern == Pattern::EXIT
               ? reinterpret_cast<uint64_t>(FakeExit)
               : reinterpret_cast<uint64_t>(FakeAt(index, std::make_index_sequence<80>()));
}

const Entry* FindEntry(const char* pName, const char* pVersion)
{
    for (const Entry& entry : Entries())
    {
        const bool isVersion = pVersion == nullptr
                                   ? entry.m_pVersion == nullptr
                                   : entry.m_pVersion != nullptr && strcmp(entry.m_pVersion, pVersion) == 0;
        if (isVersion && strcmp(entry.m_pLibcName, pName) == 0)
        {
            return &entry;
        }
    }
    return nullptr;
}

// Only the interposers ask behind the agent; its wrappers ask libc itself.
uint64_t AnswerLookUp(const Call& call, const char* pVersion)
{
    if (strcmp(call.Arg<const char*>(1), "clock_gettime") == 0)
    {
        return reinterpret_cast<uint64_t>(FakeClock);
    }
    const Entry* pEntry = FindEntry(call.Arg<const char*>(1), pVersion);
    if (call.Arg<void*>(0) != RTLD_NEXT || pEntry == nullptr)
    {
        return call.PassOn();
    }
    errno = ENOSYS; // what a look-up does to errno is nobody's business
    g_library.m_lookUps.push_back(
        {call.Arg<void*>(0), call.Arg<const char*>(1), pVersion != nullptr ? pVersion : ""});
    return g_library.m_isMissing ? 0 : AddressOf(*pEntry);
}

const timespec g_farDeadline = {4'000'000'000, 0};

} // namespace

const std::vector<Entry>& Entries()
{
    static const std::vector<Entry> entries = MakeEntries();
    return entries;
}

std::vector<Entry> EntriesOf(std::initializer_list<Pattern> patterns)
{
    std::vector<Entry> chosen;
    for (const Entry& entry : Entries())
    {
        if (std::find(patterns.begin(), patterns.end(), entry.m_pattern) != patterns.end())
        {
            chosen.push_back(entry);
        }
    }
    return chosen;
}

std::string EntryName(const testing::TestParamInfo<Entry>& info)
{
    return info.param.m_pFunction;
}

uint64_t FakeAddress(const char* pFunction)
{
    for (const Entry& entry : Entries())
    {
        if (strcmp(entry.m_pFunction, pFunction) == 0)
        {
            return AddressOf(entry);
        }
    }
    throw std::runtime_error(pFunction);
}

// ---- fixture ---------------------------------------------------------------------------------------------

void InterposerTest::SetUp()
{
    ASSERT_NO_FATAL_FAILURE(RecordingTest::SetUp());
    g_library = {};
    EnableEvent(ZORV_UMT_EVENT_PTHREAD);
    m_pInfo->m_umsConfig.m_enable = false;
    ASSERT_TRUE(ZorvUmaCreateBuffers(&m_pInfo->m_umtData, m_logFd));
}

InterposerTest::InterposerTest()
    : m_lookUp("dlsym", [](const Call& call) { return AnswerLookUp(call, nullptr); }),
      m_versionedLookUp("dlvsym", [](const Call& call) { return AnswerLookUp(call, call.Arg<const char*>(2)); })
{
}

void InterposerTest::TearDown()
{
    g_library = {};
    RecordingTest::TearDown();
}

std::vector<uint64_t> InterposerTest::ArgumentsOf(const Entry& entry)
{
    std::vector<uint64_t> words;
    for (int i = 0; i < entry.m_parameters; i++)
    {
        words.push_back(i == 0 ? FIRST_ARGUMENT : 0x10203040 + i); // some of the others have 32 bits
    }
    if (entry.m_pattern == Pattern::TIMED)
    {
        words.back() = reinterpret_cast<uint64_t>(&g_farDeadline);
    }
    return words;
}

int InterposerTest::CallEntry(const Entry& entry)
{
    return static_cast<int>(CallExport(entry.m_pFunction, ArgumentsOf(entry)));
}

void InterposerTest::CallOnThread(const std::function<void()>& body)
{
    std::thread(
        [&]
        {
            ZorvUmaAllocateThreadInfo(m_pInfo);
            body();
            ZorvUmaFreeThreadInfo();
        })
        .join();
}

ZorvUmaBuffer* InterposerTest::Buffer() const
{
    return m_pThread->m_pUmtBuf;
}

uint32_t InterposerTest::DataLength() const
{
    return Buffer() == nullptr ? 0 : Buffer()->m_dataLen;
}

std::vector<PthreadRecord> InterposerTest::Records() const
{
    std::vector<PthreadRecord> records;
    for (uint32_t offset = 0; offset + sizeof(PthreadRecord) <= DataLength(); offset += sizeof(PthreadRecord))
    {
        records.push_back(ReadAt<PthreadRecord>(Buffer(), offset));
    }
    return records;
}

bool RunToExit(const std::function<void()>& body)
{
    if (setjmp(g_exit) != 0)
    {
        return true;
    }
    body();
    return false;
}

} // namespace agent
