// The two forms in which a dump shows a file's header and each of its records.
#pragma once

#include "Reader/RecordFile.h"

#include <string>

namespace qelix
{

std::string HeaderAsText(const RecordFile& file);
std::string HeaderAsJson(const RecordFile& file);
std::string RecordAsText(const RecordFile& file, const Record& record);
std::string RecordAsJson(const RecordFile& file, const Record& record);

} // namespace qelix
