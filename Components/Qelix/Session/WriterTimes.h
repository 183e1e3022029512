// What the agent's own threads cost: the CPU time of the writer of each process, as the kernel last told it
// while the process was alive.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>

namespace qelix
{

using WriterTimes = std::map<pid_t, uint64_t>; // nanoseconds, by the thread's id

// Looks at the live processes of a session.
void NoteWriters(WriterTimes* pTimes, const std::string& sessionPath, const std::string& blockName);

uint64_t SumOf(const WriterTimes& times);

} // namespace qelix
