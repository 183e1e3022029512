// What a session notes of the machine and the moment that it was recorded in.
#pragma once

#include <cstdint>
#include <string>

namespace qelix
{

struct MachineFacts
{
    std::string m_host;
    std::string m_bootId; // CLOCK_MONOTONIC counts from this boot; empty where the kernel does not tell
    std::string m_kernel; // "Linux 6.1.0 x86_64"
    std::string m_user;   // the name, or the number of one that has none
};

MachineFacts ThisMachine();

// Two clocks read as one: what ties the records' times to the calendar.
struct ClockPair
{
    uint64_t m_monotonicNs = 0;
    uint64_t m_realtimeNs = 0;
};

ClockPair ReadClocks();

// The resolution of the kernel's tick, on which CPU-time timers fire; 0 when it cannot be told.
uint64_t KernelTickNs();

} // namespace qelix
