// The facts of a report for a page: those of its JSON form, without what would make a page too large.
#pragma once

#include "Pages/PageFile.h"
#include "Report/SessionFacts.h"

namespace qelix
{

// Lists are cut off behind `most` entries; "cut" says of each cut one how long it was.
PageJson ReportData(const SessionFacts& session, std::size_t most);

} // namespace qelix
