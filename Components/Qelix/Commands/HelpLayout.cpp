#include "Commands/HelpLayout.h"

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
    }

    std::string make_option_desc(const CLI::Option* pOption) const override
    {
        return Wrapped(CLI::Formatter::make_option_desc(pOption), ZORV_COLUMNS - ZORV_NAME_COLUMNS);
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
