// The classes of calls that the agent traces, and the lines of its configuration that set each of them.
//
// The agent takes the first name of its table that begins with a line's key. So QELIX_TRACE_IO reaches the
// io-sync class, QELIX_TRACE_WAIT reaches four classes at once, and no key reaches io alone: only the key of
// the system calls switches it on, together with syscall, and overwrites four other classes on its way. What
// the lines can say therefore depends on their order, and io and syscall are always alike.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

enum TraceClass
{
    ZORV_CLASS_PTHREAD,
    ZORV_CLASS_SLEEP,
    ZORV_CLASS_WAIT,
    ZORV_CLASS_LOCK,
    ZORV_CLASS_IO_SYNC,
    ZORV_CLASS_IO,
    ZORV_CLASS_SYSCALL,
    ZORV_CLASS_COUNT,
};

const char* TraceClassName(TraceClass traceClass);

// The shortest call of each class that is recorded; nothing: the class is off.
using Thresholds = std::array<std::optional<uint64_t>, ZORV_CLASS_COUNT>;

// An uncontended call takes some 20 ns: what is as short as a microsecond was no waiting.
Thresholds DefaultThresholds();
Thresholds SameThresholds(std::optional<uint64_t> threshold);

bool IsAnyClassOn(const Thresholds& thresholds);

// "CLASS=TIME", with "all" for every class and "off" for no time. Later ones win, except that of io and syscall
// the one that is not named takes over what the other is given. Fails when a text cannot be understood, and
// when no configuration can express what they ask for.
Thresholds ApplyMinimums(Thresholds thresholds, const std::vector<std::string>& minimums);

// The lines "KEY=VALUE\n" that set exactly these thresholds; none when all classes are off, since any of these
// keys switches tracing on. io and syscall must be alike.
std::string TraceLines(const Thresholds& thresholds);

// What an agent makes of a configuration: nothing when it holds no trace key.
std::optional<Thresholds> ThresholdsIn(const std::string& configuration);

} // namespace qelix
