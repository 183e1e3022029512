#include "Commands/RunOptions.h"

#include "Commands/WholeNumbers.h"
#include "Report/Report.h"
#include "Session/CounterEvents.h"
#include "Session/Durations.h"
#include "Session/Failure.h"
#include "Session/SampleSupport.h"
#include "Session/Sizes.h"

#include <CLI/CLI.hpp>
#include <csignal>

namespace qelix
{
namespace
{

constexpr const char* ZORV_FLAG_ALONE = "true"; // as the command line gives a flag without a value
constexpr const char* ZORV_HIDDEN = "";         // the group of options that no help shows
constexpr double ZORV_NS_PER_SECOND = 1e9;
constexpr double ZORV_HIGHEST_FREQUENCY = 1e9;

// A record's size has 16 bits, and the agent adds frames of its own.
constexpr uint64_t ZORV_LARGEST_DEPTH = 4000;

// The last real-time signals: the first ones are what C libraries and runtimes take for themselves.
constexpr int ZORV_SIGNALS_BEHIND = 3;

std::string CheckDepth(const std::string& text)
{
    const auto depth = text == ZORV_FLAG_ALONE ? 1 : ParseWhole(text);
    const bool isDepth = depth && *depth > 0 && *depth <= ZORV_LARGEST_DEPTH;
    return isDepth ? "" : fmt::format("{} is no depth from 1 to {}", text, ZORV_LARGEST_DEPTH);
}

int CheckedSignal(int signal)
{
    // Between the standard and the real-time ones lie those of libc.
    const bool isKnown = (signal > 0 && signal < 32) || (signal >= SIGRTMIN && signal <= SIGRTMAX);
    if (!isKnown || signal == SIGKILL || signal == SIGSTOP)
    {
        throw Failure(
            ZORV_FAILURE_USAGE,
            "--signal {}: no handler can be set up for it; choose one from {} to {} that the program leaves "
            "alone",
            signal, SIGRTMIN, SIGRTMAX);
    }
    return signal;
}

std::optional<uint64_t> AskedInterval(const RunOptions& options)
{
    if (options.m_frequency)
    {
        return static_cast<uint64_t>(ZORV_NS_PER_SECOND / *options.m_frequency);
    }
    return ParseDuration(options.m_interval);
}

uint64_t IntervalOf(const RunOptions& options, uint64_t tickNs)
{
    const bool isDefault = options.m_interval.empty() || options.m_interval == ZORV_FLAG_ALONE;
    if (isDefault && !options.m_frequency)
    {
        return tickNs;
    }
    const std::string asked = options.m_frequency ? fmt::format("--frequency {}", *options.m_frequency)
                                                  : "--interval " + options.m_interval;
    const std::optional<uint64_t> interval = AskedInterval(options);
    if (!interval || *interval == 0)
    {
        throw Failure(ZORV_FAILURE_USAGE, "{}: that is no interval; say it like 4ms or 500us", asked);
    }
    if (*interval < tickNs && !options.m_isForced)
    {
        throw Failure(
            ZORV_FAILURE_USAGE,
            "{}: CPU-time timers fire on the kernel's tick, every {}, so a shorter interval gives no more "
            "samples; leave it out, or add --force",
            asked, DurationText(tickNs));
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
            ZORV_FAILURE_CANNOT_START,
            "--events: this machine gives no access to its processor's counters (there is no {}), and with "
            "them there would be no samples; leave --events out",
            folder)
            .At(folder);
    }
    return ParseEvents(options.m_events, folder);
}

void RefuseSampleOptions(const RunOptions& options)
{
    const char* pOption = !options.m_events.empty()     ? "--events"
                          : options.m_signal            ? "--signal"
                          : options.m_frequency         ? "--frequency"
                          : !options.m_interval.empty() ? "--interval"
                                                        : nullptr;
    if (pOption != nullptr)
    {
        throw Failure(ZORV_FAILURE_USAGE, "{} is for samples; leave it or --no-sample out", pOption);
    }
}

void AddSampleOptions(CLI::App* pCommand, RunOptions* pOptions)
{
    CLI::Option* pFrequency =
        pCommand
            ->add_option("-F,--frequency", pOptions->m_frequency,
                         "Samples per second of a thread's own CPU time, at most as many as\n"
                         "the kernel's tick allows (the default)")
            ->type_name("HZ")
            ->check(CLI::Range(1e-3, ZORV_HIGHEST_FREQUENCY));
    CLI::Option* pInterval =
        pCommand
            ->add_option("-i,--interval", pOptions->m_interval, "The same as a time between two samples (10ms)")
            ->type_name("TIME")
            ->excludes(pFrequency);
    // Flags, so that the word behind them stays the program.
    pCommand
        ->add_flag("-g,--stacks", pOptions->m_depth,
                   "Samples have call stacks, of 64 frames at most; --stacks=DEPTH says how many")
        ->check(CheckDepth);
    pCommand->add_flag("--sample", pOptions->m_interval)->excludes(pFrequency, pInterval)->group(ZORV_HIDDEN);
    pCommand->add_option("--depth", pOptions->m_depth)->check(CheckDepth)->group(ZORV_HIDDEN);
    pCommand->add_flag("--no-sample", pOptions->m_isNotSampled, "Do not sample: record calls only");
    pCommand
        ->add_option("--signal", pOptions->m_signal,
                     "The signal that the samples use (default: a real-time one); the program must leave it\n"
                     "alone")
        ->type_name("N");
    pCommand
        ->add_option("-e,--events", pOptions->m_events,
                     "Processor events counted with the samples: names that the kernel knows, or codes")
        ->type_name("EVENTS");
}

void AddTraceOptions(CLI::App* pCommand, RunOptions* pOptions)
{
    pCommand
        ->add_option(
            "--min", pOptions->m_minimums,
            "Record calls of this class that take at least TIME (500ns, 10us, 1ms, 0), or none (off).\n"
            "Classes: pthread, sleep, wait, lock, io-sync (from 1us), io, syscall (from 10us), or all;\n"
            "io and syscall share one setting. May be given several times")
        ->type_name("CLASS=TIME")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
    pCommand
        ->add_option("--threshold", pOptions->m_thresholdNs,
                     "Record only calls that take at least so many nanoseconds, of every class")
        ->type_name("NS")
        ->check(CheckWhole);
    CLI::Option* pChildren = pCommand->add_flag_callback(
        "--children", [pOptions] { pOptions->m_profileChildren = true; },
        "Record child processes too (the default)");
    pCommand
        ->add_flag_callback(
            "--no-children", [pOptions] { pOptions->m_profileChildren = false; },
            "Record the program itself only")
        ->excludes(pChildren);
}

} // namespace

void AddRecordingOptions(CLI::App* pCommand, RunOptions* pOptions)
{
    pCommand
        ->add_option(
            "-o,--output", pOptions->m_directory,
            "Session directory (default: qelix-PROGRAM-DATE-TIME-PID); under the launcher of a parallel\n"
            "job the job's directory, with one session, rank=N, for each rank")
        ->type_name("DIR");
    AddSampleOptions(pCommand, pOptions);
    AddTraceOptions(pCommand, pOptions);
    pCommand
        ->add_option(
            "--rank", pOptions->m_rank,
            "Rank in a parallel job: a number, none, or auto: from the variables of Open MPI, PMIx, MPICH\n"
            "or Slurm")
        ->type_name("N")
        ->capture_default_str();
    pCommand->add_flag("--force", pOptions->m_isForced,
                       "Try what is known not to do better, or not to work here");
}

void AddRunOptions(CLI::App* pCommand, RunOptions* pOptions)
{
    AddRecordingOptions(pCommand, pOptions);
    pCommand
        ->add_option("-d,--duration", pOptions->m_duration,
                     "Stop recording after this time (30s, 5m); the program runs on")
        ->type_name("TIME");
    pCommand
        ->add_option("--budget", pOptions->m_budget,
                     "Pause recording when the session directory has reached this size (500M, 2G)")
        ->type_name("SIZE");
    pCommand->add_flag(
        "--strict", pOptions->m_isStrict,
        "Leave with 125 when something goes wrong after the program's end, instead of a warning");
    pCommand->add_flag("-q,--quiet", pOptions->m_isQuiet, "No line of progress on the terminal");
}

Thresholds ThresholdsOf(const RunOptions& options)
{
    const Thresholds start =
        options.m_thresholdNs ? SameThresholds(options.m_thresholdNs) : DefaultThresholds();
    const Thresholds thresholds = ApplyMinimums(start, options.m_minimums);
    if (!IsAnyClassOn(thresholds) && options.m_isNotSampled)
    {
        throw Failure(ZORV_FAILURE_USAGE,
                      "every class is off and nothing is sampled: there would be nothing to "
                      "report; leave a class on, or leave --no-sample out");
    }
    return thresholds;
}

std::optional<SampleSettings> SamplingOf(const RunOptions& options, uint64_t tickNs,
                                         const std::function<void(const std::string&)>& note)
{
    if (options.m_isNotSampled)
    {
        RefuseSampleOptions(options);
        return std::nullopt;
    }
    SampleSettings sampling;
    sampling.m_intervalNs = IntervalOf(options, tickNs);
    sampling.m_depth = static_cast<unsigned>(
        options.m_depth == ZORV_FLAG_ALONE ? ZORV_DEFAULT_DEPTH : ParseWhole(options.m_depth).value());
    sampling.m_signal = CheckedSignal(options.m_signal.value_or(SIGRTMAX - ZORV_SIGNALS_BEHIND));
    sampling.m_events = EventsOf(options);
    if (const std::string reason = UnwinderProblem(); !reason.empty())
    {
        note(fmt::format("no samples: {}", reason));
        return std::nullopt;
    }
    return sampling;
}

std::optional<uint64_t> DurationOf(const RunOptions& options)
{
    if (options.m_duration.empty())
    {
        return std::nullopt;
    }
    const std::optional<uint64_t> duration = ParseDuration(options.m_duration);
    if (!duration || *duration == 0)
    {
        throw Failure(ZORV_FAILURE_USAGE, "--duration {}: that is no time; say it like 500ms, 30s or 5m",
                      options.m_duration);
    }
    return duration;
}

std::optional<uint64_t> BudgetOf(const RunOptions& options)
{
    if (options.m_budget.empty())
    {
        return std::nullopt;
    }
    const std::optional<uint64_t> budget = ParseSize(options.m_budget);
    if (!budget || *budget == 0)
    {
        throw Failure(ZORV_FAILURE_USAGE, "--budget {}: that is no size; say it like 500M or 2G",
                      options.m_budget);
    }
    return budget;
}

} // namespace qelix
