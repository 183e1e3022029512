#include "Commands/Commands.h"
#include "Commands/Pager.h"
#include "Commands/ViewOptions.h"
#include "Report/Report.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
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
    bool m_isJson = false;
    bool m_isFull = false;
    bool m_withAgentFrames = false;
};

int Report(const ReportOptions& options)
{
    SessionView view;
    view.m_filter = FilterOf(options.m_filter);
    const SessionFacts session =
        ReadSessionFacts(SessionOr(options.m_session), {.m_withAgentFrames = options.m_withAgentFrames}, view);
    PrintPaged(options.m_isJson   ? ReportJson(session)
               : options.m_isFull ? FullReportText(session)
                                  : ReportText(session, ScreenOf(STDOUT_FILENO)));
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
    pReport->add_flag("--json", pOptions->m_isJson, "The same facts as one JSON object");
    pReport->add_flag("--full", pOptions->m_isFull, "Every process, thread and call");
    pReport->add_flag("--agent-frames", pOptions->m_withAgentFrames,
                      "Show the frames of the agent's signal handler too");
    pReport->callback([pOptions, pStatus] { *pStatus = Report(*pOptions); });
}

} // namespace qelix
