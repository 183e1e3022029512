#include "Session/TraceClasses.h"

#include "Session/Durations.h"
#include "Session/Failure.h"

#include <algorithm>
#include <charconv>
#include <span>
#include <string_view>

namespace qelix
{
namespace
{

constexpr std::array<const char*, ZORV_CLASS_COUNT> g_classNames = {"pthread", "sleep", "wait",   "lock",
                                                                    "io-sync", "io",    "syscall"};

constexpr uint64_t ZORV_DEFAULT_WAIT_NS = 1000;
constexpr uint64_t ZORV_DEFAULT_CALL_NS = 10000;

// A key and the classes that it sets; the value is that of the first. In the order of the lines: a later line
// may only take back what it is meant to.
struct TraceKey
{
    const char* m_pName;
    std::vector<TraceClass> m_classes;
};

const std::array<TraceKey, 6>& TraceKeys()
{
    static const std::array<TraceKey, 6> keys = {{
        {"QELIX_TRACE_PTHREAD", {ZORV_CLASS_PTHREAD}},
        {"QELIX_TRACE_SYSCALL",
         {ZORV_CLASS_SYSCALL, ZORV_CLASS_SLEEP, ZORV_CLASS_WAIT, ZORV_CLASS_LOCK, ZORV_CLASS_IO_SYNC,
          ZORV_CLASS_IO}},
        {"QELIX_TRACE_WAIT_SLEEP_STATE_SYSCALL",
         {ZORV_CLASS_WAIT, ZORV_CLASS_SLEEP, ZORV_CLASS_LOCK, ZORV_CLASS_IO_SYNC}},
        {"QELIX_TRACE_SLEEP", {ZORV_CLASS_SLEEP}},
        {"QELIX_TRACE_LOCK", {ZORV_CLASS_LOCK}},
        {"QELIX_TRACE_IO_SYNC", {ZORV_CLASS_IO_SYNC}},
    }};
    return keys;
}

std::string ValueText(const std::optional<uint64_t>& threshold)
{
    return threshold ? fmt::format("1:{}:0", *threshold) : "0";
}

std::optional<uint64_t> ValueOf(std::string_view text)
{
    if (!text.starts_with("1"))
    {
        return std::nullopt;
    }
    uint64_t threshold = 0;
    if (const std::size_t colon = text.find(':'); colon != std::string_view::npos)
    {
        std::from_chars(text.data() + colon + 1, text.data() + text.size(), threshold);
    }
    return threshold;
}

std::string ClassList()
{
    std::string list;
    for (const char* pName : g_classNames)
    {
        list += (list.empty() ? "" : ", ") + std::string(pName);
    }
    return list;
}

struct Minimum
{
    std::optional<TraceClass> m_class; // nothing: all
    std::optional<uint64_t> m_threshold;
};

Minimum ParseMinimum(const std::string& text)
{
    const std::size_t equals = text.find('=');
    const std::string name = text.substr(0, equals);
    const auto found = std::find(g_classNames.begin(), g_classNames.end(), name);
    if (equals == std::string::npos || (found == g_classNames.end() && name != "all"))
    {
        throw Failure(
            ZORV_FAILURE_USAGE,
            "--min {}: that is no class and time; say CLASS=TIME with one of the classes {}, or all, as in "
            "--min io=10us",
            text, ClassList());
    }
    Minimum minimum;
    if (found != g_classNames.end())
    {
        minimum.m_class = static_cast<TraceClass>(found - g_classNames.begin());
    }
    const std::string time = text.substr(equals + 1);
    if (time != "off")
    {
        minimum.m_threshold = ParseDuration(time);
        if (!minimum.m_threshold)
        {
            throw Failure(ZORV_FAILURE_USAGE, "--min {}: {} is no time; say it like 500ns, 10us, 1ms, 0 or off",
                          text, time.empty() ? "nothing" : time);
        }
    }
    return minimum;
}

// io has no key of its own: it and syscall have the same value, or neither is meant.
void SettleIo(Thresholds* pThresholds, bool isIoNamed, bool isSyscallNamed)
{
    std::optional<uint64_t>& io = (*pThresholds)[ZORV_CLASS_IO];
    std::optional<uint64_t>& syscall = (*pThresholds)[ZORV_CLASS_SYSCALL];
    if (isIoNamed && isSyscallNamed && io != syscall)
    {
        throw Failure(
            ZORV_FAILURE_USAGE,
            "--min io and --min syscall differ, and the agent has one setting for both: its only key that "
            "reaches the io class is that of syscall; give both the same time, or name one of them");
    }
    if (isIoNamed)
    {
        syscall = io;
    }
    else
    {
        io = syscall;
    }
}

} // namespace

const char* TraceClassName(TraceClass traceClass)
{
    return g_classNames[traceClass];
}

Thresholds SameThresholds(std::optional<uint64_t> threshold)
{
    Thresholds thresholds;
    thresholds.fill(threshold);
    return thresholds;
}

Thresholds DefaultThresholds()
{
    Thresholds thresholds = SameThresholds(ZORV_DEFAULT_WAIT_NS);
    thresholds[ZORV_CLASS_IO] = ZORV_DEFAULT_CALL_NS;
    thresholds[ZORV_CLASS_SYSCALL] = ZORV_DEFAULT_CALL_NS;
    return thresholds;
}

bool IsAnyClassOn(const Thresholds& thresholds)
{
    return std::any_of(thresholds.begin(), thresholds.end(),
                       [](const std::optional<uint64_t>& threshold) { return threshold.has_value(); });
}

Thresholds ApplyMinimums(Thresholds thresholds, const std::vector<std::string>& minimums)
{
    bool isIoNamed = false;
    bool isSyscallNamed = false;
    for (const std::string& text : minimums)
    {
        const Minimum minimum = ParseMinimum(text);
        if (!minimum.m_class)
        {
            thresholds = SameThresholds(minimum.m_threshold);
            isIoNamed = isSyscallNamed = false;
            continue;
        }
        thresholds[*minimum.m_class] = minimum.m_threshold;
        isIoNamed = isIoNamed || *minimum.m_class == ZORV_CLASS_IO;
        isSyscallNamed = isSyscallNamed || *minimum.m_class == ZORV_CLASS_SYSCALL;
    }
    SettleIo(&thresholds, isIoNamed, isSyscallNamed);
    return thresholds;
}

std::string TraceLines(const Thresholds& thresholds)
{
    std::string text;
    if (!IsAnyClassOn(thresholds))
    {
        return text;
    }
    for (const TraceKey& key : TraceKeys())
    {
        text += fmt::format("{}={}\n", key.m_pName, ValueText(thresholds[key.m_classes.front()]));
    }
    return text;
}

std::optional<Thresholds> ThresholdsIn(const std::string& configuration)
{
    std::optional<Thresholds> thresholds;
    std::string_view rest = configuration;
    while (!rest.empty())
    {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        const std::string_view name = line.substr(0, line.find('='));
        for (const TraceKey& key : TraceKeys())
        {
            if (name != key.m_pName || name.size() == line.size())
            {
                continue;
            }
            thresholds = thresholds.value_or(SameThresholds(std::nullopt));
            for (const TraceClass traceClass : key.m_classes)
            {
                (*thresholds)[traceClass] = ValueOf(line.substr(name.size() + 1));
            }
        }
    }
    return thresholds;
}

} // namespace qelix
