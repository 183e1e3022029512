// pause, resume, stop: steer a session while it runs. status: what it is doing.
#include "Commands/Commands.h"
#include "Reader/RecordNames.h"
#include "Session/AgentReports.h"
#include "Session/ControlBlock.h"
#include "Session/Failure.h"
#include "Session/SessionProcesses.h"
#include "Session/SessionSearch.h"
#include "Session/Sizes.h"
#include "Session/Terminal.h"

#include <CLI/CLI.hpp>
#include <fmt/ranges.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr uint64_t ZORV_NS_PER_SECOND = 1'000'000'000;

struct TargetOptions
{
    std::string m_directory;
    std::optional<pid_t> m_pid;
    bool m_isWatched = false;
    bool m_isJson = false;
};

void AddTargetOptions(CLI::App* pCommand, TargetOptions* pOptions)
{
    CLI::Option* pDirectory = pCommand
                                  ->add_option("DIR", pOptions->m_directory,
                                               "Session directory (default: the newest one here, qelix-last)")
                                  ->type_name("");
    pCommand->add_option("-p,--process", pOptions->m_pid, "The session that this process belongs to")
        ->type_name("PID")
        ->excludes(pDirectory);
}

struct SteerVerb
{
    const char* m_pName;
    const char* m_pHelp;
    CollectionState (*m_act)(const std::string& blockName);
    CollectionState m_done; // what is so afterwards
    const char* m_pDone;
    const char* m_pDoneBefore;
};

constexpr SteerVerb g_verbs[] = {
    {"pause", "Pause the recording of a running session; its program runs on", PauseCollection,
     ZORV_COLLECTION_PAUSED, "paused", "is paused already"},
    {"resume", "Go on with a paused recording", ResumeCollection, ZORV_COLLECTION_RUNNING, "resumed",
     "is not paused"},
    {"stop", "Stop the recording of a running session for good and write its files; its program runs on",
     StopCollection, ZORV_COLLECTION_STOPPED, "stopped", "is stopped already"},
};

CollectionState Act(const SteerVerb& verb, const SessionTarget& session)
{
    try
    {
        return verb.m_act(session.m_blockName);
    }
    catch (Failure& failure)
    {
        failure.m_path = session.m_path;
        throw;
    }
}

int Steer(const SteerVerb& verb, const TargetOptions& options)
{
    const SessionTarget session = FindSession(options.m_directory, options.m_pid);
    const CollectionState before = Act(verb, session);
    if (before == ZORV_COLLECTION_STOPPED && verb.m_done != ZORV_COLLECTION_STOPPED)
    {
        throw Failure(ZORV_FAILURE_NOT_RUNNING,
                      "the recording of {} has been stopped, for good; start the program anew to record it",
                      session.m_path)
            .At(session.m_path);
    }
    PrintOut(before == verb.m_done ? fmt::format("{} {}\n", session.m_path, verb.m_pDoneBefore)
                                   : fmt::format("{} {}\n", verb.m_pDone, session.m_path));
    return 0;
}

bool IsOver(SessionState state)
{
    return state == ZORV_SESSION_ENDED || state == ZORV_SESSION_ABANDONED;
}

// How long it has been going on, or went on.
std::optional<uint64_t> SecondsOf(const SessionTarget& session, SessionState state)
{
    const SessionRecord& record = session.m_record;
    const std::optional<ClockPair> end = IsOver(state) ? record.m_end : std::optional(ReadClocks());
    return record.m_start && end && end->m_monotonicNs >= record.m_start->m_monotonicNs
               ? std::optional((end->m_monotonicNs - record.m_start->m_monotonicNs) / ZORV_NS_PER_SECOND)
               : std::nullopt;
}

std::string StatusLine(const SessionTarget& session, SessionState state)
{
    const SessionProgress progress = ReadProgress(session.m_path, session.m_blockName);
    const auto seconds = SecondsOf(session, state);
    return fmt::format("{}{}, {}", StateText(session, state), seconds ? fmt::format(", {} s", *seconds) : "",
                       ProgressText(progress, IsOver(state)));
}

std::string StatusText(const SessionTarget& session, SessionState state)
{
    std::string text = fmt::format("session  {}\n", session.m_path);
    if (!session.m_record.m_command.empty())
    {
        text += "program  " + PrintableText(fmt::format("{}", fmt::join(session.m_record.m_command, " ")));
        text += session.m_record.m_programPid > 0
                    ? fmt::format(" (process {})\n", session.m_record.m_programPid)
                    : "\n";
    }
    text += fmt::format("state    {}\n", StatusLine(session, state));
    if (session.m_record.m_isBudgetReached)
    {
        text += fmt::format("budget   {} was reached\n", SizeText(session.m_record.m_budgetBytes.value_or(0)));
    }
    for (const AgentError& error : ReadAgentErrors(session.m_path))
    {
        text += fmt::format("error    {}\n", ExplainAgentError(error));
    }
    return text;
}

std::string StatusJson(const SessionTarget& session, SessionState state)
{
    using Json = nlohmann::ordered_json;
    constexpr const char* states[] = {"running", "paused", "stopped", "waiting", "ended", "abandoned"};
    const SessionProgress progress = ReadProgress(session.m_path, session.m_blockName);
    const auto seconds = SecondsOf(session, state);
    Json json = {{"session", session.m_path}, {"command", session.m_record.m_command}};
    json["pid"] = session.m_record.m_programPid;
    json["state"] = states[state];
    json["seconds"] = seconds ? Json(*seconds) : Json(nullptr);
    json["processes"] = progress.m_processes;
    json["liveProcesses"] = progress.m_liveProcesses;
    json["threads"] = progress.m_threads;
    json["records"] = progress.m_records;
    json["bytes"] = progress.m_bytes;
    json["lost"] = progress.m_lost;
    json["errors"] = Json::array();
    for (const AgentError& error : ReadAgentErrors(session.m_path))
    {
        json["errors"].push_back(ExplainAgentError(error));
    }
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

int Watch(const SessionTarget& found, const TargetOptions& options)
{
    const bool isTerminal = isatty(STDOUT_FILENO) == 1 && !options.m_isJson;
    for (;;)
    {
        const SessionTarget session = SessionAt(found.m_path);
        const SessionState state = StateOf(session);
        const bool isLast = IsOver(state);
        if (isTerminal)
        {
            const std::string line = StatusLine(session, state);
            PrintOut("\r\x1b[K" + (isLast ? line + "\n" : OneLineOn(STDOUT_FILENO, line)));
        }
        else
        {
            PrintOut(options.m_isJson ? StatusJson(session, state) : StatusLine(session, state) + "\n");
        }
        fflush(stdout);
        if (isLast)
        {
            return 0;
        }
        sleep(1);
    }
}

int Status(const TargetOptions& options)
{
    const SessionTarget session = FindSession(options.m_directory, options.m_pid);
    if (options.m_isWatched)
    {
        return Watch(session, options);
    }
    const SessionState state = StateOf(session);
    PrintOut(options.m_isJson ? StatusJson(session, state) : StatusText(session, state));
    return 0;
}

} // namespace

void AddSteerCommands(CLI::App* pApp, int* pStatus)
{
    const auto pStatusOptions = std::make_shared<TargetOptions>();
    CLI::App* pStatusCommand =
        pApp->add_subcommand("status", "Say what a session is doing and how much it has recorded");
    AddTargetOptions(pStatusCommand, pStatusOptions.get());
    pStatusCommand->add_flag("--watch", pStatusOptions->m_isWatched,
                             "Say it each second until the session has ended");
    pStatusCommand->add_flag("--json", pStatusOptions->m_isJson, "The same facts as one JSON object");
    pStatusCommand->callback([pStatusOptions, pStatus] { *pStatus = Status(*pStatusOptions); });
    for (const SteerVerb& verb : g_verbs)
    {
        const auto pOptions = std::make_shared<TargetOptions>();
        CLI::App* pCommand = pApp->add_subcommand(verb.m_pName, verb.m_pHelp);
        AddTargetOptions(pCommand, pOptions.get());
        pCommand->callback([&verb, pOptions, pStatus] { *pStatus = Steer(verb, *pOptions); });
    }
}

} // namespace qelix
