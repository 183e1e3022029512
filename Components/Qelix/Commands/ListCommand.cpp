#include "Commands/Commands.h"
#include "Commands/Pager.h"
#include "Reader/RecordNames.h"
#include "Report/Screen.h"
#include "Session/Failure.h"
#include "Session/SessionProcesses.h"
#include "Session/SessionSearch.h"
#include "Session/Sizes.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <fmt/chrono.h>
#include <fmt/ranges.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

constexpr uint64_t ZORV_NS_PER_SECOND = 1'000'000'000;
constexpr double ZORV_SECONDS_PER_DAY = 86400;
constexpr const char* ZORV_RANK_START = "rank=";

struct ListOptions
{
    std::string m_directory = ".";
    std::optional<double> m_removeOlderDays;
    bool m_isConfirmed = false;
    bool m_isJson = false;
};

struct ListedSession
{
    SessionTarget m_target;
    SessionState m_state;
    time_t m_start;
    uint64_t m_bytes;
};

// Those of an earlier qelix did not note it.
time_t StartOf(const SessionTarget& session)
{
    if (session.m_record.m_start)
    {
        return static_cast<time_t>(session.m_record.m_start->m_realtimeNs / ZORV_NS_PER_SECOND);
    }
    struct stat status = {};
    stat(session.m_path.c_str(), &status);
    return status.st_mtime;
}

void TakeSessions(const std::string& folder, bool isJob, std::vector<ListedSession>* pSessions)
{
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    {
        std::error_code ignored;
        const std::string name = entry->path().filename();
        // A link names a session that stands elsewhere in the list.
        if (entry->is_symlink(ignored) || !entry->is_directory(ignored) ||
            (isJob && !name.starts_with(ZORV_RANK_START)))
        {
            continue;
        }
        if (IsSession(entry->path()))
        {
            SessionTarget session = SessionAt(entry->path());
            const SessionState state = StateOf(session);
            const time_t start = StartOf(session);
            const uint64_t bytes = SessionSize(session.m_path);
            pSessions->push_back({std::move(session), state, start, bytes});
        }
        else if (!isJob)
        {
            TakeSessions(entry->path(), true, pSessions);
        }
    }
}

std::string ProgramOf(const SessionTarget& session)
{
    return session.m_record.m_command.empty()
               ? "-"
               : PrintableText(fmt::format("{}", fmt::join(session.m_record.m_command, " ")));
}

std::string ListText(const std::vector<ListedSession>& sessions, const std::string& folder)
{
    constexpr std::size_t longest = 40;
    std::string text;
    for (const ListedSession& session : sessions)
    {
        tm local = {};
        localtime_r(&session.m_start, &local);
        text += fmt::format("{:%Y-%m-%d %H:%M:%S}  {:>10}  {}  {}: {}\n", local, SizeText(session.m_bytes),
                            fs::relative(session.m_target.m_path, folder).string(),
                            CutTo(ProgramOf(session.m_target), longest),
                            StateText(session.m_target, session.m_state));
    }
    return text;
}

std::string ListJson(const std::vector<ListedSession>& sessions)
{
    using Json = nlohmann::ordered_json;
    Json json = Json::array();
    for (const ListedSession& session : sessions)
    {
        Json entry = {{"session", session.m_target.m_path}, {"start", session.m_start}};
        entry["command"] = session.m_target.m_record.m_command;
        entry["state"] = StateText(session.m_target, session.m_state);
        entry["bytes"] = session.m_bytes;
        json.push_back(std::move(entry));
    }
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

// One that may still be written to is nobody's to remove.
bool IsOver(const ListedSession& session)
{
    return session.m_state == ZORV_SESSION_ENDED || session.m_state == ZORV_SESSION_ABANDONED;
}

// What pointed to the newest session that is gone.
void RemoveEmptyLink(const std::string& folder)
{
    const fs::path link = fs::path(folder) / "qelix-last";
    std::error_code error;
    if (fs::is_symlink(link, error) && !fs::exists(link, error))
    {
        fs::remove(link, error);
    }
}

int RemoveOld(std::vector<ListedSession> sessions, const ListOptions& options)
{
    const double newest =
        static_cast<double>(time(nullptr)) - *options.m_removeOlderDays * ZORV_SECONDS_PER_DAY;
    std::erase_if(sessions, [&](const ListedSession& session)
                  { return !IsOver(session) || static_cast<double>(session.m_start) > newest; });
    PrintOut(ListText(sessions, options.m_directory));
    if (!options.m_isConfirmed)
    {
        PrintNote(fmt::format("{} would be removed; add --yes to do it", sessions.size()));
        return 0;
    }
    std::size_t removed = 0;
    for (const ListedSession& session : sessions)
    {
        const bool isRemoved = RemoveSession(session.m_target);
        removed += isRemoved ? 1 : 0;
        if (!isRemoved)
        {
            PrintNote(
                fmt::format("{} holds files that qelix has not made, or cannot be changed: what is left of it "
                            "stays",
                            session.m_target.m_path));
        }
    }
    RemoveEmptyLink(options.m_directory);
    PrintNote(fmt::format("{} removed", removed));
    return removed == sessions.size() ? 0 : ZORV_STATUS_OWN_FAILURE;
}

int List(const ListOptions& options)
{
    std::error_code error;
    if (!fs::is_directory(options.m_directory, error))
    {
        throw Failure(ZORV_FAILURE_NO_SESSION, "{} is no directory; name one that holds sessions",
                      options.m_directory)
            .At(options.m_directory);
    }
    std::vector<ListedSession> sessions;
    TakeSessions(options.m_directory, false, &sessions);
    std::sort(sessions.begin(), sessions.end(),
              [](const ListedSession& a, const ListedSession& b)
              { return std::tie(a.m_start, a.m_target.m_path) < std::tie(b.m_start, b.m_target.m_path); });
    if (options.m_removeOlderDays)
    {
        return RemoveOld(std::move(sessions), options);
    }
    if (sessions.empty() && !options.m_isJson)
    {
        PrintNote(fmt::format("no session in {}; qelix run PROGRAM makes one", options.m_directory));
        return 0;
    }
    PrintPaged(options.m_isJson ? ListJson(sessions) : ListText(sessions, options.m_directory));
    return 0;
}

} // namespace

void AddListCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<ListOptions>();
    CLI::App* pList =
        pApp->add_subcommand("list", "List the sessions in a directory, oldest first, or remove old ones");
    pList->add_option("DIR", pOptions->m_directory, "Where the sessions are (default: here)")->type_name("");
    pList
        ->add_option(
            "--remove-older", pOptions->m_removeOlderDays,
            "List only those that have ended and began more than so many days ago; with --yes remove them")
        ->type_name("DAYS")
        ->check(CLI::NonNegativeNumber);
    pList->add_flag("--yes", pOptions->m_isConfirmed, "Remove what --remove-older lists");
    pList->add_flag("--json", pOptions->m_isJson, "The same facts as a JSON array");
    pList->callback([pOptions, pStatus] { *pStatus = List(*pOptions); });
}

} // namespace qelix
