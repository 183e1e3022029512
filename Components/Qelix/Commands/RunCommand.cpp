#include "Commands/Commands.h"
#include "Report/Report.h"
#include "Session/AgentConfiguration.h"
#include "Session/AgentReports.h"
#include "Session/ControlBlock.h"
#include "Session/Failure.h"
#include "Session/LauncherStandIn.h"
#include "Session/ProgramRun.h"
#include "Session/ProgramSearch.h"
#include "Session/SessionDirectory.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

namespace qelix
{
namespace
{

// An uncontended call takes some 20 ns: what is this short was no waiting.
constexpr uint64_t ZORV_DEFAULT_THRESHOLD_NS = 1000;

struct RunOptions
{
    std::string m_directory;
    uint64_t m_thresholdNs = ZORV_DEFAULT_THRESHOLD_NS;
    bool m_profileChildren = true;
    std::vector<std::string> m_command;
};

// The library's own conversion takes "-5" for a very large number.
std::string WholeNumber(const std::string& text)
{
    uint64_t value;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool isWhole = error == std::errc() && pEnd == text.data() + text.size();
    return isWhole ? "" : fmt::format("{} is no whole number from 0 to {}", text, UINT64_MAX);
}

struct ProgramEnd
{
    pid_t m_pid;
    int m_waitStatus;
    std::string m_blockName;
};

// The block and the stand-in live exactly as long as the program.
ProgramEnd RunUnderAgent(const RunOptions& options, const std::string& program, const std::string& agent,
                         const std::string& sessionPath)
{
    const SignalGuard guard;
    const LauncherStandIn standIn;
    const ControlBlock block;
    WriteConfiguration(
        {sessionPath, agent, block.m_name, standIn.m_pid, options.m_thresholdNs, options.m_profileChildren});
    const ProgramStart start{program, options.m_command, ProgramEnvironment(agent, sessionPath)};
    const pid_t pid = StartProgram(start, guard);
    const int waitStatus = WaitForProgram(pid, guard);
    return {pid, waitStatus, block.m_name};
}

ProgramEnd RunInSession(const RunOptions& options, const std::string& program, const std::string& agent,
                        const SessionDirectory& session)
{
    try
    {
        return RunUnderAgent(options, program, agent, session.m_path);
    }
    catch (...)
    {
        RemoveSessionDirectory(session); // the program has not run: nothing in it can be of use
        throw;
    }
}

bool WasEndedByAgent(const ProgramEnd& end, const std::vector<AgentError>& errors)
{
    return std::any_of(errors.begin(), errors.end(),
                       [&end](const AgentError& error) { return error.m_pid == end.m_pid; });
}

struct Outcome
{
    int m_status; // ours
    std::string m_text;
};

Outcome OutcomeOf(const ProgramEnd& end, const std::vector<AgentError>& errors)
{
    if (WasEndedByAgent(end, errors))
    {
        return {ZORV_STATUS_NOT_STARTED,
                "was ended by the agent, for the reason below"}; // 0 would read as a success
    }
    if (WIFSIGNALED(end.m_waitStatus))
    {
        const int signal = WTERMSIG(end.m_waitStatus);
        return {ZORV_STATUS_SIGNAL_OFFSET + signal,
                fmt::format("was ended by signal {} ({})", signal, strsignal(signal))};
    }
    const int status = WEXITSTATUS(end.m_waitStatus);
    return {status, fmt::format("ended with status {}", status)};
}

// What goes wrong here is told, and never changes the program's status.
void ReportRun(const std::string& sessionPath)
{
    try
    {
        fputs(ReportText(ReadSessionFacts(sessionPath)).c_str(), stderr);
    }
    catch (const std::exception& failure)
    {
        PrintNote(failure.what());
    }
}

int Run(const RunOptions& options)
{
    if (options.m_command.empty())
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE, "no program to run; say: qelix run -- PROGRAM ARGS...");
    }
    const std::string program = FindProgram(options.m_command.front());
    const std::string agent = FindAgent();
    const SessionDirectory session = MakeSessionDirectory(
        options.m_directory.empty() ? DefaultSessionName(options.m_command.front(), getpid())
                                    : options.m_directory);
    const ProgramEnd end = RunInSession(options, program, agent, session);
    const Outcome outcome = OutcomeOf(end, ReadAgentErrors(session.m_path));
    PrintNote(fmt::format("{} {}", options.m_command.front(), outcome.m_text));
    ReportRun(session.m_path);
    RemoveControlBlock(end.m_blockName);
    return outcome.m_status;
}

} // namespace

void AddRunCommand(CLI::App* pApp, const std::vector<std::string>* pBehindMark, int* pStatus)
{
    const auto pOptions = std::make_shared<RunOptions>();
    CLI::App* pRun =
        pApp->add_subcommand("run", "Run a program under the agent and report where its threads waited:\n"
                                    "qelix run [OPTIONS] -- PROGRAM ARGS...");
    pRun->add_option("-o,--output", pOptions->m_directory, "Session directory (default: qelix-PROGRAM-PID)")
        ->type_name("DIR");
    pRun->add_option("--threshold", pOptions->m_thresholdNs,
                     "Record only calls that take at least so many nanoseconds")
        ->type_name("NS")
        ->check(WholeNumber)
        ->capture_default_str();
    CLI::Option* pChildren = pRun->add_flag_callback(
        "--children", [pOptions] { pOptions->m_profileChildren = true; },
        "Record child processes too (the default)");
    pRun->add_flag_callback(
            "--no-children", [pOptions] { pOptions->m_profileChildren = false; },
            "Record the program itself only")
        ->excludes(pChildren);
    pRun->prefix_command(); // what comes behind our options is the program's
    pRun->footer(
        "Leaves with the program's status, 128 + n after signal n; 127: no such program, 126: it cannot be "
        "run or traced,\n125: qelix itself failed. Everything that qelix prints goes to standard error.");
    pRun->callback(
        [pRun, pOptions, pBehindMark, pStatus]
        {
            pOptions->m_command = pRun->remaining();
            // Without a "--" of ours the first one is the program's own: qelix run git log -- FILE.
            const bool isOurMark = pOptions->m_command.empty() && !pBehindMark->empty();
            pOptions->m_command.insert(pOptions->m_command.end(), pBehindMark->begin() + (isOurMark ? 1 : 0),
                                       pBehindMark->end());
            *pStatus = Run(*pOptions);
        });
}

} // namespace qelix
