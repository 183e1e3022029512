#include "Commands/Commands.h"
#include "Commands/RunOptions.h"
#include "Report/Report.h"
#include "Session/AgentConfiguration.h"
#include "Session/AgentReports.h"
#include "Session/ControlBlock.h"
#include "Session/Failure.h"
#include "Session/LauncherStandIn.h"
#include "Session/ProcessWatch.h"
#include "Session/ProgramCheck.h"
#include "Session/ProgramRun.h"
#include "Session/ProgramSearch.h"
#include "Session/SessionDirectory.h"
#include "Session/SessionRecord.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

namespace qelix
{
namespace
{

// What has been decided before anything is made.
struct RunPlan
{
    std::string m_program;
    std::string m_agent;
    Thresholds m_thresholds;
    std::optional<SampleSettings> m_sampling;
    uint64_t m_tickNs;
};

struct ProgramEnd
{
    pid_t m_pid;
    int m_waitStatus;
    std::string m_blockName;
    std::map<pid_t, pid_t> m_parentOf;
};

// The block, the stand-in and the watch live exactly as long as the program.
ProgramEnd RunUnderAgent(const RunOptions& options, const RunPlan& plan, const std::string& sessionPath)
{
    const SignalGuard guard;
    const LauncherStandIn standIn;
    const ControlBlock block;
    WriteConfiguration({sessionPath, plan.m_agent, block.m_name, standIn.m_pid, plan.m_thresholds,
                        options.m_profileChildren, plan.m_sampling});
    ProcessWatch watch(sessionPath);
    const ProgramStart start{plan.m_program, options.m_command, ProgramEnvironment(plan.m_agent, sessionPath)};
    const pid_t pid = StartProgram(start, guard);
    // A qelix that is killed leaves this behind.
    WriteSessionRecord(sessionPath, {options.m_command, pid, plan.m_tickNs, {}, std::nullopt});
    const int waitStatus = WaitForProgram(pid, guard);
    return {pid, waitStatus, block.m_name, watch.Finish()};
}

ProgramEnd RunInSession(const RunOptions& options, const RunPlan& plan, const SessionDirectory& session)
{
    try
    {
        return RunUnderAgent(options, plan, session.m_path);
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
        fputs(ReportText(ReadSessionFacts(sessionPath), ScreenOf(STDERR_FILENO)).c_str(), stderr);
    }
    catch (const std::exception& failure)
    {
        PrintNote(failure.what());
    }
}

RunPlan PlanOf(const RunOptions& options)
{
    if (options.m_command.empty())
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE, "no program to run; say: qelix run -- PROGRAM ARGS...");
    }
    RunPlan plan;
    plan.m_tickNs = KernelTickNs();
    plan.m_thresholds = ThresholdsOf(options);
    plan.m_sampling = SamplingOf(options, plan.m_tickNs);
    plan.m_program = FindProgram(options.m_command.front());
    RequireTraceable(plan.m_program);
    if (IsAnyClassOn(plan.m_thresholds))
    {
        RequireTraceablePreloads(getenv("LD_PRELOAD"));
    }
    plan.m_agent = FindAgent();
    return plan;
}

int Run(const RunOptions& options)
{
    const RunPlan plan = PlanOf(options);
    const SessionDirectory session = MakeSessionDirectory(
        options.m_directory.empty() ? DefaultSessionName(options.m_command.front(), getpid())
                                    : options.m_directory);
    const ProgramEnd end = RunInSession(options, plan, session);
    WriteSessionRecord(session.m_path,
                       {options.m_command, end.m_pid, plan.m_tickNs, end.m_parentOf, end.m_waitStatus});
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
    CLI::App* pRun = pApp->add_subcommand(
        "run", "Run a program under the agent and report where its threads waited and burnt CPU:\n"
               "qelix run [OPTIONS] -- PROGRAM ARGS...");
    AddRunOptions(pRun, pOptions.get());
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
