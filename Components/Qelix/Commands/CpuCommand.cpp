// Where the threads burnt CPU: by function, by call path, by source line. And what could be named.
#include "Commands/Commands.h"
#include "Commands/ViewOptions.h"
#include "Report/CpuViews.h"
#include "Report/Report.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace qelix
{
namespace
{

constexpr double ZORV_LEAST_SHARE_SHOWN = 0.005; // of the text of a tree; CSV and JSON have all

struct CpuOptions
{
    std::string m_session;
    bool m_isFlat = false; // what there is without any of the three
    bool m_isTree = false;
    bool m_isByLine = false;
    bool m_withAgentFrames = false;
    FilterOptions m_filter;
    TableOptions m_table;
};

// The rows of a tree have their order from it.
void RequireTreeOrder(const CpuOptions& options)
{
    if (options.m_isTree && !options.m_table.m_sort.empty())
    {
        throw Failure(ZORV_FAILURE_USAGE, "--sort would take the tree apart; leave it or --tree out");
    }
}

// Nothing is left out; what a filter leaves nothing of is an answer, too.
bool IsWholeSession(const FilterOptions& filter)
{
    return filter.m_threads.empty() && filter.m_processes.empty() && filter.m_classes.empty() &&
           filter.m_time.empty();
}

Table CpuTable(const SessionFacts& session, const CpuOptions& options)
{
    if (!options.m_isTree)
    {
        return options.m_isByLine ? LinesView(session) : FunctionsView(session);
    }
    const bool isText = !options.m_table.m_isJson && !options.m_table.m_isCsv;
    return CallTreeView(session, isText ? ZORV_LEAST_SHARE_SHOWN : 0, isText);
}

void Print(Table table, TableOptions options)
{
    if (!options.m_isJson && !options.m_isCsv)
    {
        if (!options.m_sort.empty())
        {
            SortTable(&table, options.m_sort); // also by a column that is not shown
            options.m_sort.clear();
        }
        table = BriefTable(table);
    }
    PrintTable(std::move(table), options);
}

Failure NoSamples(const SessionFacts& session)
{
    if (session.m_settings.m_intervalNs.value_or(0) == 0)
    {
        return Failure(ZORV_FAILURE_NO_DATA,
                       "{} has no samples: it was not sampled; record without --no-sample", session.m_path)
            .At(session.m_path);
    }
    return Failure(ZORV_FAILURE_NO_DATA,
                   "{} has no samples: no thread used as much CPU as one stands for ({}); qelix threads {} "
                   "says where "
                   "they waited",
                   session.m_path, DurationText(session.m_periodNs), session.m_path)
        .At(session.m_path);
}

int Cpu(CpuOptions options)
{
    RequireTreeOrder(options);
    const std::string directory = SessionOr(options.m_session);
    SessionView view;
    view.m_filter = FilterOf(options.m_filter);
    const SessionFacts session = ReadSessionFacts(directory,
                                                  {.m_withStacks = options.m_isTree,
                                                   .m_withLines = options.m_isByLine,
                                                   .m_withAgentFrames = options.m_withAgentFrames},
                                                  view);
    if (SampleCount(session) == 0 && IsWholeSession(options.m_filter))
    {
        throw NoSamples(session);
    }
    if (options.m_isTree && !options.m_table.m_rows)
    {
        options.m_table.m_rows = 0; // a tree that is cut off after some rows misleads
    }
    Print(CpuTable(session, options), options.m_table);
    return ToldStatusOf(session);
}

int Symbols(const CpuOptions& options)
{
    const SessionFacts session = ReadSessionFacts(SessionOr(options.m_session));
    Print(SymbolsView(session), options.m_table);
    return ToldStatusOf(session);
}

} // namespace

void AddCpuCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<CpuOptions>();
    CLI::App* pCpu = pApp->add_subcommand("cpu", "Where the threads burnt CPU");
    pCpu->add_option("DIR", pOptions->m_session, "Session directory (qelix-last)")->type_name("");
    CLI::Option* pFlat =
        pCpu->add_flag("--flat", pOptions->m_isFlat, "Functions, by their own time (the default)");
    CLI::Option* pTree =
        pCpu->add_flag("--tree", pOptions->m_isTree, "Functions below those that called them")->excludes(pFlat);
    pCpu->add_flag("--lines", pOptions->m_isByLine, "Source lines, by their own time")
        ->excludes(pFlat)
        ->excludes(pTree);
    pCpu->add_flag("--agent-frames", pOptions->m_withAgentFrames,
                   "Show the frames of the agent's signal handler too");
    AddFilterOptions(pCpu, &pOptions->m_filter);
    AddTableOptions(pCpu, &pOptions->m_table);
    pCpu->callback([pOptions, pStatus] { *pStatus = Cpu(*pOptions); });
}

void AddSymbolsCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<CpuOptions>();
    CLI::App* pSymbols =
        pApp->add_subcommand("symbols", "What of a session could be named, and why the rest could not");
    pSymbols->add_option("DIR", pOptions->m_session, "Session directory (qelix-last)")->type_name("");
    AddTableOptions(pSymbols, &pOptions->m_table);
    pSymbols->callback([pOptions, pStatus] { *pStatus = Symbols(*pOptions); });
}

} // namespace qelix
