// The one-screen report: what happened, its three tables, what it cannot know, and what to type next.
#include "Report/CpuFacts.h"
#include "Report/Report.h"
#include "Report/TextParts.h"
#include "Report/ThreadTimes.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/wait.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_CAUTIONS_SHOWN = 4;
constexpr std::size_t ZORV_CHILDREN_SHOWN = 3;
constexpr double ZORV_SHARE_WORTH_A_LOOK = 0.1;

std::string OutcomeText(const SessionRecord& record)
{
    if (!record.m_waitStatus)
    {
        return "is still running, or nobody saw its end";
    }
    if (WIFSIGNALED(*record.m_waitStatus))
    {
        const int signal = WTERMSIG(*record.m_waitStatus);
        return fmt::format("was ended by signal {} ({})", signal, strsignal(signal));
    }
    return fmt::format("ended with status {}", WEXITSTATUS(*record.m_waitStatus));
}

void WriteHead(Lines out, const SessionFacts& session, const Screen& screen)
{
    uint64_t threads = 0;
    uint64_t calls = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        threads += CountThreads(process);
        calls += CallCount(process.m_trace);
    }
    const SessionRecord& record = session.m_record;
    const std::string command = record.m_command.empty()
                                    ? "the program"
                                    : PrintableText(fmt::format("{}", fmt::join(record.m_command, " ")));
    const std::string outcome = fmt::format(
        " {}; {} of wall time, {}, {}", OutcomeText(record), DurationText(WallNs(session)),
        Plural(session.m_processes.size(), "process", "processes"), Plural(threads, "thread", "threads"));
    const uint64_t lost = session.m_log.m_lostTraceRecords + session.m_log.m_lostSampleRecords;
    const std::string lostText = lost != 0                        ? Plural(lost, "record", "records") + " lost"
                                 : session.m_log.m_unwritten != 0 ? "records lost that could not be written"
                                                                  : "no record lost";
    const std::string recorded = fmt::format("{}: {}, {}, {}, {}", PrintableText(session.m_path),
                                             BytesText(session.m_bytes), Plural(calls, "call", "calls"),
                                             Plural(SampleCount(session), "sample", "samples"), lostText);
    fmt::format_to(out, "{}\n{}\n", Wrapped(CutTo(command, screen.m_width / 2) + outcome, screen.m_width, "  "),
                   Wrapped(recorded, screen.m_width, "  "));
}

// Samples in the agent's own code, the handler that takes them left out: what that and the recording of a call
// take is not measured while they happen.
std::string CostText(const SessionFacts& session)
{
    uint64_t inAgent = 0;
    for (const auto& [function, count] : FunctionsOf(session))
    {
        const std::string module = ModuleName(session.m_pSymbolizer->m_functions[function].m_module);
        inAgent += module == ZORV_AGENT_FILE ? count.m_self : 0;
    }
    const uint64_t samples = SampleCount(session);
    const double seconds = static_cast<double>(WallNs(session)) / 1e9;
    std::string text = "The agent's cost: ";
    if (samples != 0)
    {
        text +=
            fmt::format("{:.1f} % of the samples fell into its code (its signal handler, once a sample, not "
                        "counted); ",
                        100.0 * static_cast<double>(inAgent) / static_cast<double>(samples));
    }
    if (session.m_record.m_writerCpuNs)
    {
        text += fmt::format("its writing threads had used {} of CPU when last looked at; ",
                            DurationText(*session.m_record.m_writerCpuNs));
    }
    text += BytesText(session.m_bytes) + " of files";
    if (seconds >= 1) // what one file header is a second says nothing
    {
        text += fmt::format(", {} a second",
                            BytesText(static_cast<uint64_t>(static_cast<double>(session.m_bytes) / seconds)));
    }
    return text + '.';
}

std::string ThresholdsSentence(const SessionFacts& session)
{
    std::string text = "Waits have no stacks; unlocks, descriptors and byte counts are not recorded";
    if (!session.m_settings.m_thresholds)
    {
        return text + '.';
    }
    const std::string tooShort = ThresholdsText(*session.m_settings.m_thresholds);
    const std::string off = ClassesOff(*session.m_settings.m_thresholds);
    text += tooShort.empty() ? "" : ", nor are short calls: " + tooShort;
    return text + (off.empty() ? "." : ". Not traced: " + off + ".");
}

std::string SamplesSentence(const SessionFacts& session)
{
    if (SampleCount(session) != 0)
    {
        return "";
    }
    return session.m_settings.m_intervalNs.value_or(0) == 0
               ? "It was not sampled: CPU time is part of rest."
               : fmt::format("No thread used as much CPU as a sample takes ({}).",
                             DurationText(session.m_periodNs));
}

std::string NeverReturnedSentence(const SessionFacts& session)
{
    uint64_t count = 0;
    for (const ProcessFacts& process : session.m_processes)
    {
        count += process.m_trace.m_neverReturned.size();
    }
    return count == 0
               ? ""
               : fmt::format("{} {}: qelix blocked.", Plural(count, "call", "calls"),
                             session.m_record.m_isStopped ? "had not returned when the recording was stopped"
                                                          : "never returned");
}

std::string UnrecordedSentence(const SessionFacts& session)
{
    const std::vector<UnrecordedProcess>& processes = session.m_tree.m_unrecorded;
    if (processes.empty())
    {
        return "";
    }
    std::vector<std::string> names;
    for (std::size_t i = 0; i < std::min(processes.size(), ZORV_CHILDREN_SHOWN); ++i)
    {
        names.push_back(fmt::format("{} {} ({})", NameOr(processes[i].m_program, "a fork"),
                                    ProcessText(processes[i].m_process), processes[i].m_reason));
    }
    return fmt::format("{} ran without the agent: {}{}.", Plural(processes.size(), "process", "processes"),
                       fmt::join(names, ", "), processes.size() > names.size() ? ", ..." : "");
}

// As a shell takes it.
std::string ShellWord(const std::string& word)
{
    const auto isPlain = [](char c)
    { return isalnum(static_cast<unsigned char>(c)) || strchr("/._-+:,%@=", c); };
    if (!word.empty() && std::all_of(word.begin(), word.end(), isPlain))
    {
        return word;
    }
    std::string quoted = "'";
    for (const char c : word)
    {
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return quoted + "'";
}

// Of the time of all threads.
double ShareOf(const SessionFacts& session, std::initializer_list<TimeKind> kinds)
{
    double part = 0;
    double whole = 0;
    for (const ThreadTimes& times : TimesOfThreads(session))
    {
        whole += static_cast<double>(times.m_wallNs);
        for (const TimeKind kind : kinds)
        {
            part += static_cast<double>(times.m_timeNs[kind]);
        }
    }
    return whole == 0 ? 0 : part / whole;
}

// The views of what took the time.
void WriteNext(Lines out, const SessionFacts& session, const Screen& screen)
{
    const std::string directory = PrintableText(ShellWord(session.m_path));
    fmt::format_to(out, "\n{}\n", Heading(screen, "NEXT"));
    if (ShareOf(session, {ZORV_TIME_IO}) >= ZORV_SHARE_WORTH_A_LOOK)
    {
        fmt::format_to(out, "  qelix io {}\n", directory);
    }
    if (!session.m_locks.empty())
    {
        fmt::format_to(out, "  qelix locks {} {}\n", directory,
                       PrintableText(ShellWord(session.m_locks.front().m_name)));
    }
    if (ShareOf(session, {ZORV_TIME_SLEEP, ZORV_TIME_WAIT}) >= ZORV_SHARE_WORTH_A_LOOK)
    {
        fmt::format_to(out, "  qelix waits {}\n", directory);
    }
    if (!NeverReturnedSentence(session).empty())
    {
        fmt::format_to(out, "  qelix blocked {}\n", directory);
    }
    if (SampleCount(session) != 0)
    {
        fmt::format_to(out, "  qelix cpu {}\n", directory);
    }
    fmt::format_to(out, "  qelix report --full {}\n", directory);
}

} // namespace

void WriteReadThis(Lines out, const SessionFacts& session, const Screen& screen)
{
    std::vector<std::string> lines = {NeverReturnedSentence(session), ThresholdsSentence(session),
                                      SamplesSentence(session), UnrecordedSentence(session)};
    const std::vector<std::string> cautions = CautionLines(session);
    const std::size_t shown = std::min(cautions.size(), ZORV_CAUTIONS_SHOWN);
    lines.insert(lines.end(), cautions.begin(), cautions.begin() + static_cast<std::ptrdiff_t>(shown));
    if (shown < cautions.size())
    {
        lines.push_back(fmt::format("and {} more: qelix report --full", cautions.size() - shown));
    }
    lines.push_back(CostText(session));
    fmt::format_to(out, "\n{}\n", Heading(screen, "READ THIS"));
    for (const std::string& line : lines)
    {
        if (!line.empty())
        {
            fmt::format_to(out, "  {}\n", Wrapped(line, screen.m_width - 2, "    "));
        }
    }
}

std::string ReportText(const SessionFacts& session, const Screen& screen, const ReportShape& shape)
{
    std::string text;
    Lines out(text);
    WriteHead(out, session, screen);
    WriteTimeTable(out, session, screen, shape);
    WriteLockTable(out, session, screen, shape);
    WriteFunctionTable(out, session, screen, shape);
    WriteReadThis(out, session, screen);
    WriteNext(out, session, screen);
    return text;
}

} // namespace qelix
