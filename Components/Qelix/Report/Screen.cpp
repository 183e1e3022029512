#include "Report/Screen.h"

#include "Session/Terminal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_LEAST_WIDTH = 60; // below, a table would have no room for its names
constexpr std::size_t ZORV_MOST_WIDTH = 200;

std::size_t WidthOfTerminal(int fd)
{
    if (const std::size_t columns = ColumnsOf(fd); columns != 0)
    {
        return columns;
    }
    const char* pColumns = getenv("COLUMNS");
    const unsigned long columns = pColumns == nullptr ? 0 : strtoul(pColumns, nullptr, 10);
    return columns == 0 ? Screen{}.m_width : columns;
}

bool IsContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

} // namespace

Screen ScreenOf(int fd)
{
    const char* pTerm = getenv("TERM");
    const char* pNoColour = getenv("NO_COLOR");
    const bool isPlain = (pNoColour != nullptr && *pNoColour != '\0') || pTerm == nullptr ||
                         strcmp(pTerm, "dumb") == 0 || isatty(fd) != 1;
    return {std::clamp(WidthOfTerminal(fd), ZORV_LEAST_WIDTH, ZORV_MOST_WIDTH), !isPlain};
}

std::size_t WidthOf(std::string_view text)
{
    return text.size() - static_cast<std::size_t>(std::count_if(text.begin(), text.end(), IsContinuation));
}

std::string CutTo(std::string_view text, std::size_t width)
{
    if (WidthOf(text) <= width)
    {
        return std::string(text);
    }
    const std::size_t kept = width < 2 ? 0 : width - 2;
    std::size_t at = 0;
    for (std::size_t columns = 0; columns < kept; ++columns)
    {
        do
        {
            ++at;
        } while (at < text.size() && IsContinuation(text[at]));
    }
    return std::string(text.substr(0, at)) + std::string(width - kept, '.');
}

std::string CutName(std::string_view name, std::size_t width)
{
    constexpr std::size_t least = 4; // of the name itself
    const std::size_t offset = name.rfind("+0x");
    if (offset == std::string_view::npos || name.size() - offset + least > width || WidthOf(name) <= width)
    {
        return CutTo(name, width);
    }
    return CutTo(name.substr(0, offset), width - (name.size() - offset)) + std::string(name.substr(offset));
}

std::string Fitted(std::string_view text, std::size_t width)
{
    std::string fitted = CutTo(text, width);
    fitted.append(width - WidthOf(fitted), ' ');
    return fitted;
}

std::string Wrapped(std::string_view text, std::size_t width, std::string_view indentation)
{
    std::string wrapped;
    std::size_t column = 0;
    while (!text.empty())
    {
        const std::string_view word = text.substr(0, text.find(' '));
        const bool isFirst = column == 0;
        if (!isFirst && column + 1 + WidthOf(word) > width)
        {
            wrapped += '\n';
            wrapped += indentation;
            column = indentation.size();
        }
        else if (!isFirst)
        {
            wrapped += ' ';
            ++column;
        }
        wrapped += word;
        column += WidthOf(word);
        text.remove_prefix(std::min(text.size(), word.size() + 1));
    }
    return wrapped;
}

std::string Coloured(const Screen& screen, std::string_view text, const char* pColour)
{
    return screen.m_hasColour && !text.empty() ? pColour + std::string(text) + "\x1b[0m" : std::string(text);
}

std::string Heading(const Screen& screen, std::string_view text)
{
    return Coloured(screen, text, "\x1b[1m");
}

} // namespace qelix
