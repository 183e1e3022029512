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
    std::vector<std::string> m_words; // a directory, and what the view is asked for
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
std::string TakeDirectory(std::vector<std::string>* pWords, bool hasName)
{
    if (pWords->empty() || (hasName && pWords->size() == 1 && !IsSession(pWords->front())))
    {
        return SessionOr("");
    }
    std::string directory = pWords->front();
    pWords->erase(pWords->begin());
    return directory;
}

int View(const ViewForm& form, ViewOptions options)
{
    const bool hasName = form.m_pName == ZORV_LOCKS;
    const std::string directory = TakeDirectory(&options.m_words, hasName);
    SessionView view;
    view.m_filter = FilterOf(options.m_filter);
    view.m_locksKept = SIZE_MAX;
    view.m_isWithoutSamples =
        form.m_view != ThreadsView; // names for stacks cost time, and no other view has any
    const SessionFacts session = ReadSessionFacts(directory, {}, view);
    PrintTable(options.m_words.empty() ? form.m_view(session) : LockView(session, options.m_words.front()),
               options.m_table);
    return IsDamaged(session) ? ZORV_STATUS_DAMAGED : 0;
}

} // namespace

void AddViewCommands(CLI::App* pApp, int* pStatus)
{
    for (const ViewForm& form : g_views)
    {
        const auto pOptions = std::make_shared<ViewOptions>();
        CLI::App* pView = pApp->add_subcommand(form.m_pName, form.m_pHelp);
        const bool hasName = form.m_pName == ZORV_LOCKS;
        pView
            ->add_option("DIR", pOptions->m_words,
                         hasName ? "Session directory (qelix-last), and a lock's name, pattern or address"
                                 : "Session directory (qelix-last)")
            ->expected(0, hasName ? 2 : 1)
            ->type_name("");
        AddFilterOptions(pView, &pOptions->m_filter);
        AddTableOptions(pView, &pOptions->m_table);
        pView->callback([&form, pOptions, pStatus] { *pStatus = View(form, *pOptions); });
    }
}

} // namespace qelix
