// Who started whom. The agent's files do not say it; but each agent makes its log file when its process starts,
// and at that moment the process is alive and the kernel knows its parent. A process that is gone again before
// qelix gets to run is missed.
#pragma once

#include <compare>
#include <map>
#include <string>
#include <sys/types.h>
#include <thread>

namespace qelix
{

struct ProcessWatch
{
    explicit ProcessWatch(
        const std::string& sessionPath); // starts it; where the kernel refuses, nothing is seen
    ProcessWatch(const ProcessWatch&) = delete;
    ProcessWatch& operator=(const ProcessWatch&) = delete;
    ~ProcessWatch();

    // Ends the watch and hands out what it saw.
    std::map<pid_t, pid_t> Finish();

    int m_inotifyFd = -1;
    int m_endFd = -1;
    std::map<pid_t, pid_t> m_parentOf; // of the thread, until it has ended
    std::thread m_thread;
};

// The process that started this one, or has taken it over; 0 when it is gone.
pid_t ParentOf(pid_t pid);

// The id at the end of a name that an agent gave to one of its files, "..._PID.EXTENSION"; 0 when there is
// none.
pid_t PidInFileName(const std::string& path);

// Sessions that were merged may have processes of one id. Their files have marks in front of the host's name,
// "trace_s1@HOST_PID.umt", which tell them apart.
struct MarkedPid
{
    std::string m_mark; // "s1@", or "s1@s0@" of a session that was merged before; empty without one
    pid_t m_pid = 0;
    auto operator<=>(const MarkedPid&) const = default;
};

MarkedPid MarkedPidInFileName(const std::string& path);

} // namespace qelix
