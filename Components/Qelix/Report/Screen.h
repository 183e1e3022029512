// What text is written for: how wide it may be, and whether it may have colours.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qelix
{

struct Screen
{
    std::size_t m_width = 80; // columns
    bool m_hasColour = false;
};

// The terminal behind the descriptor; without one COLUMNS, else 80. Colours on a terminal alone, and not where
// NO_COLOR is set or TERM is "dumb".
Screen ScreenOf(int fd);

// Columns that the text takes, without colours in it.
std::size_t WidthOf(std::string_view text);

// Exactly so wide: cut off with "..", or filled with blanks.
std::string Fitted(std::string_view text, std::size_t width);

// Cut off where it is wider.
std::string CutTo(std::string_view text, std::size_t width);

// The same of a symbol: the offset behind a name, "libx.so+0x4010", tells two of them apart and stays.
std::string CutName(std::string_view name, std::size_t width);

// Lines of at most the width, broken at blanks; all but the first begin with the indentation.
std::string Wrapped(std::string_view text, std::size_t width, std::string_view indentation);

std::string Coloured(const Screen& screen, std::string_view text, const char* pColour);
std::string Heading(const Screen& screen, std::string_view text);

} // namespace qelix
