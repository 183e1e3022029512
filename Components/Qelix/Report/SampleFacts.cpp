#include "Report/SampleFacts.h"

#include "Reader/RecordFile.h"
#include "Report/ThreadNames.h"

#include <algorithm>
#include <tuple>

namespace qelix
{
namespace
{

constexpr uint32_t ZORV_EXTRA_FRAMES = 8; // that the agent records beyond the configured depth

constexpr std::size_t ZORV_STACKS_PENDING = 50000;

struct StackHash
{
    std::size_t operator()(const std::vector<uint64_t>& stack) const
    {
        uint64_t hash = stack.size();
        for (const uint64_t address : stack)
        {
            hash = (hash ^ address) * 0x9E3779B97F4A7C15;
            hash ^= hash >> 32;
        }
        return hash;
    }
};

struct Gathering
{
    ProcessSamples m_process;
    ProcessSymbols* m_pSymbols;
    SampleView m_view;
    const ProcessFilter& m_filter;
    std::unordered_map<int32_t, ThreadSamples> m_threads;
    std::vector<NameFact> m_names;
    // Most samples have a stack that another one had: each is looked up once, as long as memory may be had.
    std::unordered_map<int32_t, std::unordered_map<std::vector<uint64_t>, uint64_t, StackHash>> m_pending;
    std::size_t m_pendingCount = 0;
};

void CountOnce(FunctionCounts* pCounts, const std::vector<uint32_t>& ids, uint64_t samples)
{
    if (ids.empty())
    {
        return;
    }
    (*pCounts)[ids.front()].m_self += samples;
    std::vector<uint32_t> once = ids;
    std::sort(once.begin(), once.end());
    once.erase(std::unique(once.begin(), once.end()), once.end());
    for (const uint32_t id : once)
    {
        (*pCounts)[id].m_total += samples;
    }
}

void TakeStack(Gathering* pGathering, int32_t tid, const std::vector<uint64_t>& stack, uint64_t time,
               uint64_t samples)
{
    const SampleView& view = pGathering->m_view;
    ThreadSamples& thread = pGathering->m_threads[tid];
    const StackIds ids = IdsOfStack(pGathering->m_pSymbols, stack, time, view.m_withAgentFrames);
    AddStack(&thread, ids.m_functions, view.m_withStacks, samples);
    if (view.m_withLines)
    {
        CountOnce(&thread.m_lines, ids.m_lines, samples);
    }
}

void TakePending(Gathering* pGathering)
{
    for (const auto& [tid, stacks] : pGathering->m_pending)
    {
        for (const auto& [stack, samples] : stacks)
        {
            TakeStack(pGathering, tid, stack, 0, samples);
        }
    }
    pGathering->m_pending.clear();
    pGathering->m_pendingCount = 0;
}

// What lay at an address may depend on the time.
void AddSample(Gathering* pGathering, const SampleRecord& sample)
{
    if (!pGathering->m_pSymbols->m_map.m_isStable)
    {
        TakeStack(pGathering, sample.m_hdr.m_tid, sample.m_callStack, sample.m_hdr.m_startTime, 1);
        return;
    }
    uint64_t& samples = pGathering->m_pending[sample.m_hdr.m_tid][sample.m_callStack];
    pGathering->m_pendingCount += samples++ == 0 ? 1 : 0;
    if (pGathering->m_pendingCount == ZORV_STACKS_PENDING)
    {
        TakePending(pGathering);
    }
}

void AddEvents(ThreadSamples* pThread, const std::vector<ZorvUmsEventData>& events)
{
    pThread->m_eventSums.resize(std::max(pThread->m_eventSums.size(), events.size()));
    for (std::size_t i = 0; i < events.size(); ++i)
    {
        pThread->m_eventSums[i] += events[i].m_eventCount;
    }
}

struct RecordTaker
{
    Gathering* m_pGathering;

    void NoteTime(const ZorvUmsRecordHdr& hdr, bool isEnd) const
    {
        const ProcessFilter& filter = m_pGathering->m_filter;
        if (hdr.m_tid > 0 && hdr.m_startTime != 0 && IsWanted(filter, hdr.m_tid))
        {
            LifeSpan& span = m_pGathering->m_threads[hdr.m_tid].m_span;
            SeeAt(&span, std::clamp(hdr.m_startTime, std::max<uint64_t>(filter.m_from, 1), filter.m_to));
            span.m_isEnded = span.m_isEnded || isEnd;
        }
    }

    void operator()(const SampleRecord& sample) const
    {
        const SampleView& view = m_pGathering->m_view;
        const ProcessFilter& filter = m_pGathering->m_filter;
        ++m_pGathering->m_process.m_allSamples;
        NoteTime(sample.m_hdr, false);
        if (!IsWanted(filter, sample.m_hdr.m_tid) || sample.m_hdr.m_startTime < filter.m_from ||
            sample.m_hdr.m_startTime >= filter.m_to)
        {
            return;
        }
        ThreadSamples& thread = m_pGathering->m_threads[sample.m_hdr.m_tid];
        AddSample(m_pGathering, sample);
        AddEvents(&thread, sample.m_events);
        if (view.m_depth != 0 && sample.m_callStack.size() >= view.m_depth + ZORV_EXTRA_FRAMES)
        {
            ++thread.m_truncated;
        }
    }

    void operator()(const SampleProcRecord& proc) const
    {
        m_pGathering->m_names.push_back(NameIn(proc));
        if (proc.m_hdr.m_tid > 0 && IsWanted(m_pGathering->m_filter, proc.m_hdr.m_tid))
        {
            m_pGathering->m_threads[proc.m_hdr.m_tid];
        }
        NoteTime(proc.m_hdr, false);
    }

    void operator()(const SampleThreadEndRecord& end) const
    {
        NoteTime(end.m_hdr, true);
    }

    void operator()(const SampleEventsRecord& events) const
    {
        m_pGathering->m_process.m_events = events.m_eventIds;
    }

    template <typename T> void operator()(const T&) const {}
};

void SettleThreads(Gathering* pGathering)
{
    ProcessSamples& process = pGathering->m_process;
    std::unordered_map<int32_t, std::string> names = LastNames(std::move(pGathering->m_names));
    for (auto& [tid, thread] : pGathering->m_threads)
    {
        thread.m_tid = tid;
        thread.m_name = names[tid];
        process.m_samples += thread.m_samples;
        Join(&process.m_span, thread.m_span);
        process.m_threads.push_back(std::move(thread));
    }
    process.m_name = names[static_cast<int32_t>(process.m_pid)];
    std::sort(process.m_threads.begin(), process.m_threads.end(),
              [](const ThreadSamples& a, const ThreadSamples& b)
              { return std::tuple(b.m_samples, a.m_tid) < std::tuple(a.m_samples, b.m_tid); });
}

} // namespace

uint32_t ChildOf(StackTree* pTree, uint32_t parent, uint32_t function)
{
    if (pTree->m_nodes.empty())
    {
        pTree->m_nodes.push_back({});
    }
    const auto next = static_cast<uint32_t>(pTree->m_nodes.size());
    const auto [at, isNew] = pTree->m_children.emplace(uint64_t{parent} << 32 | function, next);
    if (isNew)
    {
        pTree->m_nodes.push_back({parent, function, 0});
    }
    return at->second;
}

StackIds IdsOfStack(ProcessSymbols* pSymbols, const std::vector<uint64_t>& stack, uint64_t time,
                    bool withAgentFrames)
{
    StackIds ids;
    const std::size_t own = FirstOwnFrame(pSymbols, stack, time);
    for (std::size_t i = withAgentFrames ? 0 : own; i < stack.size(); ++i)
    {
        const CodePlace& place = PlaceOf(pSymbols, FrameAddress(pSymbols, stack, i, own, time), time);
        ids.m_functions.insert(ids.m_functions.end(), place.m_functions.begin(), place.m_functions.end());
        ids.m_lines.insert(ids.m_lines.end(), place.m_lines.begin(), place.m_lines.end());
    }
    return ids;
}

void AddStack(ThreadSamples* pThread, const std::vector<uint32_t>& functions, bool withStacks, uint64_t samples)
{
    pThread->m_samples += samples;
    CountOnce(&pThread->m_functions, functions, samples);
    if (!withStacks || functions.empty())
    {
        return;
    }
    uint32_t node = 0;
    for (auto function = functions.rbegin(); function != functions.rend(); ++function)
    {
        node = ChildOf(&pThread->m_stacks, node, *function);
    }
    pThread->m_stacks.m_nodes[node].m_self += samples;
}

void AddFunctions(FunctionCounts* pCounts, const FunctionCounts& more, double nsPerSample)
{
    for (const auto& [function, count] : more)
    {
        FunctionCount& sum = (*pCounts)[function];
        sum.m_self += count.m_self;
        sum.m_total += count.m_total;
        sum.m_selfNs += static_cast<double>(count.m_self) * nsPerSample;
        sum.m_totalNs += static_cast<double>(count.m_total) * nsPerSample;
    }
}

ProcessSamples ReadSampleFacts(const std::string& path, ProcessSymbols* pSymbols, const SampleView& view,
                               const ProcessFilter& filter)
{
    Gathering gathering{{}, pSymbols, view, filter, {}, {}, {}, 0};
    const auto pFile = OpenRecordFile(path);
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        std::visit(RecordTaker{&gathering}, record.m_body);
    }
    TakePending(&gathering);
    ProcessSamples& process = gathering.m_process;
    process.m_path = path;
    process.m_isEmpty = !pFile->m_header.m_isPresent;
    process.m_pid = pFile->m_header.m_pid;
    process.m_mpiRankId = pFile->m_header.m_mpiRankId;
    process.m_damage = pFile->m_damage;
    process.m_unreadBytes = pFile->m_unreadBytes;
    SettleThreads(&gathering);
    return process;
}

} // namespace qelix
