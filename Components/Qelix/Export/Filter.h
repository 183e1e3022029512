// Which part of a session is exported.
#pragma once

#include "Export/Survey.h"
#include "Report/RecordFilter.h"

namespace qelix
{

struct ExportFilter
{
    RecordFilter m_records; // its classes are those of calls
    bool m_withCalls = true;
    bool m_withSamples = true;
};

// Takes the processes and threads that are not wanted out of the survey.
void NarrowSurvey(const RecordFilter& filter, SessionSurvey* pSurvey);

// What the filter means for the records of a session.
ProcessFilter FilterOfRecords(const RecordFilter& filter, const SessionSurvey& survey);

} // namespace qelix
