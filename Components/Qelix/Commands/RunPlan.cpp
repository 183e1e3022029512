#include "Commands/RunPlan.h"

#include "Commands/Commands.h"
#include "Session/Failure.h"
#include "Session/ProgramSearch.h"
#include "Session/Ranks.h"
#include "Symbols/BuildIds.h"

#include <ctime>
#include <unistd.h>

namespace qelix
{

RunPlan PlanRecording(const RunOptions& options)
{
    RunPlan plan;
    plan.m_tickNs = KernelTickNs();
    plan.m_thresholds = ThresholdsOf(options);
    plan.m_sampling = SamplingOf(options, plan.m_tickNs, PrintNote);
    if (!plan.m_sampling && !IsAnyClassOn(plan.m_thresholds))
    {
        throw Failure(
            ZORV_FAILURE_USAGE,
            "without samples and with every class off there would be nothing to record; leave a class on");
    }
    plan.m_durationNs = DurationOf(options);
    plan.m_budgetBytes = BudgetOf(options);
    plan.m_rank = ParseRank(options.m_rank);
    plan.m_agent = FindAgent();
    return plan;
}

SessionRecord RecordOf(const RunOptions& options, const RunPlan& plan)
{
    SessionRecord record;
    record.m_command = options.m_command;
    record.m_tickNs = plan.m_tickNs;
    record.m_program = plan.m_program;
    record.m_agentVersion = QELIX_VERSION;
    record.m_agentBuildId = BuildIdOf(plan.m_agent);
    record.m_machine = ThisMachine();
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

SessionDirectory MakeDirectoryFor(const RunOptions& options, const RunPlan& plan, const std::string& program)
{
    if (options.m_directory.empty())
    {
        return MakeSessionDirectory(DefaultSessionName(program, time(nullptr), getpid()));
    }
    return plan.m_rank ? MakeRankDirectory(options.m_directory, *plan.m_rank)
                       : MakeSessionDirectory(options.m_directory);
}

} // namespace qelix
