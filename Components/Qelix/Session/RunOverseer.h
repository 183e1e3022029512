// What goes on beside a running program: the line of progress, the end of a limited recording, the budget, and
// a look after the process that agents take for their launcher.
#pragma once

#include "Session/WriterTimes.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace qelix
{

struct OverseerTask
{
    std::string m_sessionPath;
    std::string m_blockName;
    pid_t m_standIn = 0;
    std::optional<uint64_t> m_durationNs;  // then the recording stops
    std::optional<uint64_t> m_budgetBytes; // then it pauses
    bool m_isLive = false;                 // a line of progress, where standard error can show one
    std::function<void(const std::string&)> m_note;
};

struct RunOverseer
{
    explicit RunOverseer(OverseerTask task);
    RunOverseer(const RunOverseer&) = delete;
    RunOverseer& operator=(const RunOverseer&) = delete;
    ~RunOverseer(); // takes the line of progress away

    OverseerTask m_task;
    uint64_t m_startNs;
    uint64_t m_nextLineNs;
    uint64_t m_nextSizeNs;
    uint64_t m_nextWriterNs;
    WriterTimes m_writers;
    bool m_isLineShown = false;
    bool m_isStopped = false;       // for the duration
    bool m_isBudgetReached = false; // and said
    bool m_isStandInDead = false;   // and said
};

// Does what is due, and says in how many nanoseconds it wants to be called again at the latest; nothing: it has
// no wish.
std::optional<uint64_t> Oversee(RunOverseer* pOverseer);

} // namespace qelix
