#include "Session/MachineCheck.h"

#include "Session/ControlBlock.h"
#include "Session/CounterEvents.h"
#include "Session/Failure.h"
#include "Session/MachineFacts.h"
#include "Session/ProgramCheck.h"
#include "Session/ProgramSearch.h"
#include "Session/SampleSupport.h"
#include "Session/ThreadLimits.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <linux/perf_event.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr rlim_t ZORV_FEW_DESCRIPTORS = 64;

CheckLine CheckAgent()
{
    try
    {
        return {ZORV_CHECK_OK, "agent", FindAgent()};
    }
    catch (const Failure& failure)
    {
        return {ZORV_CHECK_NO, "agent", failure.what()};
    }
}

CheckLine CheckSharedMemory()
{
    try
    {
        RemoveControlBlock(MakeControlBlock());
        return {ZORV_CHECK_OK, "shared memory", "/dev/shm can be written"};
    }
    catch (const Failure& failure)
    {
        return {ZORV_CHECK_NO, "shared memory",
                fmt::format("{}; in a container mount a tmpfs there", failure.what())};
    }
}

CheckLine CheckUnwinder()
{
    const std::string problem = UnwinderProblem();
    return problem.empty() ? CheckLine{ZORV_CHECK_OK, "call stacks", "libunwind.so.8 can be loaded"}
                           : CheckLine{ZORV_CHECK_WARN, "call stacks", "no samples: " + problem};
}

// A filter of system calls may refuse the timers of CPU time.
CheckLine CheckTimers()
{
    sigevent event = {};
    event.sigev_notify = SIGEV_NONE;
    timer_t timer;
    if (timer_create(CLOCK_THREAD_CPUTIME_ID, &event, &timer) != 0)
    {
        return {ZORV_CHECK_WARN, "sampling timers",
                fmt::format(
                    "no samples: timers of CPU time are refused ({}); allow timer_create in the container's "
                    "filter of system calls",
                    strerror(errno))};
    }
    timer_delete(timer);
    return {ZORV_CHECK_OK, "sampling timers",
            fmt::format("at most a sample every {:.3g} ms of CPU time, the kernel's tick",
                        static_cast<double>(KernelTickNs()) / 1e6)};
}

std::string FirstLineOf(const char* pPath)
{
    std::ifstream file(pPath);
    std::string line;
    std::getline(file, line);
    return line;
}

CheckLine CheckCounters()
{
    constexpr const char* pSubject = "counters";
    if (!HasCounters(CorePmuFolder()))
    {
        return {
            ZORV_CHECK_WARN, pSubject,
            fmt::format("this machine offers no counters of its processor (no {}); only --events needs them",
                        CorePmuFolder())};
    }
    perf_event_attr attribute = {};
    attribute.size = sizeof(attribute);
    attribute.type = PERF_TYPE_HARDWARE;
    attribute.config = PERF_COUNT_HW_CPU_CYCLES;
    attribute.exclude_kernel = attribute.exclude_hv = 1;
    const long fd = syscall(SYS_perf_event_open, &attribute, 0, -1, -1, PERF_FLAG_FD_CLOEXEC);
    const int error = errno;
    const std::string paranoid = FirstLineOf("/proc/sys/kernel/perf_event_paranoid");
    if (fd < 0)
    {
        return {
            ZORV_CHECK_WARN, pSubject,
            fmt::format("the kernel refuses them ({}; perf_event_paranoid is {}); only --events needs them: as "
                        "root, sysctl kernel.perf_event_paranoid=2, and in a container allow perf_event_open",
                        strerror(error), paranoid)};
    }
    close(static_cast<int>(fd));
    return {ZORV_CHECK_OK, pSubject, fmt::format("can be opened (perf_event_paranoid is {})", paranoid)};
}

CheckLine CheckFilter()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
    {
        if (line.starts_with("Seccomp:") && line.find('2') != line.npos)
        {
            return {ZORV_CHECK_OK, "container",
                    "a filter of system calls is at work; what recording needs was tried"};
        }
    }
    return {ZORV_CHECK_OK, "container", "no filter of system calls"};
}

CheckLine CheckDirectory()
{
    if (access(".", W_OK | X_OK) == 0)
    {
        return {ZORV_CHECK_OK, "session directory", "the current directory can be written"};
    }
    return {
        ZORV_CHECK_WARN, "session directory",
        fmt::format("the current directory cannot be written ({}); name another with -o DIR", strerror(errno))};
}

CheckLine CheckDescriptors()
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < ZORV_FEW_DESCRIPTORS)
    {
        return {ZORV_CHECK_WARN, "descriptors",
                fmt::format(
                    "a process may open {} files, and the agent needs ten of them; ulimit -n 1024 allows more",
                    limit.rlim_cur)};
    }
    return {ZORV_CHECK_OK, "descriptors", fmt::format("a process may open {} files", limit.rlim_cur)};
}

CheckLine CheckPreloads()
{
    try
    {
        RequireTraceablePreloads(getenv("LD_PRELOAD"));
        return {ZORV_CHECK_OK, "preloads", "nothing in LD_PRELOAD speaks against it"};
    }
    catch (const Failure& failure)
    {
        return {ZORV_CHECK_NO, "preloads", failure.what()};
    }
}

} // namespace

std::vector<CheckLine> CheckMachine()
{
    return {CheckAgent(),  CheckSharedMemory(), CheckUnwinder(),    CheckTimers(),  CheckCounters(),
            CheckFilter(), CheckDirectory(),    CheckDescriptors(), CheckPreloads()};
}

std::vector<CheckLine> CheckProgram(const std::string& name)
{
    const std::string program = FindProgram(name);
    if (const std::string reason = UntraceableReason(program); !reason.empty())
    {
        return {{ZORV_CHECK_NO, "program", fmt::format("{} {}", program, reason)}};
    }
    std::vector<CheckLine> lines = {
        {ZORV_CHECK_OK, "program", fmt::format("{} can take the agent in", program)}};
    if (const std::string warning = SecondThreadWarning(program); !warning.empty())
    {
        lines.push_back({ZORV_CHECK_WARN, "second thread", warning});
    }
    return lines;
}

} // namespace qelix
