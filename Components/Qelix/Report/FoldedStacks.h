// Folded stacks: a line for each, "process;thread;outermost;...;innermost SAMPLES".
#pragma once

#include "Report/SessionFacts.h"

#include <functional>
#include <string>

namespace qelix
{

using TextSink = std::function<void(const std::string& text)>;

// The session must have been read with its stacks.
void WriteFoldedStacks(const SessionFacts& session, const TextSink& sink);

} // namespace qelix
