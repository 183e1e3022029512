#include "Commands/Commands.h"
#include "Report/FoldedStacks.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace qelix
{
namespace
{

struct ExportFormat
{
    const char* m_pName;
    SampleView m_view;
    void (*m_write)(const SessionFacts& session, const TextSink& sink);
};

constexpr ExportFormat g_formats[] = {{"folded", {.m_withStacks = true}, WriteFoldedStacks}};

struct ExportOptions
{
    std::string m_format;
    std::string m_session;
    bool m_withAgentFrames = false;
};

std::string CheckFormat(const std::string& name)
{
    std::string known;
    for (const ExportFormat& format : g_formats)
    {
        if (name == format.m_pName)
        {
            return "";
        }
        known += (known.empty() ? "" : ", ") + std::string(format.m_pName);
    }
    return fmt::format("there is no format \"{}\"; the formats are {}", name, known);
}

int Export(const ExportOptions& options)
{
    for (const ExportFormat& format : g_formats)
    {
        if (options.m_format != format.m_pName)
        {
            continue;
        }
        SampleView view = format.m_view;
        view.m_withAgentFrames = options.m_withAgentFrames;
        const SessionFacts session = ReadSessionFacts(options.m_session, view);
        if (SampleCount(session) == 0)
        {
            throw Failure(ZORV_STATUS_DAMAGED, "{} has no samples to export; record with qelix run --sample",
                          options.m_session);
        }
        format.m_write(session, PrintOut);
        return IsDamaged(session) ? ZORV_STATUS_DAMAGED : 0;
    }
    return ZORV_STATUS_OWN_FAILURE; // not reached: the command line knows the formats
}

} // namespace

void AddExportCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<ExportOptions>();
    CLI::App* pExport =
        pApp->add_subcommand("export", "Print what a session holds in a form that other tools read");
    pExport
        ->add_option("--to", pOptions->m_format, "folded: a line for each stack, as flame graph tools read it")
        ->required()
        ->type_name("FORMAT")
        ->check(CheckFormat);
    pExport->add_option("DIR", pOptions->m_session, "Session directory, as qelix run has made it")
        ->required()
        ->type_name("");
    pExport->add_flag("--agent-frames", pOptions->m_withAgentFrames,
                      "Show the frames of the agent's signal handler too");
    pExport->callback([pOptions, pStatus] { *pStatus = Export(*pOptions); });
}

} // namespace qelix
