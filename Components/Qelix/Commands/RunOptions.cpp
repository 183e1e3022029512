#include "Commands/RunOptions.h"

#include "Report/Report.h"
#include "Session/CounterEvents.h"
#include "Session/Durations.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <csignal>

namespace qelix
{
namespace
{

constexpr const char* ZORV_DEFAULT_INTERVAL = "true"; // as the command line says a flag without a value

// A record's size has 16 bits, and the agent adds frames of its own.
constexpr unsigned ZORV_LARGEST_DEPTH = 4000;

// The last real-time signals: the first ones are what C libraries and runtimes take for themselves.
constexpr int ZORV_SIGNALS_BEHIND = 3;

// The library's own conversion takes "-5" for a very large number.
std::string WholeNumber(const std::string& text)
{
    uint64_t value;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool isWhole = error == std::errc() && pEnd == text.data() + text.size();
    return isWhole ? "" : fmt::format("{} is no whole number from 0 to {}", text, UINT64_MAX);
}

int CheckedSignal(int signal)
{
    // Between the standard and the real-time ones lie those of libc.
    const bool isKnown = (signal > 0 && signal < 32) || (signal >= SIGRTMIN && signal <= SIGRTMAX);
    if (!isKnown || signal == SIGKILL || signal == SIGSTOP)
    {
        throw Failure(
            ZORV_STATUS_OWN_FAILURE,
            "--signal {}: no handler can be set up for it; choose one from {} to {} that the program leaves "
            "alone",
            signal, SIGRTMIN, SIGRTMAX);
    }
    return signal;
}

uint64_t IntervalOf(const RunOptions& options, uint64_t tickNs)
{
    if (options.m_sample == ZORV_DEFAULT_INTERVAL)
    {
        return tickNs;
    }
    const std::optional<uint64_t> interval = ParseDuration(options.m_sample);
    if (!interval || *interval == 0)
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE, "--sample={}: that is no interval; say it like 4ms or 500us",
                      options.m_sample);
    }
    if (*interval < tickNs && !options.m_isForced)
    {
        throw Failure(
            ZORV_STATUS_OWN_FAILURE,
            "--sample={}: CPU-time timers fire on the kernel's tick, every {}, so a shorter interval gives no "
            "more samples; say --sample, or add --force",
            options.m_sample, DurationText(tickNs));
    }
    return *interval;
}

std::vector<uint64_t> EventsOf(const RunOptions& options)
{
    if (options.m_events.empty())
    {
        return {};
    }
    const std::string folder = CorePmuFolder();
    if (!HasCounters(folder) && !options.m_isForced)
    {
        throw Failure(
            ZORV_STATUS_OWN_FAILURE,
            "--events: this machine gives no access to its processor's counters (there is no {}), and with "
            "them there would be no samples; leave --events out",
            folder);
    }
    return ParseEvents(options.m_events, folder);
}

void RequireSampling(const RunOptions& options)
{
    if (!options.m_events.empty() || options.m_signal)
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE, "{} is for samples; add --sample",
                      options.m_events.empty() ? "--signal" : "--events");
    }
}

} // namespace

void AddRunOptions(CLI::App* pRun, RunOptions* pOptions)
{
    pRun->add_option("-o,--output", pOptions->m_directory, "Session directory (default: qelix-PROGRAM-PID)")
        ->type_name("DIR");
    pRun->add_option("--threshold", pOptions->m_thresholdNs,
                     "Record only calls that take at least so many nanoseconds, of every class")
        ->type_name("NS")
        ->check(WholeNumber);
    pRun->add_option(
            "--min", pOptions->m_minimums,
            "Record calls of this class that take at least TIME (500ns, 10us, 1ms, 0), or none (off).\n"
            "Classes: pthread, sleep, wait, lock, io-sync (from 1us), io, syscall (from 10us), or all;\n"
            "io and syscall share one setting. May be given several times")
        ->type_name("CLASS=TIME")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
    CLI::Option* pChildren = pRun->add_flag_callback(
        "--children", [pOptions] { pOptions->m_profileChildren = true; },
        "Record child processes too (the default)");
    pRun->add_flag_callback(
            "--no-children", [pOptions] { pOptions->m_profileChildren = false; },
            "Record the program itself only")
        ->excludes(pChildren);
    // A flag, so that the word behind a bare --sample stays the program.
    pRun->add_flag(
        "--sample", pOptions->m_sample,
        "Sample where each thread burns CPU, on its own CPU time: --sample=INTERVAL; without one at the\n"
        "kernel's tick");
    pRun->add_option("--depth", pOptions->m_depth, "Frames of a sample's call stack")
        ->type_name("N")
        ->check(CLI::Range(1U, ZORV_LARGEST_DEPTH))
        ->capture_default_str();
    pRun->add_option("--signal", pOptions->m_signal,
                     "The signal that the samples use (default: a real-time one)")
        ->type_name("N");
    pRun->add_option("--events", pOptions->m_events,
                     "Processor events counted with the samples: names that the kernel knows, or codes")
        ->type_name("LIST");
    pRun->add_flag("--force", pOptions->m_isForced, "Try what is known not to do better, or not to work here");
}

Thresholds ThresholdsOf(const RunOptions& options)
{
    const Thresholds start =
        options.m_thresholdNs ? SameThresholds(options.m_thresholdNs) : DefaultThresholds();
    const Thresholds thresholds = ApplyMinimums(start, options.m_minimums);
    if (!IsAnyClassOn(thresholds) && options.m_sample.empty())
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE,
                      "every class is off and nothing is sampled: there would be nothing to "
                      "report; leave a class on, or add --sample");
    }
    return thresholds;
}

std::optional<SampleSettings> SamplingOf(const RunOptions& options, uint64_t tickNs)
{
    if (options.m_sample.empty())
    {
        RequireSampling(options);
        return std::nullopt;
    }
    SampleSettings sampling;
    sampling.m_intervalNs = IntervalOf(options, tickNs);
    sampling.m_depth = options.m_depth;
    sampling.m_signal = CheckedSignal(options.m_signal.value_or(SIGRTMAX - ZORV_SIGNALS_BEHIND));
    sampling.m_events = EventsOf(options);
    return sampling;
}

} // namespace qelix
