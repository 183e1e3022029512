#include "Export/Formats.h"
#include "Export/JsonText.h"

#include <fmt/format.h>
#include <map>

namespace qelix
{
namespace
{

struct LineWriter
{
    SessionStream* m_pStream;
    Output* m_pOutput;
    JsonNames m_names;
    std::vector<std::string> m_functions; // as JSON, by the symbolizer's ids
};

std::string HeadOfProcess(const SurveyedProcess& process)
{
    return fmt::format(R"("rank":{},"pid":{},"process":{})", process.m_rank, process.m_pid,
                       JsonText(process.m_name));
}

std::string ThreadsAsJson(const SurveyedProcess& process)
{
    std::string text;
    for (const auto& [tid, thread] : process.m_threads)
    {
        text += fmt::format("{{\"type\":\"thread\",{},\"tid\":{},\"thread\":{}}}\n", HeadOfProcess(process),
                            tid, JsonText(thread.m_name));
    }
    return text;
}

// What a line says of its process and thread.
std::map<int32_t, std::string> HeadsOfThreads(const SurveyedProcess& process)
{
    std::map<int32_t, std::string> heads;
    for (const auto& [tid, thread] : process.m_threads)
    {
        heads[tid] =
            fmt::format(R"({},"tid":{},"thread":{})", HeadOfProcess(process), tid, JsonText(thread.m_name));
    }
    return heads;
}

std::string CallAsJson(LineWriter* pWriter, const std::string& head, const StreamedCall& call)
{
    const std::vector<std::string>& names = pWriter->m_pStream->m_names.m_names;
    std::string text = fmt::format(
        R"({{"type":"call",{},"class":"{}","kind":"{}","function":{},"start":{},"end":{},"duration":{})", head,
        TraceClassName(call.m_class), call.m_pKind->m_pName, JsonName(&pWriter->m_names, names, call.m_name),
        call.m_start, HasReturned(call) ? std::to_string(call.m_end) : "null",
        IsTimed(call) ? std::to_string(call.m_end - call.m_start) : "null");
    if (call.m_object != 0)
    {
        text += fmt::format(R"(,"object":"{:#x}")", call.m_object);
    }
    if (call.m_objectName != ZORV_NO_NAME)
    {
        text += fmt::format(R"(,"objectName":{})", JsonName(&pWriter->m_names, names, call.m_objectName));
    }
    return text + fmt::format(",\"result\":{},\"region\":{}}}\n", call.m_result, call.m_region);
}

std::string FramesAsJson(LineWriter* pWriter, uint32_t stack)
{
    const std::vector<Function>& functions = pWriter->m_pStream->m_symbolizer.m_functions;
    std::vector<std::string>& texts = pWriter->m_functions;
    texts.resize(functions.size()); // only few of a file's functions are ever met
    std::string text;
    for (const uint32_t function : FunctionsOfStack(pWriter->m_pStream->m_stacks, stack))
    {
        if (texts[function].empty())
        {
            texts[function] = JsonText(functions[function].m_name);
        }
        text += (text.empty() ? "" : ",") + texts[function];
    }
    return text;
}

std::string CountersAsJson(const std::vector<ZorvUmsEventData>& events)
{
    std::string text;
    for (const ZorvUmsEventData& event : events)
    {
        text += fmt::format(R"({}{{"event":{},"count":{},"enabled":{},"running":{}}})", text.empty() ? "" : ",",
                            event.m_id, event.m_eventCount, event.m_timeEnabled, event.m_timeRunning);
    }
    return text.empty() ? "" : ",\"counters\":[" + text + "]";
}

std::string SampleAsJson(LineWriter* pWriter, const std::string& head, const StreamedSample& sample)
{
    return fmt::format("{{\"type\":\"sample\",{},\"time\":{},\"core\":{},\"region\":{}{},\"frames\":[{}]}}\n",
                       head, sample.m_time, sample.m_core, sample.m_region, CountersAsJson(*sample.m_pEvents),
                       FramesAsJson(pWriter, sample.m_stack));
}

} // namespace

void WriteJsonLines(SessionStream* pStream, Output* pOutput)
{
    LineWriter writer{pStream, pOutput, {}, {}};
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        Put(pOutput, ThreadsAsJson(process));
        std::map<int32_t, std::string> heads = HeadsOfThreads(process);
        const RecordSink sink{[&](const StreamedCall& call)
                              { Put(pOutput, CallAsJson(&writer, heads[call.m_tid], call)); },
                              [&](const StreamedSample& sample)
                              { Put(pOutput, SampleAsJson(&writer, heads[sample.m_tid], sample)); }};
        StreamRecords(pStream, process, sink);
    }
}

} // namespace qelix
