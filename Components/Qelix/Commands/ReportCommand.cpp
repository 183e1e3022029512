#include "Commands/Commands.h"
#include "Commands/Pager.h"
#include "Commands/ViewOptions.h"
#include "Report/Report.h"
#include "Report/Views.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <unistd.h>

namespace qelix
{
namespace
{

struct ReportOptions
{
    std::string m_session;
    FilterOptions m_filter;
    TableOptions m_table;
    bool m_isFull = false;
    bool m_withAgentFrames = false;
};

int Report(const ReportOptions& options)
{
    SessionView view;
    view.m_filter = FilterOf(options.m_filter);
    if (const auto rows = options.m_table.m_rows)
    {
        view.m_locksKept = *rows == 0 ? SIZE_MAX : std::max(*rows, view.m_locksKept);
    }
    const SessionFacts session =
        ReadSessionFacts(SessionOr(options.m_session), {.m_withAgentFrames = options.m_withAgentFrames}, view);
    Table threads = ThreadsView(session);
    if (!options.m_table.m_sort.empty())
    {
        SortTable(&threads, options.m_table.m_sort); // fails when there is no such column
    }
    if (options.m_table.m_isCsv)
    {
        PrintTable(std::move(threads), {.m_rows = options.m_table.m_rows, .m_isCsv = true});
        return ToldStatusOf(session);
    }
    PrintPaged(options.m_table.m_isJson ? ReportJson(session)
               : options.m_isFull       ? FullReportText(session)
                                        : ReportText(session, ScreenOf(STDOUT_FILENO),
                                                     {options.m_table.m_rows, options.m_table.m_sort}));
    return IsDamaged(session) ? ZORV_STATUS_DAMAGED : 0;
}

} // namespace

void AddReportCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<ReportOptions>();
    CLI::App* pReport =
        pApp->add_subcommand("report", "Say where the threads of a recorded session waited and burnt CPU");
    pReport->add_option("DIR", pOptions->m_session, "Session directory (qelix-last), as qelix run has made it")
        ->type_name("");
    AddFilterOptions(pReport, &pOptions->m_filter);
    AddTableOptions(pReport, &pOptions->m_table,
                    {"The column of qelix threads to sort the threads by", "Rows of each table; 0: all",
                     "The same facts as one JSON object", "The threads alone, as comma-separated values"});
    pReport->add_flag("--full", pOptions->m_isFull, "Every process, thread and call");
    pReport->add_flag("--agent-frames", pOptions->m_withAgentFrames,
                      "Show the frames of the agent's signal handler too");
    pReport->callback([pOptions, pStatus] { *pStatus = Report(*pOptions); });
}

} // namespace qelix
