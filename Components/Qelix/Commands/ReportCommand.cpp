#include "Commands/Commands.h"
#include "Report/Report.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace qelix
{
namespace
{

struct ReportOptions
{
    std::string m_session;
    bool m_isJson = false;
    bool m_withAgentFrames = false;
};

int Report(const ReportOptions& options)
{
    const SessionFacts session =
        ReadSessionFacts(options.m_session, {.m_withAgentFrames = options.m_withAgentFrames});
    PrintOut(options.m_isJson ? ReportJson(session) : ReportText(session));
    return IsDamaged(session) ? ZORV_STATUS_DAMAGED : 0;
}

} // namespace

void AddReportCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<ReportOptions>();
    CLI::App* pReport =
        pApp->add_subcommand("report", "Say where the threads of a recorded session waited and burnt CPU");
    pReport->add_option("DIR", pOptions->m_session, "Session directory, as qelix run has made it")
        ->required()
        ->type_name("");
    pReport->add_flag("--json", pOptions->m_isJson, "The same facts as one JSON object");
    pReport->add_flag("--agent-frames", pOptions->m_withAgentFrames,
                      "Show the frames of the agent's signal handler too");
    pReport->callback([pOptions, pStatus] { *pStatus = Report(*pOptions); });
}

} // namespace qelix
