#include "Commands/HelpLayout.h"

#include "Commands/CommandLine.h"

#include <CLI/CLI.hpp>
#include <sstream>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_COLUMNS = 80;
constexpr std::size_t ZORV_NAME_COLUMNS = 28;

// Into lines of so many columns at most, where words allow.
std::string Wrapped(const std::string& text, std::size_t columns)
{
    std::string wrapped;
    std::istringstream words(text);
    std::size_t used = 0;
    for (std::string word; words >> word;)
    {
        const bool fits = used + 1 + word.size() <= columns;
        wrapped += used == 0 ? "" : fits ? " " : "\n";
        used = used != 0 && fits ? used + 1 + word.size() : word.size();
        wrapped += word;
    }
    return wrapped;
}

struct Layout : CLI::Formatter
{
    Layout()
    {
        column_width(ZORV_NAME_COLUMNS);
        label("SUBCOMMAND", "COMMAND");
    }

    std::string make_option_desc(const CLI::Option* pOption) const override
    {
        return Wrapped(CLI::Formatter::make_option_desc(pOption), ZORV_COLUMNS - ZORV_NAME_COLUMNS);
    }

    // The form of the value alone: what excludes what is told by whoever tries.
    std::string make_option_opts(const CLI::Option* pOption) const override
    {
        const std::string type = pOption->get_type_name();
        const std::string form = type.substr(0, type.find(':'));
        return form.empty() ? "" : (form.front() == '=' ? "" : " ") + form;
    }

    std::string make_usage(const CLI::App* pApp, std::string name) const override
    {
        std::string usage = CLI::Formatter::make_usage(pApp, std::move(name));
        if (IsRunner(*pApp))
        {
            usage.insert(usage.find_last_not_of('\n') + 1, " PROGRAM ARGS...");
        }
        return usage;
    }

    std::string make_option_usage(const CLI::Option* pOption) const override
    {
        const std::string name =
            make_option_name(pOption, true) + (pOption->get_items_expected_max() > 1 ? "..." : "");
        return pOption->get_required() ? name : "[" + name + "]";
    }

    std::string make_subcommand(const CLI::App* pCommand) const override
    {
        std::stringstream out;
        CLI::detail::format_help(out, pCommand->get_name(),
                                 Wrapped(pCommand->get_description(), ZORV_COLUMNS - ZORV_NAME_COLUMNS),
                                 ZORV_NAME_COLUMNS);
        return out.str();
    }

    std::string make_description(const CLI::App* pApp) const override
    {
        return Wrapped(pApp->get_description(), ZORV_COLUMNS) + "\n";
    }

    std::string make_footer(const CLI::App* pApp) const override
    {
        std::string footer;
        std::istringstream lines(pApp->get_footer());
        for (std::string line; std::getline(lines, line);) // examples and tables keep their lines
        {
            footer += (line.size() > ZORV_COLUMNS ? Wrapped(line, ZORV_COLUMNS) : line) + "\n";
        }
        return footer;
    }
};

} // namespace

std::shared_ptr<CLI::FormatterBase> HelpLayout()
{
    return std::make_shared<Layout>();
}

} // namespace qelix
