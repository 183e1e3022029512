#include "Export/Formats.h"
#include "Export/JsonText.h"
#include "Export/ThreadOrder.h"
#include "Report/SampleWeight.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace qelix
{
namespace
{

// The format has one list of frames for all profiles; ours are functions of stacks and functions that were
// called.
struct FrameList
{
    std::unordered_map<uint64_t, uint32_t> m_indices;
    std::vector<std::string> m_frames; // as JSON
};

struct ProfileWriter
{
    SessionStream* m_pStream;
    Output* m_pOutput;
    ListWriter m_profiles;
    FrameList m_frames;
};

constexpr uint64_t ZORV_CALLED = uint64_t{1} << 32; // sets the two kinds of frames apart

uint32_t FunctionFrame(ProfileWriter* pWriter, uint32_t function)
{
    FrameList& list = pWriter->m_frames;
    const auto [at, isNew] = list.m_indices.emplace(function, static_cast<uint32_t>(list.m_frames.size()));
    if (isNew)
    {
        const Function& known = pWriter->m_pStream->m_symbolizer.m_functions[function];
        const std::string& file = known.m_source.empty() ? known.m_module : known.m_source;
        const std::string line = known.m_line == 0 ? "" : fmt::format(R"(,"line":{})", known.m_line);
        list.m_frames.push_back(
            fmt::format(R"({{"name":{},"file":{}{}}})", JsonText(known.m_name), JsonText(file), line));
    }
    return at->second;
}

uint32_t CalledFrame(ProfileWriter* pWriter, uint32_t name)
{
    FrameList& list = pWriter->m_frames;
    const auto [at, isNew] =
        list.m_indices.emplace(ZORV_CALLED | name, static_cast<uint32_t>(list.m_frames.size()));
    if (isNew)
    {
        list.m_frames.push_back(
            fmt::format(R"({{"name":{}}})", JsonText(pWriter->m_pStream->m_names.m_names[name])));
    }
    return at->second;
}

std::string ThreadLabel(const SurveyedProcess& process, int32_t tid)
{
    return LabelOf(process.m_name, process.m_pid) + " " + LabelOf(process.m_threads.at(tid).m_name, tid);
}

// Every sample is as wide as the CPU time that it stands for.
void PutSampledProfile(ProfileWriter* pWriter, OrderedProcess* pOrdered, const SurveyedProcess& process,
                       int32_t tid)
{
    Output* pOutput = pWriter->m_pOutput;
    const uint64_t weight = std::max<uint64_t>(WholeNs(process.m_nsPerSample), 1);
    PutItem(&pWriter->m_profiles,
            fmt::format("{{\"type\":\"sampled\",\"name\":{},\"unit\":\"{}\",\"samples\":[",
                        JsonText(ThreadLabel(process, tid) + ": CPU"), weight == 1 ? "none" : "nanoseconds"));
    ListWriter samples{pOutput};
    uint64_t count = 0;
    ForEachSample(pOrdered, tid,
                  [&](const OrderedSample& sample)
                  {
                      std::vector<uint32_t> frames =
                          FunctionsOfStack(pWriter->m_pStream->m_stacks, sample.m_stack);
                      for (uint32_t& frame : frames)
                      {
                          frame = FunctionFrame(pWriter, frame);
                      }
                      PutItem(&samples, fmt::format("[{}]", fmt::join(frames, ",")));
                      ++count;
                  });
    Put(pOutput, "],\"weights\":[");
    const std::string text = std::to_string(weight);
    for (uint64_t i = 0; i < count; ++i)
    {
        Put(pOutput, i == 0 ? text : "," + text);
    }
    Put(pOutput, fmt::format("],\"startValue\":0,\"endValue\":{}}}", count * weight));
}

void PutEventedProfile(ProfileWriter* pWriter, OrderedProcess* pOrdered, const SurveyedProcess& process,
                       int32_t tid)
{
    const uint64_t first = pWriter->m_pStream->m_survey.m_span.m_first; // small numbers are exact as doubles
    PutItem(&pWriter->m_profiles,
            fmt::format("{{\"type\":\"evented\",\"name\":{},\"unit\":\"nanoseconds\",\"startValue\":0,"
                        "\"endValue\":{},\"events\":[",
                        JsonText(ThreadLabel(process, tid) + ": calls"), process.m_span.m_last - first));
    ListWriter events{pWriter->m_pOutput};
    const auto put = [&](char type, const OrderedCall& call, uint64_t time)
    {
        PutItem(&events, fmt::format(R"({{"type":"{}","frame":{},"at":{}}})", type,
                                     CalledFrame(pWriter, call.m_call.m_name), time - first));
    };
    ForEachEdge(pOrdered, tid,
                {[&](const OrderedCall& call) { put('O', call, call.m_span.m_first); },
                 [&](const OrderedCall& call) { put('C', call, call.m_span.m_last); }});
    Put(pWriter->m_pOutput, "]}");
}

} // namespace

void WriteSpeedscope(SessionStream* pStream, Output* pOutput)
{
    ProfileWriter writer{pStream, pOutput, {pOutput}, {}};
    Put(pOutput, "{\"$schema\":\"https://www.speedscope.app/file-format-schema.json\",\"exporter\":\"qelix\",\n"
                 "\"profiles\":[\n");
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        OrderedProcess ordered;
        OrderRecords(pStream, process, &ordered);
        for (const auto& [tid, thread] : process.m_threads)
        {
            if (HasSamples(ordered, tid))
            {
                PutSampledProfile(&writer, &ordered, process, tid);
            }
            if (HasCalls(ordered, tid))
            {
                PutEventedProfile(&writer, &ordered, process, tid);
            }
        }
    }
    Put(pOutput, "],\n\"shared\":{\"frames\":[\n");
    ListWriter frames{pOutput};
    for (const std::string& frame : writer.m_frames.m_frames)
    {
        PutItem(&frames, frame);
    }
    Put(pOutput, "\n]}}\n");
}

} // namespace qelix
