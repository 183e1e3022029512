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
#include "Session/Ranks.h"
#include "Session/RunOverseer.h"
#include "Session/SessionDirectory.h"
#include "Session/SessionProcesses.h"
#include "Session/SessionRecord.h"
#include "Session/Sizes.h"
#include "Symbols/BuildIds.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
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
    std::optional<uint64_t> m_durationNs;
    std::optional<uint64_t> m_budgetBytes;
    std::optional<int64_t> m_rank;
    uint64_t m_tickNs;
};

SessionRecord RecordOf(const RunOptions& options, const RunPlan& plan)
{
    SessionRecord record;
    record.m_command = options.m_command;
    record.m_tickNs = plan.m_tickNs;
    record.m_program = plan.m_program;
    record.m_agentVersion = QELIX_VERSION;
    record.m_agentBuildId = BuildIdOf(plan.m_agent);
    record.m_machine = ThisMachine();
    record.m_launcherPid = getpid();
    record.m_rank = plan.m_rank;
    record.m_thresholds = plan.m_thresholds;
    record.m_profileChildren = options.m_profileChildren;
    record.m_budgetBytes = plan.m_budgetBytes;
    if (plan.m_sampling)
    {
        record.m_intervalNs = plan.m_sampling->m_intervalNs;
        record.m_depth = plan.m_sampling->m_depth;
    }
    return record;
}

OverseerTask TaskOf(const RunOptions& options, const RunPlan& plan)
{
    OverseerTask task;
    task.m_durationNs = plan.m_durationNs;
    task.m_budgetBytes = plan.m_budgetBytes;
    task.m_isLive = !options.m_isQuiet;
    task.m_note = PrintNote;
    return task;
}

// A daemon that the program has left behind goes on recording: what it needs stays with it.
void LeaveToProcesses(const std::string& sessionPath, ControlBlock* pBlock, LauncherStandIn* pStandIn)
{
    const std::size_t left = LiveProcessesOf(sessionPath, pBlock->m_name).size();
    if (left == 0)
    {
        return;
    }
    pBlock->m_isLeft = pStandIn->m_isLeft = true;
    PrintNote(fmt::format("{} of the session {} on and recording; qelix stop {} ends that", left,
                          left == 1 ? "process goes" : "processes go", sessionPath));
}

// The block, the stand-in and the watch live exactly as long as the program. What a qelix that is killed leaves
// behind says so much; the rest is added at the end.
void RunUnderAgent(const RunOptions& options, const RunPlan& plan, const SessionDirectory& session,
                   SessionRecord* pRecord)
{
    const SignalGuard guard;
    ControlBlock block;
    LauncherStandIn standIn(session.m_path, block.m_name);
    WriteConfiguration({session.m_configPath, plan.m_agent, block.m_name, standIn.m_pid, plan.m_thresholds,
                        options.m_profileChildren, plan.m_sampling, plan.m_rank});
    ProcessWatch watch(session.m_path);
    pRecord->m_blockName = block.m_name;
    pRecord->m_start = ReadClocks();
    pRecord->m_programPid = StartProgram(
        {plan.m_program, options.m_command, ProgramEnvironment(plan.m_agent, session.m_path)}, guard);
    WriteSessionRecord(session.m_path, *pRecord);
    LinkNewest(session);
    OverseerTask task = TaskOf(options, plan);
    task.m_sessionPath = session.m_path;
    task.m_blockName = block.m_name;
    task.m_standIn = standIn.m_pid;
    RunOverseer overseer(std::move(task));
    pRecord->m_waitStatus =
        WaitForProgram(pRecord->m_programPid, guard, [&overseer] { return Oversee(&overseer); });
    pRecord->m_end = ReadClocks();
    pRecord->m_isBudgetReached = overseer.m_isBudgetReached;
    pRecord->m_parentOf = watch.Finish();
    LeaveToProcesses(session.m_path, &block, &standIn);
}

void RunInSession(const RunOptions& options, const RunPlan& plan, const SessionDirectory& session,
                  SessionRecord* pRecord)
{
    try
    {
        RunUnderAgent(options, plan, session, pRecord);
    }
    catch (...)
    {
        RemoveSessionDirectory(session); // the program has not run: nothing in it can be of use
        throw;
    }
}

// Nothing: the agent ended the program, and 0 would read as a success.
std::optional<int> WaitStatusOf(const SessionRecord& record, const std::vector<AgentError>& errors)
{
    const bool isEndedByAgent =
        std::any_of(errors.begin(), errors.end(),
                    [&](const AgentError& error) { return error.m_pid == record.m_programPid; });
    return isEndedByAgent ? std::nullopt : record.m_waitStatus;
}

std::string EndText(const std::optional<int>& waitStatus)
{
    if (!waitStatus)
    {
        return "was ended by the agent";
    }
    if (WIFSIGNALED(*waitStatus))
    {
        const int signal = WTERMSIG(*waitStatus);
        return fmt::format("was ended by signal {} ({})", signal, strsignal(signal));
    }
    return fmt::format("ended with status {}", WEXITSTATUS(*waitStatus));
}

// What goes wrong here is told, and changes the status under --strict alone.
bool FinishSession(const std::string& sessionPath, SessionRecord* pRecord, bool withReport)
{
    try
    {
        pRecord->m_buildIds = BuildIdsOfModules(MetadataFolder(sessionPath));
        const bool isNoted = WriteSessionRecord(sessionPath, *pRecord);
        if (!isNoted)
        {
            PrintNote(fmt::format("{} cannot be written; the session lacks the facts of its end",
                                  RecordFilePath(sessionPath)));
        }
        if (!withReport)
        {
            PrintNote(fmt::format("recorded {} ({})", sessionPath, SizeText(SessionSize(sessionPath))));
            return isNoted;
        }
        const SessionFacts facts = ReadSessionFacts(sessionPath);
        fputs(ReportText(facts, ScreenOf(STDERR_FILENO)).c_str(), stderr);
        return isNoted && !IsDamaged(facts);
    }
    catch (const std::exception& failure)
    {
        PrintNote(failure.what());
        return false;
    }
}

RunPlan PlanOf(const RunOptions& options)
{
    if (options.m_command.empty())
    {
        throw Failure(ZORV_STATUS_OWN_FAILURE, "no program to run; say: qelix run PROGRAM ARGS...");
    }
    RunPlan plan;
    plan.m_tickNs = KernelTickNs();
    plan.m_thresholds = ThresholdsOf(options);
    plan.m_sampling = SamplingOf(options, plan.m_tickNs, PrintNote);
    if (!plan.m_sampling && !IsAnyClassOn(plan.m_thresholds))
    {
        throw Failure(
            ZORV_STATUS_OWN_FAILURE,
            "without samples and with every class off there would be nothing to record; leave a class on");
    }
    plan.m_durationNs = DurationOf(options);
    plan.m_budgetBytes = BudgetOf(options);
    plan.m_rank = ParseRank(options.m_rank);
    plan.m_program = FindProgram(options.m_command.front());
    RequireTraceable(plan.m_program);
    if (IsAnyClassOn(plan.m_thresholds))
    {
        RequireTraceablePreloads(getenv("LD_PRELOAD"));
    }
    plan.m_agent = FindAgent();
    return plan;
}

SessionDirectory MakeDirectoryFor(const RunOptions& options, const RunPlan& plan)
{
    if (options.m_directory.empty())
    {
        return MakeSessionDirectory(DefaultSessionName(options.m_command.front(), time(nullptr), getpid()));
    }
    return plan.m_rank ? MakeRankDirectory(options.m_directory, *plan.m_rank)
                       : MakeSessionDirectory(options.m_directory);
}

// Ours is the program's status, or its death.
int Run(const RunOptions& options, bool withReport)
{
    const RunPlan plan = PlanOf(options);
    const SessionDirectory session = MakeDirectoryFor(options, plan);
    SessionRecord record = RecordOf(options, plan);
    RunInSession(options, plan, session, &record);
    const std::vector<AgentError> errors = ReadAgentErrors(session.m_path);
    const std::optional<int> waitStatus = WaitStatusOf(record, errors);
    PrintNote(fmt::format("{} {}", options.m_command.front(), EndText(waitStatus)));
    const bool isComplete = FinishSession(session.m_path, &record, withReport);
    if (!isComplete && options.m_isStrict)
    {
        return ZORV_STATUS_OWN_FAILURE;
    }
    if (!waitStatus)
    {
        return ZORV_STATUS_NOT_STARTED;
    }
    if (WIFSIGNALED(*waitStatus))
    {
        DieOfSignal(WTERMSIG(*waitStatus));
    }
    return WEXITSTATUS(*waitStatus);
}

void AddRunner(CLI::App* pCommand, const std::vector<std::string>* pProgram, int* pStatus, bool withReport)
{
    const auto pOptions = std::make_shared<RunOptions>();
    AddRunOptions(pCommand, pOptions.get());
    pCommand->footer(
        "What follows the options is the program and its own arguments; no -- is needed in front of it.\n"
        "Leaves with the program's status, and dies of the signal that ended it; 127: no such program,\n"
        "126: it cannot be run or traced, 125: qelix itself failed. Everything that qelix prints goes to\n"
        "standard error.");
    pCommand->callback(
        [pOptions, pProgram, pStatus, withReport]
        {
            pOptions->m_command = *pProgram;
            *pStatus = Run(*pOptions, withReport);
        });
}

} // namespace

void AddRunCommand(CLI::App* pApp, const std::vector<std::string>* pProgram, int* pStatus)
{
    CLI::App* pRun =
        pApp->add_subcommand("run", "Run a program and report where its threads waited and burnt CPU:\n"
                                    "qelix run [OPTIONS] PROGRAM ARGS..., or qelix PROGRAM ARGS...");
    AddRunner(pRun, pProgram, pStatus, true);
}

void AddRecordCommand(CLI::App* pApp, const std::vector<std::string>* pProgram, int* pStatus)
{
    CLI::App* pRecord =
        pApp->add_subcommand("record", "The same without the report: qelix record [OPTIONS] PROGRAM ARGS...");
    AddRunner(pRecord, pProgram, pStatus, false);
}

} // namespace qelix
