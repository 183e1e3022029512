// A system whose files, counters and counter values are the test's own, and the counter functions of the agent.
#pragma once

#include "Support.h"

#include <deque>
#include <map>
#include <mutex>

namespace agent
{

// ---- the counter functions -------------------------------------------------------------------------------

enum : uint32_t
{
    ZORV_PMC_TYPE_PERF = 0,
    ZORV_PMC_TYPE_CORE = 1,
};

struct PmcData
{
    uint64_t m_value;
    uint64_t m_timeEnabled;
    uint64_t m_timeRunning;
    uint64_t m_id;

    bool operator==(const PmcData&) const = default;
};
void PrintTo(const PmcData& data, std::ostream* pOut);

inline constexpr Function<int()> ZorvAllocateProcessInfo{"ZorvAllocateProcessInfo"};
inline constexpr Function<int()> ZorvInitializePcmAgent{"ZorvInitializePcmAgent"};
inline constexpr Function<int(uint32_t, uint32_t, const uint64_t*)> ZorvConfigurePerfEvent{
    "ZorvConfigurePerfEvent"};
inline constexpr Function<int()> ZorvStartPerfEvent{"ZorvStartPerfEvent"};
inline constexpr Function<int()> ZorvStopPerfEvent{"ZorvStopPerfEvent"};
inline constexpr Function<int()> ZorvStartPerfEventAllThreads{"ZorvStartPerfEventAllThreads"};
inline constexpr Function<int()> ZorvStopPerfEventAllThreads{"ZorvStopPerfEventAllThreads"};
inline constexpr Function<int(uint32_t, PmcData*)> ZorvReadPerfEvent{"ZorvReadPerfEvent"};
inline constexpr Function<int()> ZorvFiniPcmAgent{"ZorvFiniPcmAgent"};
inline constexpr Function<const char*()> ZorvGetErrorMsg{"ZorvGetErrorMsg"};
inline constexpr Function<int()> ZorvGetErrorNum{"ZorvGetErrorNum"};
inline constexpr Function<int(uint64_t*)> ZorvGetP0FreqFromPerf{"ZorvGetP0FreqFromPerf"};

int Configure(uint32_t type, const std::vector<uint64_t>& events);
std::vector<uint64_t> Events(size_t count); // 1, 2, 3, ...
std::string ErrorText();

// ---- the fake system -------------------------------------------------------------------------------------

constexpr const char* CPU_TYPE_FILE = "/sys/bus/event_source/devices/cpu/type";
constexpr const char* MSR_TYPE_FILE = "/sys/bus/event_source/devices/msr/type";
constexpr const char* MSR_EVENTS_DIR = "/sys/bus/event_source/devices/msr/events/";
constexpr const char* WATCHDOG_FILE = "/proc/sys/kernel/nmi_watchdog";

constexpr int CPU_TYPE = 4; // as the fake files say
constexpr int MSR_TYPE = 17;

// Files that fnOpenFile finds; it finds no others. Where `isPassing`, other names reach the real system.
class FakeFiles
{
public:
    explicit FakeFiles(bool isPassing = false);

    std::map<std::string, std::string> m_files;
    std::vector<std::string> m_opened;

private:
    uint64_t Open(const faults::Call& call);

    bool m_isPassing;
    std::mutex m_lock;
    faults::Replace m_open;
};

struct OpenedCounter
{
    std::vector<uint8_t> m_attributes;
    int m_pid;
    int m_cpu;
    int m_group;
    unsigned long m_flags;
    int m_fd; // the result
};

struct Member
{
    uint64_t m_value;
    uint64_t m_id;
};

struct GroupReading
{
    long m_result = 1; // 1 stands for the size of the reading
    uint64_t m_nr = 0;
    uint64_t m_timeEnabled = 0;
    uint64_t m_timeRunning = 0;
    std::vector<Member> m_members;
};

struct Switched
{
    int m_fd;
    unsigned long m_request;
    long m_flags; // -1: given without flags

    bool operator==(const Switched&) const = default;
};

constexpr unsigned long ENABLE = 0x2400;
constexpr unsigned long DISABLE = 0x2401;

// The kernel's counters. A counter is a descriptor that does nothing.
class FakeCounters
{
public:
    FakeCounters();

    // Results of the next opens; errno follows from a negative one. Afterwards fresh descriptors.
    std::deque<int> m_openResults;
    std::function<void(int fd)> m_onSwitch; // while a counter is being switched
    std::map<int, int> m_switchErrors;      // by descriptor
    std::map<int, std::deque<GroupReading>> m_readings;

    std::vector<OpenedCounter> m_opened;
    std::vector<Switched> m_switched;
    std::vector<std::pair<int, size_t>> m_read; // leader and size

    std::vector<int> Fds() const; // of all counters
    std::vector<size_t> GroupSizes() const;
    std::vector<int> Leaders() const;

private:
    uint64_t Open(const faults::Call& call);
    uint64_t Switch(const faults::Call& call, long flags);
    uint64_t Read(const faults::Call& call);

    mutable std::mutex m_lock;
    faults::Replace m_open;
    faults::Replace m_ioctl;
    faults::Replace m_ioctlWithFlags;
    faults::Replace m_readCall;
};

// Loads the agent; before the members of a fixture, which replace its functions.
struct LoadedAgent
{
    LoadedAgent();
};

// A fresh process record and thread record for each test, on the main thread.
class CounterTest : public testing::Test
{
protected:
    CounterTest();
    void SetUp() override;
    void TearDown() override;

    LoadedAgent m_loaded;
    FakeFiles m_files;
    FakeCounters m_counters;
};

// Runs the body in a forked child; the test fails when it fails there.
void InOwnProcess(const std::function<void()>& body);

// Runs the body on a thread of its own.
void OnAnotherThread(const std::function<void()>& body);

} // namespace agent
