// The processes of a session while it runs, and how much they have written.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qelix
{

// Those that an agent is at work in.
std::vector<pid_t> LiveProcessesOf(const std::string& sessionPath, const std::string& blockName);

struct SessionProgress
{
    uint64_t m_processes = 0; // that have ever had an agent
    uint64_t m_liveProcesses = 0;
    uint64_t m_threads = 0; // alive, without those of the agents
    uint64_t m_records = 0; // as many as fit into what is written, by the mean size of each file's first ones
    uint64_t m_bytes = 0;   // of the session directory
    uint64_t m_lost = 0;    // of processes that have ended: an agent counts and tells at its end
};

SessionProgress ReadProgress(const std::string& sessionPath, const std::string& blockName);

// "3 processes, 8 threads, 1200000 records, 34.0 MiB, 0 lost"; once it is over, all processes and no threads.
std::string ProgressText(const SessionProgress& progress, bool isOver = false);

// Of all its files.
uint64_t SessionSize(const std::string& sessionPath);

// Removes what other processes than this one recorded: an agent follows into every program that a process
// executes, and knows none that it is to leave out.
void RemoveRecordsOfOthers(const std::string& sessionPath, pid_t program);

} // namespace qelix
