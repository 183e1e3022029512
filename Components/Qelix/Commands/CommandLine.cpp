#include "Commands/CommandLine.h"

#include "Session/Failure.h"
#include "Session/ProgramSearch.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

namespace qelix
{
namespace
{

constexpr const char* ZORV_BARE_COMMAND = "run";
constexpr std::string_view ZORV_ERROR_FORM = "--errors=";
constexpr const char* g_runners[] = {ZORV_BARE_COMMAND,
                                     "record"}; // whose own words end where the program begins

bool IsExecutable(const std::string& word)
{
    try
    {
        FindProgram(word);
        return true;
    }
    catch (const Failure&)
    {
        return false;
    }
}

// "./server", "server" on the PATH, "-F 100 ./server".
bool IsBareProgram(const CLI::App& app, const std::string& word)
{
    if (word.starts_with('-'))
    {
        return app.get_option_no_throw(word.substr(0, word.find('='))) == nullptr;
    }
    return FindCommand(app, word) == nullptr &&
           (word.find('/') != std::string::npos || (!word.empty() && IsExecutable(word)));
}

void InsertBareCommand(const CLI::App& app, std::vector<std::string>* pArguments)
{
    const auto isOurs = [](const std::string& word) { return word.starts_with(ZORV_ERROR_FORM); };
    const auto first = std::find_if_not(pArguments->begin(), pArguments->end(), isOurs);
    if (first != pArguments->end() && IsBareProgram(app, *first))
    {
        pArguments->insert(first, ZORV_BARE_COMMAND);
    }
}

// Does the word behind this one belong to it?
bool TakesNextWord(const CLI::App& command, const std::string& word)
{
    const bool isLong = word.starts_with("--");
    const std::string name = isLong ? word.substr(0, word.find('=')) : word.substr(0, 2);
    const CLI::Option* pOption = command.get_option_no_throw(name);
    return pOption != nullptr && pOption->get_items_expected_max() > 0 && name.size() == word.size();
}

// Of the first word that is the program's, or of the "--" in front of it.
std::size_t ProgramIndex(const CLI::App& command, const std::vector<std::string>& arguments, std::size_t begin)
{
    std::size_t i = begin;
    while (i < arguments.size() && arguments[i].size() > 1 && arguments[i].front() == '-' &&
           arguments[i] != "--")
    {
        i += TakesNextWord(command, arguments[i]) ? 2 : 1;
    }
    return std::min(i, arguments.size());
}

// Where the command's name stands; the arguments' size without one.
std::size_t CommandIndex(const CLI::App& app, const std::vector<std::string>& arguments)
{
    const auto found =
        std::find_if(arguments.begin(), arguments.end(),
                     [&](const std::string& word) { return !word.starts_with('-') || word.size() < 2; });
    return found != arguments.end() && FindCommand(app, *found) != nullptr
               ? static_cast<std::size_t>(found - arguments.begin())
               : arguments.size();
}

bool TakeErrorForm(std::vector<std::string>* pArguments)
{
    bool isJson = false;
    const auto isForm = [&isJson](const std::string& word)
    {
        if (!word.starts_with(ZORV_ERROR_FORM))
        {
            return false;
        }
        const std::string form = word.substr(ZORV_ERROR_FORM.size());
        isJson = form == "json";
        if (!isJson && form != "text")
        {
            throw Failure(ZORV_FAILURE_USAGE, "there is no form \"{}\" of errors; say --errors=text or json",
                          form);
        }
        return true;
    };
    std::erase_if(*pArguments, isForm);
    return isJson;
}

} // namespace

const CLI::App* FindCommand(const CLI::App& app, const std::string& word)
{
    const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
    const auto found = std::find_if(commands.begin(), commands.end(),
                                    [&](const CLI::App* pCommand) { return pCommand->check_name(word); });
    return found != commands.end() ? *found : nullptr;
}

// Letters to be changed, put in or left out to make one of the other.
std::size_t Distance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < a.size(); ++i)
    {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j)
        {
            const std::size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

// What a mistyped word was to be; empty when nothing is near.
std::string NearestCommand(const CLI::App& app, const std::string& word)
{
    std::size_t nearest = 3;
    std::string found;
    for (const CLI::App* pCommand : app.get_subcommands([](const CLI::App*) { return true; }))
    {
        const std::size_t distance = Distance(word, pCommand->get_name());
        if (distance < std::min(nearest, word.size()))
        {
            nearest = distance;
            found = pCommand->get_name();
        }
    }
    return found;
}

bool IsRunner(const CLI::App& command)
{
    return std::find(std::begin(g_runners), std::end(g_runners), command.get_name()) != std::end(g_runners);
}

CommandLine SplitCommandLine(const CLI::App& app, std::vector<std::string> arguments)
{
    InsertBareCommand(app, &arguments);
    CommandLine line;
    line.m_own = std::move(arguments);
    const std::size_t index = CommandIndex(app, line.m_own);
    const CLI::App* pCommand = index < line.m_own.size() ? FindCommand(app, line.m_own[index]) : nullptr;
    if (pCommand != nullptr && IsRunner(*pCommand))
    {
        const auto program =
            line.m_own.begin() + static_cast<std::ptrdiff_t>(ProgramIndex(*pCommand, line.m_own, index + 1));
        const bool hasMark = program != line.m_own.end() && *program == "--";
        line.m_program.assign(program + (hasMark ? 1 : 0), line.m_own.end());
        line.m_own.erase(program, line.m_own.end());
    }
    line.m_isJson = TakeErrorForm(&line.m_own);
    return line;
}

void RequireCommand(const CLI::App& app, const CommandLine& line)
{
    // The library would only say that a command is required.
    const bool isOption = !line.m_own.empty() && line.m_own.front().starts_with('-');
    if (isOption || CommandIndex(app, line.m_own) < line.m_own.size())
    {
        return;
    }
    if (line.m_own.empty())
    {
        throw Failure(ZORV_FAILURE_USAGE,
                      "a command or a program is missing; qelix PROGRAM ARGS runs a program and reports on it, "
                      "qelix --help lists the commands");
    }
    const std::string& word = line.m_own.front(); // most likely a program, as behind "run"
    const std::string near = NearestCommand(app, word);
    throw Failure(ZORV_FAILURE_NOT_FOUND,
                  "there is no command and no program \"{}\"; {}qelix --help lists the commands", word,
                  near.empty() ? "" : fmt::format("did you mean qelix {}? ", near))
        .At(word);
}

} // namespace qelix
