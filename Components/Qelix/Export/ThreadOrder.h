// The calls and samples of one process, thread by thread and each by time.
#pragma once

#include "Export/RecordStream.h"
#include "Export/TimeOrder.h"

#include <cstdint>
#include <functional>

namespace qelix
{

struct OrderedCall
{
    StreamedCall m_call;
    TimeSpan m_span; // where it lies on a line of time
};

struct OrderedSample
{
    int32_t m_tid = 0;
    uint32_t m_stack = 0;
    uint64_t m_time = 0;
    uint16_t m_core = 0;
};

struct OrderedProcess
{
    TimeOrder<OrderedCall> m_calls; // by thread, start, and the longer first
    TimeOrder<OrderedSample> m_samples;
};

// Threads come in the order of their ids.
void OrderRecords(SessionStream* pStream, const SurveyedProcess& process, OrderedProcess* pOrdered);

bool HasCalls(const OrderedProcess& ordered, int32_t tid);
bool HasSamples(const OrderedProcess& ordered, int32_t tid);

// Both take what they hand out. Threads must be asked for in order, each to its end.
void ForEachSample(OrderedProcess* pOrdered, int32_t tid,
                   const std::function<void(const OrderedSample&)>& take);
void ForEachCall(OrderedProcess* pOrdered, int32_t tid, const std::function<void(const OrderedCall&)>& take);

// The same as openings and closings, by time. A thread is in one call at a time, or in one inside another: what
// claims to last beyond the call around it is cut off with that.
struct CallEdges
{
    std::function<void(const OrderedCall&)> m_onOpen;
    std::function<void(const OrderedCall&)> m_onClose;
};

void ForEachEdge(OrderedProcess* pOrdered, int32_t tid, const CallEdges& edges);

} // namespace qelix
