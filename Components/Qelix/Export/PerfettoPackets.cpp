#include "Export/PerfettoPackets.h"

namespace qelix
{
namespace
{

constexpr uint32_t ZORV_FLAG_STATE_CLEARED = 1;
constexpr int32_t ZORV_COUNTER_CPU_CLOCK = 1;

enum InternedField : protozero::pbf_tag_type
{
    ZORV_INTERNED_CATEGORY = 1,
    ZORV_INTERNED_EVENT_NAME = 2,
    ZORV_INTERNED_FUNCTION_NAME = 5,
    ZORV_INTERNED_FRAME = 6,
    ZORV_INTERNED_STACK = 7,
    ZORV_INTERNED_PATH = 17,
    ZORV_INTERNED_MAPPING = 19,
};

void AddText(protozero::pbf_writer* pData, InternedField field, uint64_t iid, const std::string& text)
{
    protozero::pbf_writer entry(*pData, field);
    entry.add_uint64(1, iid);
    entry.add_string(2, PrintableText(text));
}

uint64_t InternModule(PacketWriter* pWriter, protozero::pbf_writer* pData, const std::string& path)
{
    const std::size_t known = pWriter->m_modules.m_names.size();
    const uint64_t iid = uint64_t{NameId(&pWriter->m_modules, path)} + 1;
    if (iid > known)
    {
        AddText(pData, ZORV_INTERNED_PATH, iid, path);
        protozero::pbf_writer mapping(*pData, ZORV_INTERNED_MAPPING);
        mapping.add_uint64(1, iid);
        mapping.add_uint64(7, iid);
    }
    return iid;
}

void InternFunction(PacketWriter* pWriter, protozero::pbf_writer* pData, uint32_t function)
{
    if (!pWriter->m_functions.insert(function).second)
    {
        return;
    }
    const Function& known = pWriter->m_pStream->m_symbolizer.m_functions[function];
    const uint64_t iid = uint64_t{function} + 1;
    const uint64_t mapping = InternModule(pWriter, pData, known.m_module);
    AddText(pData, ZORV_INTERNED_FUNCTION_NAME, iid, known.m_name);
    protozero::pbf_writer frame(*pData, ZORV_INTERNED_FRAME);
    frame.add_uint64(1, iid);
    frame.add_uint64(2, iid);
    frame.add_uint64(3, mapping);
}

void AddClock(protozero::pbf_writer* pSnapshot, uint32_t id, uint64_t time)
{
    protozero::pbf_writer clock(*pSnapshot, 1);
    clock.add_uint32(1, id);
    clock.add_uint64(2, time);
}

void AddClocks(protozero::pbf_writer* pPacket, const SessionSurvey& survey)
{
    const ClockPair clocks = survey.m_clocks.value_or(ClockPair{survey.m_span.m_first, 0});
    protozero::pbf_writer snapshot(*pPacket, perfetto::CLOCK_SNAPSHOT);
    AddClock(&snapshot, perfetto::CLOCK_MONOTONIC_ID, clocks.m_monotonicNs);
    if (survey.m_clocks)
    {
        AddClock(&snapshot, perfetto::CLOCK_REALTIME_ID, clocks.m_realtimeNs);
    }
    snapshot.add_uint32(2, perfetto::CLOCK_MONOTONIC_ID); // in which the trace is shown
}

} // namespace

void PutFirstPacket(PacketWriter* pWriter)
{
    PutPacket(
        pWriter, std::nullopt,
        [pWriter](protozero::pbf_writer* pPacket)
        {
            AddClocks(pPacket, pWriter->m_pStream->m_survey);
            protozero::pbf_writer defaults(*pPacket, perfetto::DEFAULTS);
            defaults.add_uint32(58, perfetto::CLOCK_MONOTONIC_ID);
            protozero::pbf_writer perf(defaults, 12);
            protozero::pbf_writer timebase(perf, 1);
            timebase.add_uint64(1, pWriter->m_pStream->m_survey.m_periodNs);
            timebase.add_enum(4, ZORV_COUNTER_CPU_CLOCK);
        },
        ZORV_FLAG_STATE_CLEARED);
}

void InternCall(PacketWriter* pWriter, const StreamedCall& call)
{
    const uint32_t category = 1U << call.m_class;
    const std::vector<std::string>& names = pWriter->m_pStream->m_names.m_names;
    if ((pWriter->m_categories & category) != 0 && call.m_name < pWriter->m_names)
    {
        return;
    }
    PutPacket(pWriter, std::nullopt,
              [&](protozero::pbf_writer* pPacket)
              {
                  protozero::pbf_writer data(*pPacket, perfetto::INTERNED_DATA);
                  if ((pWriter->m_categories & category) == 0)
                  {
                      AddText(&data, ZORV_INTERNED_CATEGORY, CategoryIid(call), TraceClassName(call.m_class));
                  }
                  for (; pWriter->m_names < names.size(); ++pWriter->m_names)
                  {
                      AddText(&data, ZORV_INTERNED_EVENT_NAME, pWriter->m_names + 1, names[pWriter->m_names]);
                  }
              });
    pWriter->m_categories |= category;
}

void InternStack(PacketWriter* pWriter, uint32_t stack)
{
    if (stack == 0 || !pWriter->m_stacks.insert(stack).second)
    {
        return;
    }
    const std::vector<uint32_t> functions = FunctionsOfStack(pWriter->m_pStream->m_stacks, stack);
    PutPacket(pWriter, std::nullopt,
              [&](protozero::pbf_writer* pPacket)
              {
                  protozero::pbf_writer data(*pPacket, perfetto::INTERNED_DATA);
                  for (const uint32_t function : functions)
                  {
                      InternFunction(pWriter, &data, function);
                  }
                  protozero::pbf_writer callstack(data, ZORV_INTERNED_STACK);
                  callstack.add_uint64(1, stack);
                  for (const uint32_t function : functions) // outermost first
                  {
                      callstack.add_uint64(2, uint64_t{function} + 1);
                  }
              });
}

} // namespace qelix
