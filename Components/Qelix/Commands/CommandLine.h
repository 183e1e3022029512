// What stands on the command line, taken apart before the options are read: the program and its arguments are
// not ours to read, and no "--" is needed in front of them.
#pragma once

#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace qelix
{

struct CommandLine
{
    std::vector<std::string> m_own; // the command, its options and their values
    std::vector<std::string>
        m_program;         // of `run` and `record`: the first word that is no option, and all behind
    bool m_isJson = false; // --errors=json, which stands in none of them
};

// Null when there is no such command.
const CLI::App* FindCommand(const CLI::App& app, const std::string& word);

// Do its own words end where a program's begin?
bool IsRunner(const CLI::App& command);

// A line without a command that names an executable, or begins with an option of `run`, is that of `run`.
CommandLine SplitCommandLine(const CLI::App& app, std::vector<std::string> arguments);

// Fails when the first word is neither a command nor a program.
void RequireCommand(const CLI::App& app, const CommandLine& line);

} // namespace qelix
