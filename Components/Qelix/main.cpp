// qelix: runs a program under the agent and reads what the agent wrote.
#include "Commands/Commands.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <unistd.h>

namespace qelix
{

void PrintOut(const std::string& text)
{
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size())
    {
        PrintNote("standard output cannot be written"); // the disk is full: what follows could not be either
        _exit(ZORV_STATUS_OWN_FAILURE);
    }
}

void PrintNote(const std::string& text)
{
    fprintf(stderr, "qelix: %s\n", text.c_str());
}

namespace
{

// Splits at the first "--" of `run`: the mark and what stands behind it.
std::vector<std::string> TakeBehindMark(std::vector<std::string>* pArguments)
{
    const auto mark = std::find(pArguments->begin(), pArguments->end(), "--");
    if (pArguments->empty() || pArguments->front() != "run" || mark == pArguments->end())
    {
        return {};
    }
    std::vector<std::string> behind(mark, pArguments->end());
    pArguments->erase(mark, pArguments->end());
    return behind;
}

// The library would only say that a command is required.
void RequireCommand(const CLI::App& app, const std::vector<std::string>& arguments)
{
    const std::string first = arguments.empty() ? "" : arguments.front();
    const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
    const bool isKnown = std::any_of(commands.begin(), commands.end(),
                                     [&](const CLI::App* pCommand) { return pCommand->check_name(first); });
    if (!first.starts_with('-') && !isKnown)
    {
        std::vector<std::string> names;
        for (const CLI::App* pCommand : commands)
        {
            names.push_back(pCommand->get_name());
        }
        throw Failure(ZORV_STATUS_OWN_FAILURE, "{}; the commands are {}: see qelix --help",
                      first.empty() ? "a command is missing" : fmt::format("there is no command \"{}\"", first),
                      fmt::join(names, ", "));
    }
}

int Main(std::vector<std::string> arguments)
{
    int status = 0;
    const std::vector<std::string> behindMark = TakeBehindMark(&arguments);
    CLI::App app("Where do the threads of a program wait, and where do they burn CPU?", "qelix");
    app.require_subcommand(1);
    app.set_version_flag("--version", "qelix " QELIX_VERSION);
    AddRunCommand(&app, &behindMark, &status);
    AddDumpCommand(&app, &status);
    AddReportCommand(&app, &status);
    AddViewCommands(&app, &status);
    AddExportCommand(&app, &status);
    RequireCommand(app, arguments);
    std::reverse(arguments.begin(), arguments.end()); // CLI11 takes them from the back
    try
    {
        app.parse(std::move(arguments));
    }
    catch (const CLI::ParseError& error)
    {
        if (error.get_exit_code() == 0) // --help, --version
        {
            return app.exit(error);
        }
        throw Failure(ZORV_STATUS_OWN_FAILURE, "{}; see qelix --help, or --help behind a command",
                      error.what());
    }
    return status;
}

} // namespace
} // namespace qelix

int main(int argc, char** argv)
{
    int status = qelix::ZORV_STATUS_OWN_FAILURE;
    try
    {
        status = qelix::Main({argv + std::min(argc, 1), argv + argc});
    }
    catch (const qelix::Failure& failure)
    {
        qelix::PrintNote(failure.what());
        status = failure.m_status;
    }
    catch (const std::exception& failure)
    {
        qelix::PrintNote(failure.what());
    }
    // A full disk shows when the last bytes leave.
    if (fflush(stdout) != 0 && status == 0)
    {
        qelix::PrintNote("standard output cannot be written");
        status = qelix::ZORV_STATUS_OWN_FAILURE;
    }
    return status;
}
