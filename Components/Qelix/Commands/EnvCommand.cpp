// env: a session for a program that something else starts, and the variables that take it there.
#include "Commands/Commands.h"
#include "Commands/RunOptions.h"
#include "Commands/RunPlan.h"
#include "Session/ControlBlock.h"
#include "Session/Failure.h"
#include "Session/ProgramRun.h"
#include "Session/SessionDirectory.h"
#include "Session/SessionRecord.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <pwd.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

struct EnvOptions
{
    RunOptions m_run;
    std::string m_name = "env"; // of what will be recorded, for the session's own name
    std::string m_user;         // who will run the program
    bool m_isSystemd = false;
    bool m_isContainer = false;
};

struct EnvSession
{
    std::string m_agent;
    std::string m_path;
    std::string m_blockName;
    std::vector<std::string> m_variables; // "NAME=VALUE"
};

// In single quotes a shell reads nothing but the quote itself.
std::string ShellQuoted(const std::string& text)
{
    std::string quoted = "'";
    for (const char c : text)
    {
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return quoted + "'";
}

std::string SystemdQuoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text)
    {
        quoted += c == '"' || c == '\\' ? std::string{'\\', c} : c == '%' ? "%%" : std::string(1, c);
    }
    return quoted + "\"";
}

std::string ShellText(const EnvSession& session)
{
    std::string text;
    for (const std::string& variable : session.m_variables)
    {
        const std::size_t equals = variable.find('=');
        text +=
            fmt::format("export {}={}\n", variable.substr(0, equals), ShellQuoted(variable.substr(equals + 1)));
    }
    return text;
}

std::string SystemdText(const EnvSession& session)
{
    std::string text = "# A drop-in for the service: systemctl edit NAME, then restart it.\n[Service]\n";
    for (const std::string& variable : session.m_variables)
    {
        text += fmt::format("Environment={}\n", SystemdQuoted(variable));
    }
    // A service that may not write elsewhere writes there.
    return text +
           fmt::format("ReadWritePaths={} /dev/shm{}\n", SystemdQuoted(session.m_path), session.m_blockName);
}

// Options of `docker run` and `podman run`: the variables, and what they name, at the same places inside.
std::string ContainerText(const EnvSession& session)
{
    const std::string block = "/dev/shm" + session.m_blockName;
    std::string text;
    for (const std::string& variable : session.m_variables)
    {
        text += fmt::format("-e {} ", ShellQuoted(variable));
    }
    return text +
           fmt::format("-v {} -v {} -v {}\n", ShellQuoted(session.m_agent + ":" + session.m_agent + ":ro"),
                       ShellQuoted(session.m_path + ":" + session.m_path), ShellQuoted(block + ":" + block));
}

[[noreturn]] void ThrowCannotGive(const std::string& what, const std::string& user, int error)
{
    throw Failure(ZORV_FAILURE_CANNOT_START, "cannot give {} to the user {}: {}; run qelix env as root", what,
                  user, strerror(error))
        .At(what);
}

// Of whoever runs the program: it writes the files and maps the block.
void GiveToUser(const EnvSession& session, const std::string& user)
{
    const passwd* pEntry = getpwnam(user.c_str());
    if (pEntry == nullptr)
    {
        throw Failure(ZORV_FAILURE_USAGE, "--user {}: there is no such user; check the name", user);
    }
    std::vector<std::string> paths = {session.m_path, "/dev/shm" + session.m_blockName};
    for (const fs::directory_entry& entry : fs::directory_iterator(session.m_path))
    {
        paths.push_back(entry.path());
    }
    for (const std::string& path : paths)
    {
        if (lchown(path.c_str(), pEntry->pw_uid, pEntry->pw_gid) != 0)
        {
            ThrowCannotGive(path, user, errno);
        }
    }
}

// Only what the program is to have; the rest of the environment is that of whatever starts it.
std::vector<std::string> OurVariables(const EnvSession& session)
{
    std::vector<std::string> variables;
    for (const std::string& entry : ProgramEnvironment(session.m_agent, session.m_path))
    {
        if (entry.starts_with("LD_PRELOAD=") || entry.starts_with("QELIX_SESSION_DIR=") ||
            entry.starts_with("QELIX_UMA_CONFIG_FILE="))
        {
            variables.push_back(entry);
        }
    }
    return variables;
}

void FillSession(const EnvOptions& options, const RunPlan& plan, const SessionDirectory& directory,
                 EnvSession* pSession)
{
    ControlBlock block;
    pSession->m_blockName = block.m_name;
    // There is no launcher that an agent could kill.
    WriteConfiguration({directory.m_configPath, plan.m_agent, block.m_name, 0, plan.m_thresholds,
                        options.m_run.m_profileChildren, plan.m_sampling, plan.m_rank});
    SessionRecord record = RecordOf(options.m_run, plan);
    record.m_blockName = block.m_name;
    record.m_start = ReadClocks();
    if (!WriteSessionRecord(directory.m_path, record))
    {
        throw Failure(ZORV_FAILURE_CANNOT_WRITE,
                      "cannot write {}; make room or choose another directory with -o DIR",
                      RecordFilePath(directory.m_path))
            .At(RecordFilePath(directory.m_path));
    }
    if (!options.m_user.empty())
    {
        GiveToUser(*pSession, options.m_user);
    }
    block.m_isLeft = true; // to the processes that will come
}

int Env(const EnvOptions& options)
{
    const RunPlan plan = PlanRecording(options.m_run);
    const SessionDirectory directory = MakeDirectoryFor(options.m_run, plan, options.m_name);
    EnvSession session{plan.m_agent, directory.m_path, "", {}};
    try
    {
        FillSession(options, plan, directory, &session);
    }
    catch (...)
    {
        RemoveSessionDirectory(directory);
        throw;
    }
    LinkNewest(directory);
    session.m_variables = OurVariables(session);
    PrintOut(options.m_isSystemd     ? SystemdText(session)
             : options.m_isContainer ? ContainerText(session)
                                     : ShellText(session));
    PrintNote(fmt::format("the session is {}; qelix status, pause and stop steer it, qelix report reads it",
                          session.m_path));
    return 0;
}

} // namespace

void AddEnvCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<EnvOptions>();
    CLI::App* pEnv = pApp->add_subcommand(
        "env", "Make a session and print the variables for a program that something else starts");
    AddRecordingOptions(pEnv, &pOptions->m_run);
    CLI::Option* pSystemd =
        pEnv->add_flag("--systemd", pOptions->m_isSystemd, "As a drop-in for a service of systemd");
    pEnv->add_flag("--container", pOptions->m_isContainer, "As options of docker run or podman run")
        ->excludes(pSystemd);
    pEnv->add_option("--user", pOptions->m_user, "Who will run the program, when it is somebody else (as root)")
        ->type_name("NAME");
    pEnv->add_option("NAME", pOptions->m_name, "What the session is named after")->type_name("");
    pEnv->footer("For a shell: eval \"$(qelix env)\"; every program that it starts from then on\n"
                 "is recorded. qelix stop ends the recording.");
    pEnv->callback([pOptions, pStatus] { *pStatus = Env(*pOptions); });
}

} // namespace qelix
