// Folded stacks: a line for each, "process;thread;outermost;...;innermost SAMPLES".
#pragma once

#include "Report/SessionFacts.h"

#include <functional>
#include <string>

namespace qelix
{

using TextSink = std::function<void(const std::string& text)>;

// Names as they may stand in a line.
std::string FoldedFrame(const std::string& name);
std::string FoldedLabel(const std::string& name, int64_t id);

// The session must have been read with its stacks.
void WriteFoldedStacks(const SessionFacts& session, const TextSink& sink);

} // namespace qelix
