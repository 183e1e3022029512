// A profile of the Firefox profiler, in its processed form: a thread is a set of tables, stored by column.
#include "Export/FirefoxTables.h"
#include "Export/Formats.h"
#include "Export/ThreadOrder.h"

#include <fmt/format.h>

namespace qelix
{
namespace
{

// The version whose shape this is; newer profilers convert older ones.
constexpr int ZORV_PROFILE_VERSION = 46;
constexpr int ZORV_RAW_VERSION = 24;
constexpr int ZORV_INTERVAL_PHASE = 1; // of a marker that has a start and an end

std::string MarkerSchema()
{
    const char* pFields = R"({"key":"name","label":"Function","format":"string","searchable":true},)"
                          R"({"key":"kind","label":"Kind","format":"string","searchable":true},)"
                          R"({"key":"object","label":"Object","format":"string","searchable":true},)"
                          R"({"key":"objectName","label":"Object name","format":"string","searchable":true},)"
                          R"({"key":"result","label":"Result","format":"integer"},)"
                          R"({"key":"returned","label":"Returned","format":"string"})";
    return fmt::format(R"([{{"name":"call","display":["marker-chart","marker-table","timeline-overview"],)"
                       R"("chartLabel":"{{marker.data.name}}","tooltipLabel":"{{marker.data.name}}",)"
                       R"("tableLabel":"{{marker.data.name}} {{marker.data.object}}","data":[{}]}}])",
                       pFields);
}

// A category for code, and one for each class of calls.
std::string Categories()
{
    std::string text = R"({"name":"CPU","color":"blue","subcategories":["Other"]})";
    for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
    {
        text += fmt::format(R"(,{{"name":"{}","color":"{}","subcategories":["Other"]}})",
                            TraceClassName(static_cast<TraceClass>(i)),
                            i < ZORV_CLASS_IO_SYNC ? "orange" : "green");
    }
    return text;
}

// The calendar's time, in nanoseconds since 1970, at a time of the records; 0 when the session does not tell.
uint64_t CalendarAt(const SessionSurvey& survey, uint64_t time)
{
    return survey.m_clocks ? survey.m_clocks->m_realtimeNs + (time - survey.m_clocks->m_monotonicNs) : 0;
}

std::string MetaAsJson(const SessionSurvey& survey)
{
    return fmt::format(
        R"("meta":{{"version":{},"preprocessedProfileVersion":{},"interval":{},"startTime":{},"processType":0,)"
        R"("product":"qelix","stackwalk":1,"debug":false,"symbolicated":true,"usesOnlyOneStackType":true,)"
        R"("doesNotUseFrameImplementation":true,"sourceCodeIsNotOnSearchfox":true,)"
        R"("extensions":{{"baseURL":[],"id":[],"length":0,"name":[]}},)"
        R"("sampleUnits":{{"eventDelay":"ms","threadCPUDelta":"ns","time":"ms"}},)"
        R"("categories":[{}],"markerSchema":{}}})",
        ZORV_RAW_VERSION, ZORV_PROFILE_VERSION, Milliseconds(std::max<uint64_t>(survey.m_periodNs, 1)),
        Milliseconds(CalendarAt(survey, survey.m_span.m_first)), Categories(), MarkerSchema());
}

void GatherSamples(ThreadTables* pTables, OrderedProcess* pOrdered, int32_t tid, uint64_t first)
{
    ForEachSample(pOrdered, tid,
                  [&](const OrderedSample& sample)
                  {
                      const std::optional<uint32_t> stack = StackOf(pTables, sample.m_stack);
                      AddCell(&pTables->m_sampleStacks, stack ? std::to_string(*stack) : "null");
                      AddCell(&pTables->m_sampleTimes,
                              Milliseconds(sample.m_time - std::min(first, sample.m_time)));
                  });
}

std::string MarkerData(ThreadTables* pTables, const StreamedCall& call)
{
    const SessionStream& stream = *pTables->m_pStream;
    return fmt::format(
        R"({{"type":"call","name":{},"kind":"{}","object":"{}","objectName":{},"result":{},"returned":"{}"}})",
        JsonText(stream.m_names.m_names[call.m_name]), call.m_pKind->m_pName,
        call.m_object != 0 ? fmt::format("{:#x}", call.m_object) : "",
        JsonText(NameOfObject(stream, call) != nullptr ? *NameOfObject(stream, call) : ""), call.m_result,
        HasReturned(call) ? "yes" : "no");
}

void GatherMarkers(ThreadTables* pTables, OrderedProcess* pOrdered, int32_t tid, uint64_t first)
{
    ForEachCall(pOrdered, tid,
                [&](const OrderedCall& call)
                {
                    const uint32_t name = TextOf(pTables, TraceClassName(call.m_call.m_class));
                    AddCell(&pTables->m_markerNames, std::to_string(name));
                    AddCell(&pTables->m_markerStarts, Milliseconds(call.m_span.m_first - first));
                    AddCell(&pTables->m_markerEnds, Milliseconds(call.m_span.m_last - first));
                    AddCell(&pTables->m_markerCategories, std::to_string(call.m_call.m_class + 1));
                    AddCell(&pTables->m_markerData, MarkerData(pTables, call.m_call));
                });
}

void PutSampleTable(Output* pOutput, const ThreadTables& tables)
{
    const uint64_t count = tables.m_sampleStacks.m_count;
    Put(pOutput,
        fmt::format(",\n\"samples\":{{\"length\":{},\"weightType\":\"samples\",\"weight\":null", count));
    PutColumn(pOutput, "stack", tables.m_sampleStacks);
    PutColumn(pOutput, "time", tables.m_sampleTimes);
    Put(pOutput, "}");
}

void PutMarkerTable(Output* pOutput, const ThreadTables& tables)
{
    const uint64_t count = tables.m_markerNames.m_count;
    Put(pOutput, fmt::format(",\n\"markers\":{{\"length\":{}", count));
    PutColumn(pOutput, "name", tables.m_markerNames);
    PutColumn(pOutput, "startTime", tables.m_markerStarts);
    PutColumn(pOutput, "endTime", tables.m_markerEnds);
    PutColumn(pOutput, "category", tables.m_markerCategories);
    PutConstantColumn(pOutput, "phase", std::to_string(ZORV_INTERVAL_PHASE), count);
    PutColumn(pOutput, "data", tables.m_markerData);
    Put(pOutput, "}");
}

std::string ThreadHead(const SurveyedProcess& process, int32_t tid, const SurveyedThread& thread,
                       uint64_t first)
{
    return fmt::format(
        "{{\"processType\":\"default\",\"processName\":{},\"processStartupTime\":{},\"processShutdownTime\":"
        "null,"
        "\"registerTime\":{},\"unregisterTime\":null,\"pausedRanges\":[],\"name\":{},\"isMainThread\":{},"
        "\"showMarkersInTimeline\":true,\"pid\":\"{}\",\"tid\":{}",
        JsonText(process.m_name), Milliseconds(process.m_span.m_first - first),
        Milliseconds(process.m_span.m_first - first), JsonText(thread.m_name), tid == process.m_pid,
        process.m_shownPid, tid);
}

} // namespace

void WriteFirefox(SessionStream* pStream, Output* pOutput)
{
    const uint64_t first = pStream->m_survey.m_span.m_first;
    Put(pOutput, "{" + MetaAsJson(pStream->m_survey) + ",\n\"libs\":[],\"pages\":[],\"threads\":[\n");
    ListWriter threads{pOutput};
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        OrderedProcess ordered;
        OrderRecords(pStream, process, &ordered);
        for (const auto& [tid, thread] : process.m_threads)
        {
            ThreadTables tables(pStream);
            GatherSamples(&tables, &ordered, tid, first);
            GatherMarkers(&tables, &ordered, tid, first);
            PutItem(&threads, ThreadHead(process, tid, thread, first));
            PutSampleTable(pOutput, tables);
            PutMarkerTable(pOutput, tables);
            PutCodeTables(pOutput, &tables);
            Put(pOutput, "}");
        }
    }
    Put(pOutput, "\n]}\n");
}

} // namespace qelix
