// A trace of Perfetto: a track for every process and thread, a slice for every call on its thread's track, and
// a stack for every sample.
#include "Export/Formats.h"
#include "Export/PerfettoPackets.h"
#include "Export/ThreadOrder.h"

namespace qelix
{
namespace
{

// Tracks are numbered; 0 is no track.
struct TrackNumbers
{
    uint64_t m_process = 0;
    uint64_t m_next = 1;
};

void PutProcessTrack(PacketWriter* pWriter, const SurveyedProcess& process, uint64_t track)
{
    PutPacket(pWriter, std::nullopt,
              [&](protozero::pbf_writer* pPacket)
              {
                  protozero::pbf_writer descriptor(*pPacket, perfetto::TRACK_DESCRIPTOR);
                  descriptor.add_uint64(1, track);
                  protozero::pbf_writer message(descriptor, 3);
                  message.add_int32(1, static_cast<int32_t>(process.m_shownPid));
                  message.add_string(6, PrintableText(process.m_name));
              });
}

void PutThreadTrack(PacketWriter* pWriter, const SurveyedProcess& process, int32_t tid,
                    const TrackNumbers& tracks, uint64_t track)
{
    PutPacket(pWriter, std::nullopt,
              [&](protozero::pbf_writer* pPacket)
              {
                  protozero::pbf_writer descriptor(*pPacket, perfetto::TRACK_DESCRIPTOR);
                  descriptor.add_uint64(1, track);
                  descriptor.add_uint64(5, tracks.m_process);
                  protozero::pbf_writer message(descriptor, 4);
                  message.add_int32(1, static_cast<int32_t>(process.m_shownPid));
                  message.add_int32(2, tid);
                  message.add_string(5, PrintableText(process.m_threads.at(tid).m_name));
              });
}

void AddFact(protozero::pbf_writer* pEvent, std::string_view name, protozero::pbf_tag_type valueField,
             uint64_t value)
{
    protozero::pbf_writer fact(*pEvent, 4);
    fact.add_string(10, name.data(), name.size());
    fact.add_uint64(valueField, value);
}

void PutOpening(PacketWriter* pWriter, uint64_t track, const OrderedCall& call)
{
    InternCall(pWriter, call.m_call);
    PutPacket(pWriter, call.m_span.m_first,
              [&](protozero::pbf_writer* pPacket)
              {
                  protozero::pbf_writer event(*pPacket, perfetto::TRACK_EVENT);
                  event.add_uint64(3, CategoryIid(call.m_call));
                  event.add_enum(9, perfetto::SLICE_BEGIN);
                  event.add_uint64(10, NameIid(call.m_call));
                  event.add_uint64(11, track);
                  if (call.m_call.m_object != 0)
                  {
                      AddFact(&event, "object", 7, call.m_call.m_object);
                  }
                  if (const std::string* pName = NameOfObject(*pWriter->m_pStream, call.m_call))
                  {
                      protozero::pbf_writer fact(event, 4);
                      fact.add_string(10, "object name");
                      fact.add_string(6, PrintableText(*pName));
                  }
                  AddFact(&event, "result", 4, static_cast<uint64_t>(call.m_call.m_result));
                  if (!HasReturned(call.m_call))
                  {
                      AddFact(&event, "never returned", 2, 1);
                  }
              });
}

void PutClosing(PacketWriter* pWriter, uint64_t track, const OrderedCall& call)
{
    PutPacket(pWriter, call.m_span.m_last,
              [&](protozero::pbf_writer* pPacket)
              {
                  protozero::pbf_writer event(*pPacket, perfetto::TRACK_EVENT);
                  event.add_enum(9, perfetto::SLICE_END);
                  event.add_uint64(11, track);
              });
}

void PutSample(PacketWriter* pWriter, const SurveyedProcess& process, const OrderedSample& sample)
{
    InternStack(pWriter, sample.m_stack);
    PutPacket(pWriter, sample.m_time,
              [&](protozero::pbf_writer* pPacket)
              {
                  protozero::pbf_writer message(*pPacket, perfetto::PERF_SAMPLE);
                  message.add_uint32(1, sample.m_core);
                  message.add_uint32(2, static_cast<uint32_t>(process.m_shownPid));
                  message.add_uint32(3, static_cast<uint32_t>(sample.m_tid));
                  if (sample.m_stack != 0)
                  {
                      message.add_uint64(4, sample.m_stack);
                  }
                  message.add_enum(5, perfetto::MODE_USER);
              });
}

} // namespace

void WritePerfetto(SessionStream* pStream, Output* pOutput)
{
    PacketWriter writer{pStream, pOutput, {}, {}, {}, {}, 0, 0};
    PutFirstPacket(&writer);
    TrackNumbers tracks;
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        tracks.m_process = tracks.m_next++;
        PutProcessTrack(&writer, process, tracks.m_process);
        OrderedProcess ordered;
        OrderRecords(pStream, process, &ordered);
        for (const auto& [tid, thread] : process.m_threads)
        {
            const uint64_t track = tracks.m_next++;
            PutThreadTrack(&writer, process, tid, tracks, track);
            ForEachEdge(&ordered, tid,
                        {[&](const OrderedCall& call) { PutOpening(&writer, track, call); },
                         [&](const OrderedCall& call) { PutClosing(&writer, track, call); }});
            ForEachSample(&ordered, tid,
                          [&](const OrderedSample& sample) { PutSample(&writer, process, sample); });
        }
    }
}

} // namespace qelix
