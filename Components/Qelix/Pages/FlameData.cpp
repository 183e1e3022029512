#include "Pages/FlameData.h"

#include "Report/CpuFacts.h"

#include <algorithm>
#include <map>
#include <unordered_map>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_LONGEST_NAME = 600; // of a function, in the page
constexpr std::size_t ZORV_FLAME_THREADS = 500;

// Functions of the page: those of the session that a kept node names, and what stands for left-out ones.
struct FunctionList
{
    PageJson m_list = PageJson::array();
    std::unordered_map<uint32_t, std::size_t> m_indexOf;
    std::map<std::string, std::size_t> m_specials;
};

std::string Shortened(const std::string& name)
{
    return name.size() <= ZORV_LONGEST_NAME ? name : name.substr(0, ZORV_LONGEST_NAME) + "…";
}

std::size_t IndexOf(FunctionList* pList, const Symbolizer& symbolizer, uint32_t function)
{
    const auto [at, isNew] = pList->m_indexOf.emplace(function, pList->m_list.size());
    if (isNew)
    {
        const Function& known = symbolizer.m_functions[function];
        pList->m_list.push_back({Shortened(known.m_name), Shortened(known.m_module)});
    }
    return at->second;
}

std::size_t IndexOfSpecial(FunctionList* pList, const char* pName)
{
    const auto [at, isNew] = pList->m_specials.emplace(pName, pList->m_list.size());
    if (isNew)
    {
        pList->m_list.push_back({pName, ""});
    }
    return at->second;
}

// Samples of each node and of all that it calls; the root's are the thread's, with those that have no stack.
std::vector<uint64_t> TotalsOf(const ThreadSamples& thread)
{
    const std::vector<StackNode>& nodes = thread.m_stacks.m_nodes;
    std::vector<uint64_t> totals(std::max<std::size_t>(nodes.size(), 1));
    for (std::size_t node = nodes.size(); node-- > 1;)
    {
        totals[node] += nodes[node].m_self;
        totals[nodes[node].m_parent] += totals[node];
    }
    totals[0] = thread.m_samples;
    return totals;
}

// Nodes with fewer samples are left out: what a node calls has no more than the node itself, so no kept node
// loses its parent.
uint64_t LeastKept(const std::vector<ThreadRow>& threads, std::size_t most)
{
    std::vector<uint64_t> all;
    for (const ThreadRow& row : threads)
    {
        const std::vector<uint64_t> totals = TotalsOf(*row.m_pThread);
        all.insert(all.end(), totals.begin() + 1, totals.end());
    }
    if (all.size() <= most)
    {
        return 1;
    }
    const auto at = all.begin() + static_cast<std::ptrdiff_t>(most);
    std::nth_element(all.begin(), at, all.end(), std::greater<>());
    return *at + 1;
}

struct NodeLists
{
    PageJson m_parents = PageJson::array();
    PageJson m_functions = PageJson::array();
    PageJson m_self = PageJson::array();
};

void AddNode(NodeLists* pLists, std::size_t parent, std::size_t function, uint64_t self)
{
    pLists->m_parents.push_back(parent);
    pLists->m_functions.push_back(function);
    pLists->m_self.push_back(self);
}

// Returns how many nodes were left out.
uint64_t AddThread(const ThreadSamples& thread, const Symbolizer& symbolizer, uint64_t least,
                   FunctionList* pFunctions, NodeLists* pLists)
{
    const std::vector<StackNode>& nodes = thread.m_stacks.m_nodes;
    const std::vector<uint64_t> totals = TotalsOf(thread);
    std::vector<std::size_t> placeOf(totals.size());
    std::map<std::size_t, uint64_t> smaller; // samples of left-out nodes, by the place of what calls them
    uint64_t leftOut = 0;
    uint64_t withStack = 0;
    for (std::size_t node = 1; node < nodes.size(); ++node)
    {
        const uint32_t parent = nodes[node].m_parent;
        withStack += nodes[node].m_self;
        if (totals[node] >= least)
        {
            AddNode(pLists, placeOf[parent], IndexOf(pFunctions, symbolizer, nodes[node].m_function),
                    nodes[node].m_self);
            placeOf[node] = pLists->m_parents.size();
            continue;
        }
        ++leftOut;
        placeOf[node] = SIZE_MAX;
        if (placeOf[parent] != SIZE_MAX)
        {
            smaller[placeOf[parent]] += totals[node];
        }
    }
    for (const auto& [place, samples] : smaller)
    {
        AddNode(pLists, place, IndexOfSpecial(pFunctions, "(smaller stacks)"), samples);
    }
    if (withStack < thread.m_samples)
    {
        AddNode(pLists, 0, IndexOfSpecial(pFunctions, "(no frame of the program)"),
                thread.m_samples - withStack);
    }
    return leftOut;
}

// The samples need not tell it: both files of a process have names.
std::string NameOf(const ProcessFacts& process, const ThreadSamples& thread)
{
    for (const ThreadFacts& other : process.m_trace.m_threads)
    {
        if (thread.m_name.empty() && other.m_tid == thread.m_tid)
        {
            return other.m_name;
        }
    }
    return thread.m_name;
}

PageJson ThreadData(const ProcessFacts& process, const ThreadSamples& thread, double nsPerSample,
                    NodeLists lists)
{
    PageJson json = {{"pid", process.m_id.m_pid}, {"mark", process.m_id.m_mark}, {"tid", thread.m_tid}};
    json["rank"] = process.m_mpiRankId;
    json["process"] = process.m_name;
    json["name"] = NameOf(process, thread);
    json["samples"] = thread.m_samples;
    json["sampleNs"] = nsPerSample;
    json["parents"] = std::move(lists.m_parents);
    json["functions"] = std::move(lists.m_functions);
    json["self"] = std::move(lists.m_self);
    return json;
}

} // namespace

PageJson FlameData(const SessionFacts& session, std::size_t most)
{
    std::vector<ThreadRow> rows = RankedThreads(session);
    const uint64_t least = LeastKept(rows, most);
    FunctionList functions;
    PageJson threads = PageJson::array();
    uint64_t hiddenNodes = 0;
    uint64_t hiddenSamples = 0;
    double hiddenNs = 0;
    for (std::size_t i = 0; i < rows.size(); ++i)
    {
        if (i >= ZORV_FLAME_THREADS)
        {
            hiddenSamples += rows[i].m_pThread->m_samples;
            hiddenNs += rows[i].m_ns;
            hiddenNodes += rows[i].m_pThread->m_stacks.m_nodes.size();
            continue;
        }
        NodeLists lists;
        hiddenNodes += AddThread(*rows[i].m_pThread, *session.m_pSymbolizer, least, &functions, &lists);
        threads.push_back(ThreadData(*rows[i].m_pProcess, *rows[i].m_pThread,
                                     NsPerSample(session, *rows[i].m_pProcess), std::move(lists)));
    }
    if (hiddenSamples != 0)
    {
        NodeLists lists;
        AddNode(&lists, 0, IndexOfSpecial(&functions, "(smaller stacks)"), hiddenSamples);
        ThreadSamples others{0, "(further threads)", hiddenSamples};
        threads.push_back(
            ThreadData({}, others, hiddenNs / static_cast<double>(hiddenSamples), std::move(lists)));
    }
    PageJson json = {{"samples", SampleCount(session)}, {"sampledNs", WholeNs(SampledNs(session))}};
    json["processes"] = session.m_processes.size();
    json["hiddenNodes"] = hiddenNodes;
    json["hiddenThreads"] = rows.size() - std::min(rows.size(), ZORV_FLAME_THREADS);
    json["functions"] = std::move(functions.m_list);
    json["threads"] = std::move(threads);
    return json;
}

} // namespace qelix
