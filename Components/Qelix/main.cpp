// qelix: runs a program under the agent and reads what the agent wrote.
#include "Commands/CommandLine.h"
#include "Commands/Commands.h"
#include "Commands/HelpLayout.h"
#include "Reader/Damage.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <unistd.h>
#include <vector>

namespace qelix
{
namespace
{

bool g_areFailuresJson = false;

void PrintFullOutput()
{
    PrintFailure(Failure(ZORV_FAILURE_CANNOT_WRITE,
                         "standard output cannot be written; name another place for it, or make room"));
}

} // namespace

void PrintOut(const std::string& text)
{
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size())
    {
        PrintFullOutput(); // the disk is full: what follows could not be written either
        _exit(ZORV_STATUS_OWN_FAILURE);
    }
}

void PrintNote(const std::string& text)
{
    fprintf(stderr, "qelix: %s\n", text.c_str());
}

void PrintFailure(const std::exception& failure)
{
    const auto* pOurs = dynamic_cast<const Failure*>(&failure);
    if (g_areFailuresJson)
    {
        const Failure other(ZORV_FAILURE_OTHER, "{}", failure.what());
        fprintf(stderr, "%s\n", FailureJson(pOurs != nullptr ? *pOurs : other).c_str());
    }
    else
    {
        PrintNote(failure.what());
    }
}

void PrintDamage(const Damage& damage)
{
    PrintFailure(Failure(ZORV_FAILURE_DAMAGED, "{}", DamageMessage(damage)).At(damage.m_path));
}

namespace
{

struct CommandGroup
{
    const char* m_pName;
    std::vector<const char*> m_commands;
};

// The first screen shows the commands by what they are for; one that stands in no group is one that reads.
void GroupCommands(CLI::App* pApp)
{
    const CommandGroup groups[] = {
        {"Record", {"run", "record", "env"}},
        {"Steer what is running", {"status", "pause", "resume", "stop"}},
        {"Look after it", {"check", "list", "symbols", "completion", "help", "version"}},
    };
    for (CLI::App* pCommand : pApp->get_subcommands([](const CLI::App*) { return true; }))
    {
        pCommand->group("Read");
        for (const CommandGroup& group : groups)
        {
            const bool isHere = std::find(group.m_commands.begin(), group.m_commands.end(),
                                          pCommand->get_name()) != group.m_commands.end();
            if (isHere)
            {
                pCommand->group(group.m_pName);
            }
        }
    }
}

void AddCommands(CLI::App* pApp, const std::vector<std::string>* pProgram, int* pStatus)
{
    pApp->formatter(HelpLayout()); // before the commands, which take it over
    pApp->require_subcommand(1);
    pApp->set_version_flag("--version", "qelix " QELIX_VERSION);
    pApp->add_option("--errors",
                     "How failures are told: text, or json (one line with code, status, message, hint, path)")
        ->type_name("=FORM");
    AddRunCommand(pApp, pProgram, pStatus);
    AddRecordCommand(pApp, pProgram, pStatus);
    AddSteerCommands(pApp, pStatus);
    AddDumpCommand(pApp, pStatus);
    AddReportCommand(pApp, pStatus);
    AddViewCommands(pApp, pStatus);
    AddCpuCommand(pApp, pStatus);
    AddSymbolsCommand(pApp, pStatus);
    AddExportCommand(pApp, pStatus);
    AddPageCommands(pApp, pStatus);
    AddCompareCommands(pApp, pStatus);
    AddCheckCommand(pApp, pStatus);
    AddEnvCommand(pApp, pStatus);
    AddListCommand(pApp, pStatus);
    AddCompletionCommand(pApp, pStatus);
    AddHelpCommands(pApp, pStatus);
    GroupCommands(pApp);
    pApp->footer("Begin with:\n    qelix ./server --port 0    what a program waits for and what it computes\n"
                 "    qelix report               the newest session here once more\n"
                 "    qelix help COMMAND         the options of a command; man qelix says more");
}

int Execute(std::vector<std::string> arguments)
{
    int status = 0;
    CommandLine line;
    CLI::App app("Where do the threads of a program wait, and where do they burn CPU?", "qelix");
    AddCommands(&app, &line.m_program, &status);
    line = SplitCommandLine(app, std::move(arguments));
    g_areFailuresJson = line.m_isJson;
    RequireCommand(app, line);
    std::reverse(line.m_own.begin(), line.m_own.end()); // CLI11 takes them from the back
    try
    {
        app.parse(std::move(line.m_own));
    }
    catch (const CLI::ParseError& error)
    {
        if (error.get_exit_code() == 0) // --help, --version
        {
            return app.exit(error);
        }
        const auto parsed = app.get_subcommands();
        throw Failure(ZORV_FAILURE_USAGE, "{}; see qelix {}--help", error.what(),
                      parsed.empty() ? "" : parsed.front()->get_name() + ' ');
    }
    return status;
}

int Main(std::vector<std::string> arguments)
{
    try
    {
        return Execute(std::move(arguments));
    }
    catch (const Failure& failure)
    {
        PrintFailure(failure);
        return StatusOf(failure.m_code);
    }
    catch (const std::exception& failure)
    {
        PrintFailure(failure);
        return ZORV_STATUS_OWN_FAILURE;
    }
}

} // namespace
} // namespace qelix

int main(int argc, char** argv)
{
    int status = qelix::Main({argv + std::min(argc, 1), argv + argc});
    // A full disk shows when the last bytes leave.
    if (fflush(stdout) != 0 && status == 0)
    {
        qelix::PrintFullOutput();
        status = qelix::ZORV_STATUS_OWN_FAILURE;
    }
    return status;
}
