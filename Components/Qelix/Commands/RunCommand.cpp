#include "Commands/Commands.h"
#include "Commands/RunOptions.h"
#include "Commands/RunPlan.h"
#include "Compare/RankSummary.h"
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
#include "Session/RunOverseer.h"
#include "Session/SessionDirectory.h"
#include "Session/SessionProcesses.h"
#include "Session/SessionRecord.h"
#include "Session/SessionSearch.h"
#include "Session/Sizes.h"
#include "Session/ThreadLimits.h"
#include "Symbols/BuildIds.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace qelix
{
namespace
{

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
    PrintNote(fmt::format("{} of the session still {} and {} recorded; qelix stop {} ends that",
                          left == 1 ? "1 process" : fmt::format("{} processes", left),
                          left == 1 ? "runs" : "run", left == 1 ? "is" : "are", sessionPath));
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
    pRecord->m_launcherPid = getpid();
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
    pRecord->m_isStopped = CollectionStateOf(block.m_name) == ZORV_COLLECTION_STOPPED;
    if (!overseer.m_writers.empty())
    {
        pRecord->m_writerCpuNs = SumOf(overseer.m_writers);
    }
    for (const auto& [pid, parent] : watch.Finish())
    {
        pRecord->m_parentOf[{"", pid}] = parent;
    }
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

// What goes wrong here is told, and changes the status under --strict alone.
bool FinishSession(const std::string& sessionPath, SessionRecord* pRecord, bool withReport)
{
    try
    {
        if (!pRecord->m_profileChildren)
        {
            RemoveRecordsOfOthers(sessionPath, pRecord->m_programPid);
        }
        pRecord->m_buildIds = BuildIdsOfModules(MetadataFolder(sessionPath));
        const bool isNoted = WriteSessionRecord(sessionPath, *pRecord);
        if (!isNoted)
        {
            PrintNote(fmt::format("{} cannot be written; the session lacks the facts of its end",
                                  RecordFilePath(sessionPath)));
        }
        // One rank of a job: the table of all its ranks then needs no second reading.
        if (pRecord->m_rank && !WriteRankSummary(sessionPath))
        {
            PrintNote(fmt::format("{} lacks the summary of its rank; qelix ranks will read the session instead",
                                  sessionPath));
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
        PrintFailure(failure);
        return false;
    }
}

RunPlan PlanOf(const RunOptions& options)
{
    if (options.m_command.empty())
    {
        throw Failure(ZORV_FAILURE_USAGE, "no program to run; say: qelix run PROGRAM ARGS...");
    }
    RunPlan plan = PlanRecording(options);
    plan.m_program = FindProgram(options.m_command.front());
    RequireTraceable(plan.m_program);
    if (IsAnyClassOn(plan.m_thresholds))
    {
        RequireTraceablePreloads(getenv("LD_PRELOAD"));
    }
    return plan;
}

// The kernel and libc refuse some programs a second thread. Which it was is not said anywhere, so all that ran
// are asked.
void ExplainSecondThread(const SessionRecord& record, const std::string& sessionPath, int waitStatus)
{
    if (waitStatus == 0)
    {
        return;
    }
    std::set<std::string> programs = {record.m_program};
    for (const ExecFact& exec : ReadAgentLogs(sessionPath).m_execs)
    {
        programs.insert(exec.m_path);
    }
    for (const std::string& program : programs)
    {
        if (const std::string reason = SecondThreadReason(program, waitStatus); !reason.empty())
        {
            PrintNote(reason);
            return;
        }
    }
}

// Ours is the program's status, or its death.
int Run(const RunOptions& options, bool withReport)
{
    const RunPlan plan = PlanOf(options);
    const SessionDirectory session = MakeDirectoryFor(options, plan, options.m_command.front());
    SessionRecord record = RecordOf(options, plan);
    RunInSession(options, plan, session, &record);
    const std::vector<AgentError> errors = ReadAgentErrors(session.m_path);
    const std::optional<int> waitStatus = WaitStatusOf(record, errors);
    const std::string end = fmt::format("{} {}", options.m_command.front(),
                                        waitStatus ? EndText(*waitStatus) : "was ended by the agent");
    const bool isInReport = withReport && waitStatus;
    if (!isInReport)
    {
        PrintNote(end);
    }
    ExplainSecondThread(record, session.m_path, waitStatus.value_or(0));
    const bool isComplete = FinishSession(session.m_path, &record, withReport);
    if (isInReport && !isComplete) // the session's files may not tell it
    {
        PrintNote(end);
    }
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
    pCommand->footer("What follows the options is the program and its own arguments; no -- is needed\n"
                     "in front of it. Leaves with the program's status, and dies of the signal that\n"
                     "ended it; 127: no such program, 126: it cannot be run or traced, 125: qelix\n"
                     "itself failed. Everything that qelix prints goes to standard error.");
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
    CLI::App* pRun = pApp->add_subcommand(
        "run",
        "Run a program and report where its threads waited and burnt CPU; bare qelix PROGRAM means the same");
    AddRunner(pRun, pProgram, pStatus, true);
}

void AddRecordCommand(CLI::App* pApp, const std::vector<std::string>* pProgram, int* pStatus)
{
    CLI::App* pRecord = pApp->add_subcommand("record", "The same without the report");
    AddRunner(pRecord, pProgram, pStatus, false);
}

} // namespace qelix
