// completion: what a shell needs to complete our command lines, from the same tree that reads them.
#include "Commands/CommandLine.h"
#include "Commands/Commands.h"

#include <CLI/CLI.hpp>
#include <fmt/ranges.h>
#include <memory>

namespace qelix
{
namespace
{

struct OptionWords
{
    std::vector<std::string> m_short; // without the dash
    std::vector<std::string> m_long;  // without the dashes
    std::string m_help;               // its first line
    bool m_hasValue;
};

std::string FirstLine(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& app)
{
    std::vector<const CLI::App*> commands;
    for (const CLI::App* pCommand : app.get_subcommands([](const CLI::App*) { return true; }))
    {
        if (!pCommand->get_group().empty())
        {
            commands.push_back(pCommand);
        }
    }
    return commands;
}

// Those that the help shows, and the help.
std::vector<OptionWords> OptionsOf(const CLI::App& command)
{
    std::vector<OptionWords> options;
    const auto shown = command.get_options(
        [](const CLI::Option* pOption) { return !pOption->get_group().empty() && !pOption->get_positional(); });
    for (const CLI::Option* pOption : shown)
    {
        options.push_back({pOption->get_snames(), pOption->get_lnames(), FirstLine(pOption->get_description()),
                           pOption->get_items_expected_max() > 0});
    }
    return options;
}

std::string Words(const CLI::App& command)
{
    std::vector<std::string> words;
    for (const OptionWords& option : OptionsOf(command))
    {
        for (const std::string& name : option.m_short)
        {
            words.push_back("-" + name);
        }
        for (const std::string& name : option.m_long)
        {
            words.push_back("--" + name);
        }
    }
    return fmt::format("{}", fmt::join(words, " "));
}

std::string CommandNames(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::App* pCommand : CommandsOf(app))
    {
        names.push_back(pCommand->get_name());
    }
    return fmt::format("{}", fmt::join(names, " "));
}

// Behind `run` and the like, and behind no command at all, a program's own completion may take over.
std::string BashText(const CLI::App& app)
{
    std::string text = fmt::format(R"(# Completion of qelix for bash: source <(qelix completion bash)
_qelix()
{{
    local word=${{COMP_WORDS[COMP_CWORD]}} options=
    if [ "$COMP_CWORD" -eq 1 ]; then
        COMPREPLY=($(compgen -W "{} {}" -- "$word") $(compgen -c -- "$word"))
        return
    fi
    case ${{COMP_WORDS[1]}} in
)",
                                   CommandNames(app), Words(app));
    for (const CLI::App* pCommand : CommandsOf(app))
    {
        text += fmt::format("    {}) options=\"{}\" ;;\n", pCommand->get_name(), Words(*pCommand));
    }
    return text + R"(    esac
    if [[ $word == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$word"))
    else
        COMPREPLY=($(compgen -f -- "$word"))
    fi
}
complete -o filenames -F _qelix qelix
)";
}

std::string ZshQuoted(const std::string& text)
{
    std::string quoted;
    for (const char c : text)
    {
        quoted += c == '\''                          ? "'\\''"
                  : c == ':' || c == '[' || c == ']' ? std::string{'\\', c}
                                                     : std::string(1, c);
    }
    return quoted;
}

std::string ZshOptions(const CLI::App& command)
{
    std::string text;
    for (const OptionWords& option : OptionsOf(command))
    {
        const auto add = [&](const std::string& word)
        {
            text += fmt::format(" \\\n            '{}[{}]{}'", word, ZshQuoted(option.m_help),
                                option.m_hasValue ? ":value:_files" : "");
        };
        for (const std::string& name : option.m_short)
        {
            add("-" + name);
        }
        for (const std::string& name : option.m_long)
        {
            add("--" + name);
        }
    }
    return text;
}

std::string ZshText(const CLI::App& app)
{
    std::string text =
        "#compdef qelix\n# Completion of qelix for zsh: qelix completion zsh > _qelix, in a folder of "
        "fpath\n_qelix()\n{\n    local -a commands=(\n";
    for (const CLI::App* pCommand : CommandsOf(app))
    {
        text += fmt::format("        '{}:{}'\n", pCommand->get_name(),
                            ZshQuoted(FirstLine(pCommand->get_description())));
    }
    text += "    )\n    if (( CURRENT == 2 )); then\n        _describe command commands\n        "
            "_command_names -e\n"
            "        return\n    fi\n    case $words[2] in\n";
    for (const CLI::App* pCommand : CommandsOf(app))
    {
        text += fmt::format(
            "    {})\n        shift words; (( CURRENT-- ))\n        _arguments{} \\\n            '{}'\n"
            "        ;;\n",
            pCommand->get_name(), ZshOptions(*pCommand),
            IsRunner(*pCommand) ? "*::program:_normal" : "*:file:_files");
    }
    return text + "    *) _files ;;\n    esac\n}\n"
                  "if [ \"$funcstack[1]\" = _qelix ]; then _qelix \"$@\"; else compdef _qelix qelix; fi\n";
}

std::string FishQuoted(const std::string& text)
{
    std::string quoted = "'";
    for (const char c : text)
    {
        quoted += c == '\'' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
    }
    return quoted + "'";
}

std::string FishText(const CLI::App& app)
{
    std::string text = "# Completion of qelix for fish: qelix completion fish | source\n";
    for (const CLI::App* pCommand : CommandsOf(app))
    {
        text += fmt::format("complete -c qelix -n __fish_use_subcommand -a {} -d {}\n", pCommand->get_name(),
                            FishQuoted(FirstLine(pCommand->get_description())));
        for (const OptionWords& option : OptionsOf(*pCommand))
        {
            text += fmt::format("complete -c qelix -n '__fish_seen_subcommand_from {}'", pCommand->get_name());
            for (const std::string& name : option.m_short)
            {
                text += " -s " + name;
            }
            for (const std::string& name : option.m_long)
            {
                text += " -l " + name;
            }
            text += fmt::format("{} -d {}\n", option.m_hasValue ? " -r" : "", FishQuoted(option.m_help));
        }
    }
    return text;
}

} // namespace

void AddCompletionCommand(CLI::App* pApp, int* pStatus)
{
    const auto pShell = std::make_shared<std::string>();
    CLI::App* pCompletion = pApp->add_subcommand("completion", "Print the completion of qelix for a shell");
    pCompletion->add_option("SHELL", *pShell, "bash, zsh or fish")
        ->required()
        ->type_name("")
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    pCompletion->callback(
        [pApp, pShell, pStatus]
        {
            PrintOut(*pShell == "bash" ? BashText(*pApp) : *pShell == "zsh" ? ZshText(*pApp) : FishText(*pApp));
            *pStatus = 0;
        });
}

} // namespace qelix
