// Private to the text report: what its sections have in common.
#pragma once

#include "Report/SessionFacts.h"

#include <cstdint>
#include <iterator>
#include <string>

namespace qelix
{

using Lines = std::back_insert_iterator<std::string>;

std::string NameOr(const std::string& name, const char* pOtherwise);
std::string Plural(uint64_t count, const char* pSingular, const char* pPlural);

// Each appends its section, or nothing where there is nothing to say.
void WriteProcessTree(Lines out, const SessionFacts& session);
void WriteCalls(Lines out, const ProcessFacts& process);
void WriteCpu(Lines out, const SessionFacts& session);
void WriteCautions(Lines out, const SessionFacts& session);

} // namespace qelix
