// help, version.
#include "Commands/CommandLine.h"
#include "Commands/Commands.h"
#include "Session/Failure.h"
#include "Session/ProgramSearch.h"
#include "Symbols/BuildIds.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace qelix
{
namespace
{

std::string HelpOf(CLI::App* pApp, const std::string& command)
{
    if (command.empty())
    {
        // Its own help() would be that of the command which is at work.
        return pApp->get_formatter()->make_help(pApp, pApp->get_name(), CLI::AppFormatMode::Normal);
    }
    const CLI::App* pCommand = FindCommand(*pApp, command);
    if (pCommand == nullptr)
    {
        throw Failure(ZORV_FAILURE_USAGE, "there is no command \"{}\"; see qelix --help", command);
    }
    return pCommand->help("qelix");
}

std::string VersionText()
{
    std::string text = "qelix " QELIX_VERSION "\n";
    try
    {
        const std::string agent = FindAgent();
        text += fmt::format("agent {} (build-id {})\n", agent, BuildIdOf(agent));
    }
    catch (const Failure& failure)
    {
        text += fmt::format("agent missing: {}\n", failure.what());
    }
    return text;
}

} // namespace

void AddHelpCommands(CLI::App* pApp, int* pStatus)
{
    const auto pCommandName = std::make_shared<std::string>();
    CLI::App* pHelp = pApp->add_subcommand("help", "Print the help of a command, or this");
    pHelp->add_option("COMMAND", *pCommandName)->type_name("");
    pHelp->callback(
        [pApp, pCommandName, pStatus]
        {
            PrintOut(HelpOf(pApp, *pCommandName));
            *pStatus = 0;
        });
    CLI::App* pVersion = pApp->add_subcommand("version", "Print the versions of qelix and its agent");
    pVersion->callback(
        [pStatus]
        {
            PrintOut(VersionText());
            *pStatus = 0;
        });
}

} // namespace qelix
