#include "Session/MachineFacts.h"

#include <climits>
#include <ctime>
#include <fmt/format.h>
#include <fstream>
#include <limits>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr uint64_t ZORV_NS_PER_SECOND = 1'000'000'000;
constexpr int ZORV_CLOCK_READINGS = 5;

uint64_t Nanoseconds(const timespec& time)
{
    return static_cast<uint64_t>(time.tv_sec) * ZORV_NS_PER_SECOND + static_cast<uint64_t>(time.tv_nsec);
}

uint64_t Now(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return Nanoseconds(time);
}

std::string UserName()
{
    const passwd* pEntry = getpwuid(getuid());
    return pEntry != nullptr ? pEntry->pw_name : fmt::format("{}", getuid());
}

} // namespace

MachineFacts ThisMachine()
{
    MachineFacts facts;
    char host[HOST_NAME_MAX + 1] = "";
    if (gethostname(host, HOST_NAME_MAX) == 0)
    {
        facts.m_host = host;
    }
    std::ifstream bootFile("/proc/sys/kernel/random/boot_id");
    std::getline(bootFile, facts.m_bootId);
    if (utsname name; uname(&name) == 0)
    {
        facts.m_kernel = fmt::format("{} {} {}", name.sysname, name.release, name.machine);
    }
    facts.m_user = UserName();
    return facts;
}

ClockPair ReadClocks()
{
    // The reading that was interrupted least.
    ClockPair best;
    uint64_t bestSpan = std::numeric_limits<uint64_t>::max();
    for (int i = 0; i < ZORV_CLOCK_READINGS; ++i)
    {
        const uint64_t before = Now(CLOCK_MONOTONIC);
        const uint64_t realtime = Now(CLOCK_REALTIME);
        const uint64_t span = Now(CLOCK_MONOTONIC) - before;
        if (span < bestSpan)
        {
            bestSpan = span;
            best = {before + span / 2, realtime};
        }
    }
    return best;
}

uint64_t KernelTickNs()
{
    timespec tick;
    return clock_getres(CLOCK_MONOTONIC_COARSE, &tick) == 0 ? Nanoseconds(tick) : 0;
}

} // namespace qelix
