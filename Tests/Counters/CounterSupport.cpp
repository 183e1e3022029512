#include "CounterSupport.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace agent
{

using faults::Call;
using faults::Replace;

void PrintTo(const PmcData& data, std::ostream* pOut)
{
    *pOut << "{" << data.m_value << ", " << data.m_timeEnabled << ", " << data.m_timeRunning << ", "
          << data.m_id << "}";
}

int Configure(uint32_t type, const std::vector<uint64_t>& events)
{
    return ZorvConfigurePerfEvent(type, events.size(), events.data());
}

std::vector<uint64_t> Events(size_t count)
{
    std::vector<uint64_t> events;
    while (events.size() < count)
    {
        events.push_back(events.size() + 1);
    }
    return events;
}

std::string ErrorText()
{
    return ZorvGetErrorMsg();
}

// ---- files -----------------------------------------------------------------------------------------------

FakeFiles::FakeFiles(bool isPassing)
    : m_isPassing(isPassing), m_open("fnOpenFile", [this](const Call& call) { return Open(call); })
{
}

uint64_t FakeFiles::Open(const Call& call)
{
    const std::lock_guard guard(m_lock); // two threads may ask for their first counter at once
    const std::string path = call.Arg<const char*>(0);
    m_opened.push_back(path);
    const auto found = m_files.find(path);
    if (found == m_files.end())
    {
        if (m_isPassing)
        {
            return call.PassOn();
        }
        errno = ENOENT;
        return -1;
    }
    const int fd = memfd_create("file", MFD_CLOEXEC);
    EXPECT_EQ(pwrite(fd, found->second.data(), found->second.size(), 0), ssize_t(found->second.size()));
    return fd;
}

// ---- counters --------------------------------------------------------------------------------------------

FakeCounters::FakeCounters()
    : m_open("fnPerfEventOpen", [this](const Call& call) { return Open(call); }),
      m_ioctl("ZorvUmaIoctl", [this](const Call& call) { return Switch(call, -1); }),
      m_ioctlWithFlags("ZorvUmaIoctlWithFlags",
                       [this](const Call& call) { return Switch(call, call.Arg<long>(2)); }),
      m_readCall("ZorvUmaRead", [this](const Call& call) { return Read(call); })
{
}

uint64_t FakeCounters::Open(const Call& call)
{
    const std::lock_guard guard(m_lock);
    const auto pAttributes = call.Arg<const uint8_t*>(0);
    int result;
    if (m_openResults.empty())
    {
        result = memfd_create("counter", MFD_CLOEXEC);
    }
    else
    {
        result = m_openResults.front();
        m_openResults.pop_front();
    }
    m_opened.push_back({{pAttributes, pAttributes + 112},
                        call.Arg<int>(1),
                        call.Arg<int>(2),
                        call.Arg<int>(3),
                        call.Arg<unsigned long>(4),
                        result});
    if (result < 0)
    {
        errno = -result;
        return -1;
    }
    return result;
}

uint64_t FakeCounters::Switch(const Call& call, long flags)
{
    const int fd = call.Arg<int>(0);
    int error = 0;
    {
        const std::lock_guard guard(m_lock);
        m_switched.push_back({fd, call.Arg<unsigned long>(1), flags});
        const auto found = m_switchErrors.find(fd);
        error = found == m_switchErrors.end() ? 0 : found->second;
    }
    if (m_onSwitch)
    {
        m_onSwitch(fd);
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

uint64_t FakeCounters::Read(const Call& call)
{
    const int fd = call.Arg<int>(0);
    const std::lock_guard guard(m_lock);
    const auto found = m_readings.find(fd);
    if (found == m_readings.end() || found->second.empty())
    {
        return call.PassOn();
    }
    const GroupReading reading = found->second.front();
    found->second.pop_front();
    const size_t size = call.Arg<size_t>(2);
    m_read.emplace_back(fd, size);

    std::vector<uint64_t> words = {reading.m_nr, reading.m_timeEnabled, reading.m_timeRunning};
    for (const Member& member : reading.m_members)
    {
        words.insert(words.end(), {member.m_value, member.m_id});
    }
    if (!reading.m_members.empty())
    {
        memcpy(call.Arg<void*>(1), words.data(), std::min(size, words.size() * 8));
    }
    return reading.m_result == 1 ? std::min(size, words.size() * 8) : reading.m_result;
}

std::vector<int> FakeCounters::Fds() const
{
    std::vector<int> fds;
    for (const OpenedCounter& opened : m_opened)
    {
        fds.push_back(opened.m_fd);
    }
    return fds;
}

std::vector<int> FakeCounters::Leaders() const
{
    std::vector<int> leaders;
    for (const OpenedCounter& opened : m_opened)
    {
        if (opened.m_group == -1)
        {
            leaders.push_back(opened.m_fd);
        }
    }
    return leaders;
}

std::vector<size_t> FakeCounters::GroupSizes() const
{
    std::vector<size_t> sizes;
    int leader = -1;
    for (const OpenedCounter& opened : m_opened)
    {
        if (opened.m_group == -1)
        {
            leader = opened.m_fd;
            sizes.push_back(0);
        }
        else
        {
            EXPECT_EQ(opened.m_group, leader);
        }
        sizes.back()++;
    }
    return sizes;
}

// ---- fixtures --------------------------------------------------------------------------------------------

LoadedAgent::LoadedAgent()
{
    LoadAgent(AgentStart::WITHOUT_SESSION);
}

CounterTest::CounterTest()
{
    m_files.m_files = {{CPU_TYPE_FILE, "4\n"},
                       {MSR_TYPE_FILE, "17\n"},
                       {std::string(MSR_EVENTS_DIR) + "tsc", "event=0x00\n"},
                       {std::string(MSR_EVENTS_DIR) + "irperf", "event=0x05\n"},
                       {std::string(MSR_EVENTS_DIR) + "aperf", "event=0x01\n"},
                       {std::string(MSR_EVENTS_DIR) + "mperf", "event=0x2a\n"}};
}

void CounterTest::SetUp()
{
    ASSERT_EQ(ZorvAllocateProcessInfo(), 0);
    ASSERT_EQ(ZorvInitializePcmAgent(), 0);
}

void CounterTest::TearDown()
{
    m_counters.m_onSwitch = nullptr;
    ZorvFiniPcmAgent();
}

// A child that hangs is killed; SIGALRM would not reach one that waits with every signal blocked.
static int WaitOrKill(pid_t child)
{
    int status = 0;
    for (int i = 0; i < 2000; i++)
    {
        if (waitpid(child, &status, WNOHANG) == child)
        {
            return status;
        }
        usleep(10000);
    }
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return status;
}

void InOwnProcess(const std::function<void()>& body)
{
    fflush(stdout);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
    {
        body();
        fflush(stdout);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    const int status = WaitOrKill(child);
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

void OnAnotherThread(const std::function<void()>& body)
{
    std::thread(body).join();
}

} // namespace agent
