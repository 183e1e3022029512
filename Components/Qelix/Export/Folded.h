// Names as they may stand in a line of folded stacks.
#pragma once

#include <cstdint>
#include <string>

namespace qelix
{

// A frame ends at ';' and a stack at its last blank, so a name may hold no ';' and no line break.
std::string FoldedFrame(const std::string& name);

std::string FoldedLabel(const std::string& name, int64_t id);

} // namespace qelix
