// Text that is longer than the terminal goes through the user's pager.
#pragma once

#include <string>

namespace qelix
{

// Through QELIX_PAGER, PAGER or less when standard output is a terminal and the text does not fit on it; else
// as PrintOut does.
void PrintPaged(const std::string& text);

} // namespace qelix
