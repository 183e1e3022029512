// The profile of pprof: stacks of samples with the CPU time they stand for, and, as stacks of one frame, the
// functions that were called with the time that they took. A sample's labels name its process and thread.
#include "Export/Formats.h"
#include "Report/SampleWeight.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <protozero/pbf_writer.hpp>

namespace qelix
{
namespace
{

namespace profile_field
{
constexpr protozero::pbf_tag_type SAMPLE_TYPE = 1;
constexpr protozero::pbf_tag_type SAMPLE = 2;
constexpr protozero::pbf_tag_type MAPPING = 3;
constexpr protozero::pbf_tag_type LOCATION = 4;
constexpr protozero::pbf_tag_type FUNCTION = 5;
constexpr protozero::pbf_tag_type STRING = 6;
constexpr protozero::pbf_tag_type DURATION_NANOS = 10;
constexpr protozero::pbf_tag_type PERIOD_TYPE = 11;
constexpr protozero::pbf_tag_type PERIOD = 12;
constexpr protozero::pbf_tag_type DEFAULT_SAMPLE_TYPE = 14;
} // namespace profile_field

struct ProfileWriter
{
    SessionStream* m_pStream;
    Output* m_pOutput;
    NameTable m_strings;
    std::string m_message; // one field of the profile at a time
    bool m_hasSamples;
};

struct SampleKey
{
    int32_t m_tid;
    uint32_t m_id; // of the stack, or of the called function's name
    bool m_isCall;
    auto operator<=>(const SampleKey&) const = default;
};

struct SampleValues
{
    int64_t m_samples = 0;
    int64_t m_calls = 0;
    int64_t m_callNs = 0;
};

int64_t StringId(ProfileWriter* pWriter, const std::string& text)
{
    return NameId(&pWriter->m_strings, text);
}

template <typename Fill> void PutMessage(ProfileWriter* pWriter, protozero::pbf_tag_type field, Fill fill)
{
    pWriter->m_message.clear();
    protozero::pbf_writer profile(pWriter->m_message);
    {
        protozero::pbf_writer message(profile, field);
        fill(&message);
    }
    Put(pWriter->m_pOutput, pWriter->m_message);
}

void PutValueType(ProfileWriter* pWriter, protozero::pbf_tag_type field, const char* pType, const char* pUnit)
{
    const int64_t type = StringId(pWriter, pType);
    const int64_t unit = StringId(pWriter, pUnit);
    PutMessage(pWriter, field,
               [=](protozero::pbf_writer* pMessage)
               {
                   pMessage->add_int64(1, type);
                   pMessage->add_int64(2, unit);
               });
}

// Places of stacks and called functions are numbered by turns; 0 is no id.
uint64_t OddId(uint32_t index)
{
    return uint64_t{index} * 2 + 1;
}

uint64_t EvenId(uint32_t index)
{
    return uint64_t{index} * 2 + 2;
}

std::vector<uint64_t> LocationsOf(const ProfileWriter& writer, const SampleKey& key)
{
    if (key.m_isCall)
    {
        return {EvenId(key.m_id)};
    }
    const StackTable& stacks = writer.m_pStream->m_stacks;
    std::vector<uint64_t> locations; // innermost first
    for (uint32_t frame = key.m_id; frame != 0; frame = stacks.m_frames[frame].m_parent)
    {
        locations.push_back(OddId(stacks.m_frames[frame].m_place));
    }
    return locations;
}

void PutSample(ProfileWriter* pWriter, const SampleKey& key, const SampleValues& values, double nsPerSample,
               const std::map<std::string, std::string>& labels)
{
    std::vector<std::pair<int64_t, int64_t>> labelIds;
    for (const auto& [name, value] : labels)
    {
        labelIds.emplace_back(StringId(pWriter, name), StringId(pWriter, value));
    }
    const std::vector<uint64_t> locations = LocationsOf(*pWriter, key);
    const uint64_t cpuNs = WholeNs(static_cast<double>(values.m_samples) * nsPerSample);
    const std::array<int64_t, 4> numbers = {values.m_samples, static_cast<int64_t>(cpuNs), values.m_calls,
                                            values.m_callNs};
    PutMessage(pWriter, profile_field::SAMPLE,
               [&](protozero::pbf_writer* pMessage)
               {
                   pMessage->add_packed_uint64(1, locations.begin(), locations.end());
                   pMessage->add_packed_int64(2, numbers.begin(), numbers.end());
                   for (const auto& [name, value] : labelIds)
                   {
                       protozero::pbf_writer label(*pMessage, 3);
                       label.add_int64(1, name);
                       label.add_int64(2, value);
                   }
               });
}

void PutSamplesOf(ProfileWriter* pWriter, const SurveyedProcess& process)
{
    std::map<SampleKey, SampleValues> samples;
    const RecordSink sink{[&samples](const StreamedCall& call)
                          {
                              SampleValues& values = samples[{call.m_tid, call.m_name, true}];
                              ++values.m_calls;
                              values.m_callNs +=
                                  IsTimed(call) ? static_cast<int64_t>(call.m_end - call.m_start) : 0;
                          },
                          [&samples](const StreamedSample& sample) {
                              ++samples[{sample.m_tid, sample.m_stack, false}].m_samples;
                          }};
    StreamRecords(pWriter->m_pStream, process, sink);
    for (const auto& [key, values] : samples)
    {
        pWriter->m_hasSamples = pWriter->m_hasSamples || !key.m_isCall;
        PutSample(pWriter, key, values, process.m_nsPerSample,
                  {{"process", LabelOf(process.m_name, process.m_pid)},
                   {"thread", LabelOf(process.m_threads.at(key.m_tid).m_name, key.m_tid)}});
    }
}

void PutFunction(ProfileWriter* pWriter, uint64_t id, const std::string& name, const std::string& file,
                 uint32_t line)
{
    const int64_t nameId = StringId(pWriter, name);
    const int64_t fileId = StringId(pWriter, file);
    PutMessage(pWriter, profile_field::FUNCTION,
               [=](protozero::pbf_writer* pMessage)
               {
                   pMessage->add_uint64(1, id);
                   pMessage->add_int64(2, nameId);
                   pMessage->add_int64(3, nameId);
                   pMessage->add_int64(4, fileId);
                   pMessage->add_int64(5, line);
               });
}

struct LocationLine
{
    uint64_t m_function;
    uint32_t m_line;
};

void PutLocation(ProfileWriter* pWriter, uint64_t id, uint64_t mapping, uint64_t address,
                 const std::vector<LocationLine>& lines)
{
    PutMessage(pWriter, profile_field::LOCATION,
               [&](protozero::pbf_writer* pMessage)
               {
                   pMessage->add_uint64(1, id);
                   pMessage->add_uint64(2, mapping);
                   pMessage->add_uint64(3, address);
                   for (const LocationLine& line : lines)
                   {
                       protozero::pbf_writer message(*pMessage, 4);
                       message.add_uint64(1, line.m_function);
                       message.add_int64(2, line.m_line);
                   }
               });
}

void PutMapping(ProfileWriter* pWriter, uint64_t id, const std::string& path)
{
    const int64_t pathId = StringId(pWriter, path);
    PutMessage(pWriter, profile_field::MAPPING,
               [=](protozero::pbf_writer* pMessage)
               {
                   pMessage->add_uint64(1, id);
                   pMessage->add_int64(5, pathId);
                   for (const protozero::pbf_tag_type field : {7, 8, 9, 10}) // the names are found already
                   {
                       pMessage->add_bool(field, true);
                   }
               });
}

// Readers take the first mapping for the program itself, and that is what lies lowest.
void PutMappings(ProfileWriter* pWriter, const NameTable& modules, const std::vector<uint64_t>& lowest)
{
    std::vector<uint32_t> order(lowest.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&lowest](uint32_t a, uint32_t b) { return lowest[a] < lowest[b]; });
    for (const uint32_t module : order)
    {
        PutMapping(pWriter, module + 1, modules.m_names[module]);
    }
}

// Addresses differ from process to process: a place has the one that it was seen at first.
void PutPlaces(ProfileWriter* pWriter)
{
    const Symbolizer& symbolizer = pWriter->m_pStream->m_symbolizer;
    const std::vector<Function>& known = symbolizer.m_functions;
    const std::vector<StackPlace>& places = pWriter->m_pStream->m_stacks.m_places;
    NameTable modules;
    std::vector<uint64_t> lowest; // address of each module
    for (uint32_t i = 0; i < places.size(); ++i)
    {
        std::vector<LocationLine> lines;
        for (const uint32_t line : places[i].m_pPlace->m_lines)
        {
            lines.push_back({OddId(symbolizer.m_lines[line].m_function), symbolizer.m_lines[line].m_line});
        }
        const uint32_t module = NameId(&modules, known[places[i].m_pPlace->m_functions.back()].m_module);
        lowest.resize(modules.m_names.size(), UINT64_MAX);
        lowest[module] = std::min(lowest[module], places[i].m_address);
        PutLocation(pWriter, OddId(i), uint64_t{module} + 1, places[i].m_address, lines);
    }
    for (const uint32_t i : UsedFunctions(pWriter->m_pStream->m_stacks))
    {
        const std::string& file = known[i].m_source.empty() ? known[i].m_module : known[i].m_source;
        PutFunction(pWriter, OddId(i), known[i].m_name, file, known[i].m_line);
    }
    PutMappings(pWriter, modules, lowest);
}

void PutCalledFunctions(ProfileWriter* pWriter)
{
    const std::vector<std::string>& names = pWriter->m_pStream->m_names.m_names;
    for (uint32_t i = 0; i < names.size(); ++i)
    {
        PutFunction(pWriter, EvenId(i), names[i], "", 0);
        PutLocation(pWriter, EvenId(i), 0, 0, {{EvenId(i), 0}});
    }
}

void PutStrings(ProfileWriter* pWriter)
{
    for (const std::string& text : pWriter->m_strings.m_names)
    {
        pWriter->m_message.clear();
        protozero::pbf_writer(pWriter->m_message).add_string(profile_field::STRING, PrintableText(text));
        Put(pWriter->m_pOutput, pWriter->m_message);
    }
}

void PutTotals(ProfileWriter* pWriter, int64_t dueSampleType)
{
    const SessionSurvey& survey = pWriter->m_pStream->m_survey;
    pWriter->m_message.clear();
    protozero::pbf_writer profile(pWriter->m_message);
    profile.add_int64(profile_field::DURATION_NANOS,
                      static_cast<int64_t>(survey.m_span.m_last - survey.m_span.m_first));
    profile.add_int64(profile_field::PERIOD, static_cast<int64_t>(survey.m_periodNs));
    profile.add_int64(profile_field::DEFAULT_SAMPLE_TYPE, dueSampleType);
    Put(pWriter->m_pOutput, pWriter->m_message);
}

} // namespace

void WritePprof(SessionStream* pStream, Output* pOutput)
{
    ProfileWriter writer{pStream, pOutput, {}, {}, false};
    StringId(&writer, ""); // the format wants it to be the first
    PutValueType(&writer, profile_field::SAMPLE_TYPE, "samples", "count");
    PutValueType(&writer, profile_field::SAMPLE_TYPE, "cpu", "nanoseconds");
    PutValueType(&writer, profile_field::SAMPLE_TYPE, "calls", "count");
    PutValueType(&writer, profile_field::SAMPLE_TYPE, "wait", "nanoseconds");
    PutValueType(&writer, profile_field::PERIOD_TYPE, "cpu", "nanoseconds");
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        PutSamplesOf(&writer, process);
    }
    PutPlaces(&writer);
    PutCalledFunctions(&writer);
    const int64_t due = StringId(&writer, writer.m_hasSamples ? "cpu" : "wait");
    PutStrings(&writer);
    PutTotals(&writer, due);
}

} // namespace qelix
