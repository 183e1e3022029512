// What one sample file says of its process, gathered in one pass over the file.
#pragma once

#include "Reader/Damage.h"
#include "Report/LifeSpan.h"
#include "Report/RecordFilter.h"
#include "Symbols/Symbolizer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace qelix
{

struct FunctionCount
{
    uint64_t m_self = 0;  // samples that interrupted it
    uint64_t m_total = 0; // samples whose stack holds it, however often
    double m_selfNs = 0;  // the CPU time that they stand for, once they are weighed
    double m_totalNs = 0;
};

using FunctionCounts = std::unordered_map<uint32_t, FunctionCount>; // by the symbolizer's ids

// The stacks of a thread, as a tree from the outermost frame inwards. A node's parent stands before it.
struct StackNode
{
    uint32_t m_parent = 0;
    uint32_t m_function = 0;
    uint64_t m_self = 0;
};

struct StackTree
{
    std::vector<StackNode> m_nodes;                    // the first one is the root and no function
    std::unordered_map<uint64_t, uint32_t> m_children; // by parent and function
};

struct ThreadSamples
{
    int32_t m_tid = 0;
    std::string m_name;
    uint64_t m_samples = 0;
    uint64_t m_truncated = 0; // their stacks are deeper than what was recorded
    FunctionCounts m_functions;
    FunctionCounts m_lines;            // by ids of lines; only where it is asked for
    StackTree m_stacks;                // only where it is asked for
    std::vector<uint64_t> m_eventSums; // of the counters, in the order of the process's events
    LifeSpan m_span;
};

struct ProcessSamples
{
    std::string m_path;
    bool m_isEmpty = true;
    int64_t m_pid = 0;
    int32_t m_mpiRankId = 0;
    std::string m_name; // of its main thread
    uint64_t m_samples = 0;
    uint64_t m_allSamples = 0; // those that were not asked for as well
    LifeSpan m_span;
    std::vector<ThreadSamples> m_threads; // most samples first
    std::vector<uint64_t> m_events;       // codes of the counters
    std::optional<Damage> m_damage;
    uint64_t m_unreadBytes = 0;
};

struct SampleView
{
    bool m_withStacks = false;
    bool m_withLines = false;
    bool m_withAgentFrames = false; // those of the agent's handler and of the signal's delivery
    uint32_t m_depth = 0;           // that was asked for; 0: not known
};

ProcessSamples ReadSampleFacts(const std::string& path, ProcessSymbols* pSymbols, const SampleView& view,
                               const ProcessFilter& filter = {});

// Adds a stack that so many samples have, innermost function first.
void AddStack(ThreadSamples* pThread, const std::vector<uint32_t>& functions, bool withStacks,
              uint64_t samples = 1);

// nsPerSample: CPU time that each of the counted samples stands for.
void AddFunctions(FunctionCounts* pCounts, const FunctionCounts& more, double nsPerSample = 0);

// Finds or makes the node of a function called from that of the parent.
uint32_t ChildOf(StackTree* pTree, uint32_t parent, uint32_t function);

// Ids from the innermost frame to the outermost, inlined functions included.
struct StackIds
{
    std::vector<uint32_t> m_functions;
    std::vector<uint32_t> m_lines;
};

StackIds IdsOfStack(ProcessSymbols* pSymbols, const std::vector<uint64_t>& stack, uint64_t time,
                    bool withAgentFrames);

} // namespace qelix
