// The records of a session as one stream of calls and samples, with names for everything that has one, whatever
// files they lie in. The memory is that of the different names and stacks.
#pragma once

#include "Export/Filter.h"
#include "Export/StackTable.h"
#include "Export/Survey.h"
#include "Reader/RecordNames.h"
#include "Reader/Records.h"
#include "Symbols/DataSymbols.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

constexpr uint32_t ZORV_NO_NAME = UINT32_MAX;

struct StreamedCall
{
    const CallKind* m_pKind = nullptr;
    TraceClass m_class = ZORV_CLASS_PTHREAD;
    uint32_t m_name = 0; // of the function: an index of the session's names
    int32_t m_tid = 0;
    uint64_t m_start = 0;  // as recorded: 0 when the clock failed
    uint64_t m_end = 0;    // ZORV_TIME_NOT_ENDED: it never returned
    uint64_t m_object = 0; // what a pthread call was about
    int64_t m_result = 0;
    uint64_t m_region = 0;                // of a parallel program
    uint32_t m_objectName = ZORV_NO_NAME; // of a lock: the variable that it is in, or its number
};

struct StreamedSample
{
    int32_t m_tid = 0;
    uint32_t m_stack = 0; // of the session's stacks
    uint64_t m_time = 0;
    uint64_t m_region = 0;
    uint16_t m_core = 0;
    const std::vector<ZorvUmsEventData>* m_pEvents = nullptr; // valid during the call that hands it out
};

struct RecordSink
{
    std::function<void(const StreamedCall&)> m_onCall;
    std::function<void(const StreamedSample&)> m_onSample;
};

struct NameTable
{
    std::vector<std::string> m_names;
    std::unordered_map<std::string, uint32_t> m_ids;
};

uint32_t NameId(NameTable* pTable, const std::string& name); // an index of the names

struct SessionStream
{
    SessionSurvey m_survey;
    ExportFilter m_filter;
    bool m_withAgentFrames = false;
    Symbolizer m_symbolizer;
    NameTable m_names;
    StackTable m_stacks;
    DataFiles m_dataFiles;
};

// As reports name it; null for what is no lock.
const std::string* NameOfObject(const SessionStream& stream, const StreamedCall& call);

// Surveys the session; what the filter leaves out is not in the survey either. Fails when there is no session.
std::unique_ptr<SessionStream> OpenStream(const std::string& path, const ExportFilter& filter,
                                          bool withAgentFrames);

// Hands out the wanted calls and samples of one process; those of each file in its order.
void StreamRecords(SessionStream* pStream, const SurveyedProcess& process, const RecordSink& sink);

// Where a call lies on a line of time: what never returned lasts until the process's last time, and what the
// clock could not tell has no length.
TimeSpan PlacedSpan(const StreamedCall& call, const SurveyedProcess& process);

// "name (id)", for tools that have one text for both.
std::string LabelOf(const std::string& name, int64_t id);

inline bool HasReturned(const StreamedCall& call)
{
    return call.m_end != ZORV_TIME_NOT_ENDED;
}

inline bool IsTimed(const StreamedCall& call)
{
    return HasReturned(call) && call.m_start != 0 && call.m_end != 0;
}

} // namespace qelix
