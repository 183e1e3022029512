// A library behind the interposers that does what a test tells it, and a clock that moves only inside its
// calls.
#pragma once

#include "Support.h"

#include <array>
#include <functional>

namespace agent
{

enum class Pattern
{
    BLOCKING,
    TIMED,
    TRY,
    SPIN,
    CANCEL,
    EXIT,
    SETNAME,
    CREATE,
};

// One entry point of an interposed name.
struct Entry
{
    const char* m_pFunction; // exported under this name too
    const char* m_pLibcName;
    const char* m_pVersion; // asked for with dlvsym; null: found with dlsym
    Pattern m_pattern;
    uint16_t m_type;
    int m_parameters;
};

const std::vector<Entry>& Entries();
std::vector<Entry> EntriesOf(std::initializer_list<Pattern> patterns);
std::string EntryName(const testing::TestParamInfo<Entry>& info);

struct LookUp
{
    void* m_pHandle;
    std::string m_name;
    std::string m_version; // empty for dlsym
    bool operator==(const LookUp&) const = default;
};

// What the fake function does and saw.
struct FakeLibrary
{
    int m_result = 0;
    int m_errno = 0;         // 0: left as it is
    uint64_t m_duration = 0; // how far the clock moves in the call
    std::function<void()> m_during;
    bool m_isMissing = false; // look-ups fail

    uint64_t m_now = 1'000'000;
    long m_clockReads = 0;
    int m_errnoAtCall = 0;
    std::vector<std::array<uint64_t, 6>> m_calls;
    std::vector<LookUp> m_lookUps;
};

extern FakeLibrary g_library;

// The address that the trace shows for this entry.
uint64_t FakeAddress(const char* pFunction);

class InterposerTest : public RecordingTest
{
protected:
    InterposerTest();
    void SetUp() override;
    void TearDown() override;

    // Calls the entry with distinct arguments; the deadline of a timed one is far in the future.
    int CallEntry(const Entry& entry);
    static std::vector<uint64_t> ArgumentsOf(const Entry& entry);
    // The same on a thread of its own with a record of its own; for calls that end their thread.
    void CallOnThread(const std::function<void()>& body);

    ZorvUmaBuffer* Buffer() const; // the calling thread's trace buffer, or null
    uint32_t DataLength() const;
    std::vector<PthreadRecord> Records() const;

    faults::Replace m_lookUp;
    faults::Replace m_versionedLookUp;
};

// Where the calls to pthread_exit end, since the real one never returns.
bool RunToExit(const std::function<void()>& body);

constexpr uint64_t FIRST_ARGUMENT = 0x5060708090A0B0C0;

} // namespace agent
