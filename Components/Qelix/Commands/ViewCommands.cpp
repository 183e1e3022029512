// The views of a session: one table each.
#include "Commands/Commands.h"
#include "Commands/ViewOptions.h"
#include "Report/Views.h"
#include "Session/Failure.h"
#include "Session/SessionDirectory.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>

namespace qelix
{
namespace
{

struct ViewOptions
{
    std::string m_directory;
    std::string m_lock; // the one that is asked for
    FilterOptions m_filter;
    TableOptions m_table;
};

struct ViewForm
{
    const char* m_pName;
    const char* m_pHelp;
    Table (*m_view)(const SessionFacts& session);
};

Table WaitsView(const SessionFacts& session)
{
    return CallsView(session, {ZORV_TIME_LOCK, ZORV_TIME_CONDITION, ZORV_TIME_SLEEP, ZORV_TIME_WAIT});
}

Table IoView(const SessionFacts& session)
{
    return CallsView(session, {ZORV_TIME_IO});
}

constexpr const char* ZORV_LOCKS = "locks";

constexpr ViewForm g_views[] = {
    {"threads", "Where the time of each thread went", ThreadsView},
    {ZORV_LOCKS, "The locks that threads waited for; with NAME, who waited for that one", LocksView},
    {"waits", "Calls that waited, by thread and function", WaitsView},
    {"io", "Calls of input and output, by thread and function", IoView},
    {"blocked", "Calls that never returned, and threads that wait for each other in a circle", BlockedView},
};

bool IsSession(const std::string& word)
{
    std::error_code error;
    return std::filesystem::is_directory(TraceFolder(word), error);
}

// "DIR NAME", "DIR", or "NAME" of a lock in the newest session here.
void TellNameFromDirectory(ViewOptions* pOptions)
{
    const std::string& word = pOptions->m_directory;
    if (pOptions->m_lock.empty() && word.find('/') == std::string::npos && !IsSession(word))
    {
        pOptions->m_lock.swap(pOptions->m_directory);
    }
}

int View(const ViewForm& form, ViewOptions options)
{
    if (form.m_pName == ZORV_LOCKS)
    {
        TellNameFromDirectory(&options);
    }
    SessionView view;
    view.m_filter = FilterOf(options.m_filter);
    view.m_locksKept = SIZE_MAX;
    view.m_isWithoutSamples =
        form.m_view != ThreadsView; // names for stacks cost time, and no other view has any
    const SessionFacts session = ReadSessionFacts(SessionOr(options.m_directory), {}, view);
    PrintTable(options.m_lock.empty() ? form.m_view(session) : LockView(session, options.m_lock),
               options.m_table);
    return ToldStatusOf(session);
}

} // namespace

void AddViewCommands(CLI::App* pApp, int* pStatus)
{
    for (const ViewForm& form : g_views)
    {
        const auto pOptions = std::make_shared<ViewOptions>();
        CLI::App* pView = pApp->add_subcommand(form.m_pName, form.m_pHelp);
        pView->add_option("DIR", pOptions->m_directory, "Session directory (qelix-last)")->type_name("");
        if (form.m_pName == ZORV_LOCKS)
        {
            pView->add_option("NAME", pOptions->m_lock, "A lock's name, pattern (* and ?) or address")
                ->type_name("");
        }
        AddFilterOptions(pView, &pOptions->m_filter);
        AddTableOptions(pView, &pOptions->m_table);
        pView->callback([&form, pOptions, pStatus] { *pStatus = View(form, *pOptions); });
    }
}

} // namespace qelix
