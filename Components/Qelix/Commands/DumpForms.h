// The two forms in which a dump shows a file's header and each of its records.
#pragma once

#include "Reader/RecordFile.h"
#include "Symbols/Symbolizer.h"

#include <string>

namespace qelix
{

std::string HeaderAsText(const RecordFile& file);
std::string HeaderAsJson(const RecordFile& file);

// Functions go by the names that pSymbols has for them; it knows none of a file that lies alone.
std::string RecordAsText(const RecordFile& file, const Record& record, ProcessSymbols* pSymbols);
std::string RecordAsJson(const RecordFile& file, const Record& record, ProcessSymbols* pSymbols);

} // namespace qelix
