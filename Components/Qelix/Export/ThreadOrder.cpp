#include "Export/ThreadOrder.h"

#include <algorithm>
#include <tuple>

namespace qelix
{
namespace
{

bool IsEarlierCall(const OrderedCall& a, const OrderedCall& b)
{
    return std::tie(a.m_call.m_tid, a.m_span.m_first, b.m_span.m_last, a.m_call.m_name) <
           std::tie(b.m_call.m_tid, b.m_span.m_first, a.m_span.m_last, b.m_call.m_name);
}

bool IsEarlierSample(const OrderedSample& a, const OrderedSample& b)
{
    return std::tie(a.m_tid, a.m_time, a.m_stack) < std::tie(b.m_tid, b.m_time, b.m_stack);
}

void CloseUntil(std::vector<OrderedCall>* pOpen, uint64_t time, const CallEdges& edges)
{
    while (!pOpen->empty() && pOpen->back().m_span.m_last <= time)
    {
        edges.m_onClose(pOpen->back());
        pOpen->pop_back();
    }
}

} // namespace

void OrderRecords(SessionStream* pStream, const SurveyedProcess& process, OrderedProcess* pOrdered)
{
    pOrdered->m_calls.m_isBefore = IsEarlierCall;
    pOrdered->m_samples.m_isBefore = IsEarlierSample;
    StreamRecords(
        pStream, process,
        {[&](const StreamedCall& call) {
             AddItem(&pOrdered->m_calls, {call, PlacedSpan(call, process)});
         },
         [&](const StreamedSample& sample) {
             AddItem(&pOrdered->m_samples, {sample.m_tid, sample.m_stack, sample.m_time, sample.m_core});
         }});
    SettleOrder(&pOrdered->m_calls);
    SettleOrder(&pOrdered->m_samples);
}

bool HasCalls(const OrderedProcess& ordered, int32_t tid)
{
    const OrderedCall* pCall = PeekItem(&ordered.m_calls);
    return pCall != nullptr && pCall->m_call.m_tid == tid;
}

bool HasSamples(const OrderedProcess& ordered, int32_t tid)
{
    const OrderedSample* pSample = PeekItem(&ordered.m_samples);
    return pSample != nullptr && pSample->m_tid == tid;
}

void ForEachSample(OrderedProcess* pOrdered, int32_t tid, const std::function<void(const OrderedSample&)>& take)
{
    for (; HasSamples(*pOrdered, tid); DropItem(&pOrdered->m_samples))
    {
        take(*PeekItem(&pOrdered->m_samples));
    }
}

void ForEachCall(OrderedProcess* pOrdered, int32_t tid, const std::function<void(const OrderedCall&)>& take)
{
    for (; HasCalls(*pOrdered, tid); DropItem(&pOrdered->m_calls))
    {
        take(*PeekItem(&pOrdered->m_calls));
    }
}

void ForEachEdge(OrderedProcess* pOrdered, int32_t tid, const CallEdges& edges)
{
    std::vector<OrderedCall> open;
    ForEachCall(pOrdered, tid,
                [&](const OrderedCall& call)
                {
                    CloseUntil(&open, call.m_span.m_first, edges);
                    OrderedCall inner = call;
                    if (!open.empty())
                    {
                        inner.m_span.m_last = std::min(inner.m_span.m_last, open.back().m_span.m_last);
                    }
                    edges.m_onOpen(inner);
                    open.push_back(inner);
                });
    CloseUntil(&open, UINT64_MAX, edges);
}

} // namespace qelix
