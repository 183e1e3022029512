#include "Commands/ViewOptions.h"

#include "Commands/Commands.h"
#include "Commands/Pager.h"
#include "Commands/WholeNumbers.h"
#include "Session/Durations.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_ROWS_SHOWN = 20; // of a text; CSV and JSON have all
constexpr const char* ZORV_NEWEST_SESSION = "qelix-last";

TraceClass ClassNamed(const std::string& name)
{
    std::string names;
    for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
    {
        const auto traceClass = static_cast<TraceClass>(i);
        if (name == TraceClassName(traceClass))
        {
            return traceClass;
        }
        names += (i == 0 ? "" : ", ") + std::string(TraceClassName(traceClass));
    }
    throw Failure(ZORV_FAILURE_USAGE, "--class: there is no class \"{}\"; the classes are {}", name, names);
}

std::optional<uint64_t> EdgeIn(const std::string& edge, const std::string& whole)
{
    const std::optional<uint64_t> time = ParseDuration(edge);
    if (!edge.empty() && !time)
    {
        throw Failure(ZORV_FAILURE_USAGE,
                      "--time: \"{}\" is no time in \"{}\"; say, for example, 1.5s..2s as 1500ms..2s", edge,
                      whole);
    }
    return time;
}

void SetTimes(RecordFilter* pFilter, const std::string& text)
{
    const std::size_t dots = text.find("..");
    if (dots == std::string::npos)
    {
        throw Failure(ZORV_FAILURE_USAGE,
                      "--time: \"{}\" is no span of time; say FROM..TO, such as 500ms..2s, 10s.. or ..1s",
                      text);
    }
    pFilter->m_from = EdgeIn(text.substr(0, dots), text);
    pFilter->m_to = EdgeIn(text.substr(dots + 2), text);
    if (pFilter->m_from && pFilter->m_to && *pFilter->m_from >= *pFilter->m_to)
    {
        throw Failure(ZORV_FAILURE_USAGE, "--time: \"{}\" ends before it begins", text);
    }
}

} // namespace

void AddFilterOptions(CLI::App* pApp, FilterOptions* pOptions)
{
    pApp->add_option("--thread", pOptions->m_threads, "Threads by name (* and ? stand for others) or id")
        ->type_name("NAME,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    pApp->add_option("--process", pOptions->m_processes, "Processes by name or id")
        ->type_name("NAME,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    pApp->add_option("--class", pOptions->m_classes,
                     "Classes of calls: pthread, sleep, wait, lock, io-sync, ...")
        ->type_name("CLASS,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    pApp->add_option("--time", pOptions->m_time,
                     "What lies between, from the first record on: 500ms..2s, 10s..")
        ->type_name("FROM..TO");
}

void AddTableOptions(CLI::App* pApp, TableOptions* pOptions, const TableHelp& help)
{
    pApp->add_option("--sort", pOptions->m_sort, help.m_pSort)->type_name("COLUMN");
    pApp->add_option("-n", pOptions->m_rows, help.m_pRows)->type_name("COUNT")->check(CheckWhole);
    CLI::Option* pJson = pApp->add_flag("--json", pOptions->m_isJson, help.m_pJson);
    pApp->add_flag("--csv", pOptions->m_isCsv, help.m_pCsv)->excludes(pJson);
}

RecordFilter FilterOf(const FilterOptions& options)
{
    RecordFilter filter{options.m_threads, options.m_processes};
    for (const std::string& name : options.m_classes)
    {
        filter.m_classes.push_back(ClassNamed(name));
    }
    if (!options.m_time.empty())
    {
        SetTimes(&filter, options.m_time);
    }
    return filter;
}

void PrintTable(Table table, const TableOptions& options)
{
    if (!options.m_sort.empty())
    {
        SortTable(&table, options.m_sort);
    }
    const bool isText = !options.m_isJson && !options.m_isCsv;
    if (const std::size_t rows = options.m_rows.value_or(isText ? ZORV_ROWS_SHOWN : 0); rows != 0)
    {
        KeepRows(&table, rows);
    }
    PrintPaged(options.m_isJson  ? TableJson(table)
               : options.m_isCsv ? TableCsv(table)
                                 : TableText(table, ScreenOf(STDOUT_FILENO)));
}

int ToldStatusOf(const SessionFacts& session)
{
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const std::optional<Damage>& damage :
             {process.m_trace.m_damage, process.m_samples.m_damage, process.m_mapDamage})
        {
            if (damage)
            {
                PrintDamage(*damage);
            }
        }
    }
    return IsDamaged(session) ? ZORV_STATUS_DAMAGED : 0;
}

std::string SessionOr(const std::string& directory)
{
    return directory.empty() ? ZORV_NEWEST_SESSION : directory;
}

} // namespace qelix
