#include "Export/Formats.h"
#include "Export/JsonText.h"

#include <fmt/format.h>

namespace qelix
{
namespace
{

struct EventWriter
{
    SessionStream* m_pStream;
    ListWriter m_list;
    JsonNames m_names;
};

std::string MetadataEvent(const char* pName, int64_t pid, int64_t tid, const std::string& value)
{
    return fmt::format(R"({{"ph":"M","name":"{}","pid":{},"tid":{},"args":{{"name":{}}}}})", pName, pid, tid,
                       JsonText(value));
}

void PutNames(EventWriter* pWriter, const SurveyedProcess& process)
{
    PutItem(&pWriter->m_list,
            MetadataEvent("process_name", process.m_shownPid, process.m_shownPid, process.m_name));
    for (const auto& [tid, thread] : process.m_threads)
    {
        if (!thread.m_name.empty())
        {
            PutItem(&pWriter->m_list, MetadataEvent("thread_name", process.m_shownPid, tid, thread.m_name));
        }
    }
}

void PutCall(EventWriter* pWriter, const SurveyedProcess& process, const StreamedCall& call)
{
    const TimeSpan span = PlacedSpan(call, process);
    std::string text = fmt::format(
        R"({{"ph":"X","cat":"{}","name":{},"pid":{},"tid":{},"ts":{},"dur":{},"args":{{"kind":"{}","result":{})",
        TraceClassName(call.m_class),
        JsonName(&pWriter->m_names, pWriter->m_pStream->m_names.m_names, call.m_name), process.m_shownPid,
        call.m_tid, Microseconds(span.m_first), Microseconds(span.m_last - span.m_first), call.m_pKind->m_pName,
        call.m_result);
    if (call.m_object != 0)
    {
        text += fmt::format(R"(,"object":"{:#x}")", call.m_object);
    }
    if (call.m_objectName != ZORV_NO_NAME)
    {
        text +=
            fmt::format(R"(,"objectName":{})",
                        JsonName(&pWriter->m_names, pWriter->m_pStream->m_names.m_names, call.m_objectName));
    }
    PutItem(&pWriter->m_list, text + (HasReturned(call) ? "}}" : ",\"neverReturned\":true}}"));
}

void PutSample(EventWriter* pWriter, const SurveyedProcess& process, const StreamedSample& sample)
{
    std::string text =
        fmt::format(R"({{"ph":"i","s":"t","cat":"cpu","name":"sample","pid":{},"tid":{},"ts":{})",
                    process.m_shownPid, sample.m_tid, Microseconds(sample.m_time));
    if (sample.m_stack != 0)
    {
        text += fmt::format(R"(,"sf":"{}")", sample.m_stack);
    }
    PutItem(&pWriter->m_list, text + fmt::format(R"(,"args":{{"core":{}}}}})", sample.m_core));
}

// A place is one frame here for each function that is inlined there; the innermost has the stack's own id.
void PutStackFrames(const SessionStream& stream, Output* pOutput)
{
    ListWriter list{pOutput};
    for (std::size_t frame = 1; frame < stream.m_stacks.m_frames.size(); ++frame)
    {
        const PlacedFrame& placed = stream.m_stacks.m_frames[frame];
        const std::vector<uint32_t>& functions = stream.m_stacks.m_places[placed.m_place].m_pPlace->m_functions;
        std::string parent = placed.m_parent == 0 ? "" : std::to_string(placed.m_parent);
        for (std::size_t i = functions.size(); i-- > 0;)
        {
            const Function& function = stream.m_symbolizer.m_functions[functions[i]];
            const std::string id = i == 0 ? std::to_string(frame) : fmt::format("{}.{}", frame, i);
            const std::string above = parent.empty() ? "" : fmt::format(R"(,"parent":"{}")", parent);
            PutItem(&list,
                    fmt::format(R"("{}":{{"category":{},"name":{}{}}})", id,
                                JsonText(ModuleName(function.m_module)), JsonText(function.m_name), above));
            parent = id;
        }
    }
}

} // namespace

void WriteChromeTrace(SessionStream* pStream, Output* pOutput)
{
    EventWriter writer{pStream, {pOutput}, {}};
    Put(pOutput, "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[\n");
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        PutNames(&writer, process);
        StreamRecords(pStream, process,
                      {[&](const StreamedCall& call) { PutCall(&writer, process, call); },
                       [&](const StreamedSample& sample) { PutSample(&writer, process, sample); }});
    }
    Put(pOutput, "\n],\"stackFrames\":{\n");
    PutStackFrames(*pStream, pOutput);
    Put(pOutput, "\n}}\n");
}

} // namespace qelix
