// How wide a terminal is at the moment: its user may change that at any time.
#pragma once

#include <cstddef>
#include <string>

namespace qelix
{

// 0: there is no terminal behind the descriptor, or it does not tell.
std::size_t ColumnsOf(int fd);

// A line that is written over and over again must not wrap: cut off one column before the terminal's end.
std::string OneLineOn(int fd, const std::string& line);

} // namespace qelix
