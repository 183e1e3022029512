// The packets of a Perfetto trace, and the texts, functions and stacks that they refer to by number: each
// stands in the trace once, before its first use.
#pragma once

#include "Export/Output.h"
#include "Export/RecordStream.h"

#include <optional>
#include <protozero/pbf_writer.hpp>
#include <string>
#include <unordered_set>
#include <vector>

namespace qelix
{

// Numbers of the format's own definition.
namespace perfetto
{
constexpr protozero::pbf_tag_type TRACE_PACKET = 1;
constexpr protozero::pbf_tag_type CLOCK_SNAPSHOT = 6;
constexpr protozero::pbf_tag_type TIMESTAMP = 8;
constexpr protozero::pbf_tag_type SEQUENCE_ID = 10;
constexpr protozero::pbf_tag_type TRACK_EVENT = 11;
constexpr protozero::pbf_tag_type INTERNED_DATA = 12;
constexpr protozero::pbf_tag_type SEQUENCE_FLAGS = 13;
constexpr protozero::pbf_tag_type DEFAULTS = 59;
constexpr protozero::pbf_tag_type TRACK_DESCRIPTOR = 60;
constexpr protozero::pbf_tag_type PERF_SAMPLE = 66;

constexpr int32_t SLICE_BEGIN = 1;
constexpr int32_t SLICE_END = 2;
constexpr int32_t MODE_USER = 2;
constexpr uint32_t CLOCK_REALTIME_ID = 1;
constexpr uint32_t CLOCK_MONOTONIC_ID = 3; // without a word the time since boot would be meant
} // namespace perfetto

struct PacketWriter
{
    SessionStream* m_pStream;
    Output* m_pOutput;
    std::string m_packet; // one at a time
    NameTable m_modules;
    std::unordered_set<uint32_t> m_functions; // those in the trace
    std::unordered_set<uint32_t> m_stacks;    // likewise
    uint32_t m_categories;                    // a bit for each class in the trace
    std::size_t m_names;                      // of called functions in the trace
};

void PutFirstPacket(PacketWriter* pWriter);

template <typename Fill>
void PutPacket(PacketWriter* pWriter, std::optional<uint64_t> time, Fill fill, uint32_t sequenceFlags = 2)
{
    pWriter->m_packet.clear();
    protozero::pbf_writer trace(pWriter->m_packet);
    {
        protozero::pbf_writer packet(trace, perfetto::TRACE_PACKET);
        if (time)
        {
            packet.add_uint64(perfetto::TIMESTAMP, *time);
        }
        packet.add_uint32(perfetto::SEQUENCE_ID, 1);
        packet.add_uint32(perfetto::SEQUENCE_FLAGS, sequenceFlags);
        fill(&packet);
    }
    Put(pWriter->m_pOutput, pWriter->m_packet);
}

inline uint64_t CategoryIid(const StreamedCall& call)
{
    return static_cast<uint64_t>(call.m_class) + 1;
}

inline uint64_t NameIid(const StreamedCall& call)
{
    return uint64_t{call.m_name} + 1;
}

// Make what a packet refers to known.
void InternCall(PacketWriter* pWriter, const StreamedCall& call);
void InternStack(PacketWriter* pWriter, uint32_t stack);

} // namespace qelix
