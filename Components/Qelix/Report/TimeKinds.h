// What a thread's time can have gone into.
#pragma once

#include "Reader/RecordNames.h"

#include <array>
#include <cstdint>

namespace qelix
{

enum TimeKind
{
    ZORV_TIME_CPU,       // by the samples
    ZORV_TIME_LOCK,      // mutexes, read-write and spin locks, locks of files
    ZORV_TIME_CONDITION, // conditions, barriers, semaphores
    ZORV_TIME_IO,
    ZORV_TIME_SLEEP,
    ZORV_TIME_WAIT, // for events, children and threads
    ZORV_TIME_REST, // what no record tells
    ZORV_TIME_KIND_COUNT,
};

struct TimeKindForm
{
    const char* m_pName;   // in CSV and JSON
    const char* m_pTitle;  // above a column
    char m_letter;         // in a bar
    const char* m_pColour; // of the letter, where the terminal has colours
};

const TimeKindForm& FormOf(TimeKind kind);

using KindTimes = std::array<uint64_t, ZORV_TIME_KIND_COUNT>; // nanoseconds

// ZORV_TIME_REST for calls that do not wait.
TimeKind TimeKindOf(const CallKind& kind);

} // namespace qelix
