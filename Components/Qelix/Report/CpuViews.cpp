#include "Report/CpuViews.h"

#include "Report/CpuFacts.h"
#include "Symbols/ModuleFacts.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <tuple>

namespace qelix
{
namespace
{

constexpr TableColumn g_timeColumns[] = {
    {"selfShare", "self", ZORV_CELL_SHARE},
    {"totalShare", "total", ZORV_CELL_SHARE},
    {"selfNs", "self", ZORV_CELL_TIME},
    {"totalNs", "total", ZORV_CELL_TIME},
};

Table TableOfTimes(std::initializer_list<TableColumn> columns)
{
    Table table;
    table.m_columns.assign(std::begin(g_timeColumns), std::end(g_timeColumns));
    table.m_columns.insert(table.m_columns.end(), columns);
    return table;
}

double Share(double part, double whole)
{
    return whole == 0 ? 0 : part / whole;
}

std::vector<Cell>& AddTimes(Table* pTable, double self, double total, double whole)
{
    return AddRow(pTable, Share(self, whole), Share(total, whole), static_cast<uint64_t>(self),
                  static_cast<uint64_t>(total));
}

struct Place
{
    const std::string& m_source;
    uint32_t m_line;
};

void AddPlace(std::vector<Cell>* pRow, const std::string& name, const Function& function, const Place& place)
{
    pRow->push_back(TextCell(name));
    pRow->push_back(TextCell(ModuleName(function.m_module)));
    pRow->push_back(TextCell(place.m_source.empty() || place.m_line == 0
                                 ? place.m_source
                                 : fmt::format("{}:{}", place.m_source, place.m_line)));
}

// The stacks of all threads as one tree, with the time of each node and of what lies below it.
struct CallTree
{
    StackTree m_tree;
    std::vector<double> m_self;
    std::vector<double> m_total;
    std::vector<std::vector<uint32_t>> m_callees; // most time first
};

void AddThread(CallTree* pTree, const StackTree& stacks, double nsPerSample)
{
    std::vector<uint32_t> nodeOf(stacks.m_nodes.size());
    for (uint32_t i = 1; i < stacks.m_nodes.size(); ++i)
    {
        const StackNode& node = stacks.m_nodes[i];
        nodeOf[i] = ChildOf(&pTree->m_tree, nodeOf[node.m_parent], node.m_function);
        pTree->m_self.resize(pTree->m_tree.m_nodes.size());
        pTree->m_self[nodeOf[i]] += static_cast<double>(node.m_self) * nsPerSample;
    }
}

void SettleTree(CallTree* pTree)
{
    const std::vector<StackNode>& nodes = pTree->m_tree.m_nodes;
    pTree->m_total = pTree->m_self;
    pTree->m_callees.resize(nodes.size());
    for (uint32_t i = static_cast<uint32_t>(nodes.size()); i > 1; --i)
    {
        pTree->m_total[nodes[i - 1].m_parent] += pTree->m_total[i - 1];
        pTree->m_callees[nodes[i - 1].m_parent].push_back(i - 1);
    }
    for (std::vector<uint32_t>& callees : pTree->m_callees)
    {
        std::stable_sort(callees.begin(), callees.end(),
                         [pTree](uint32_t a, uint32_t b) { return pTree->m_total[a] > pTree->m_total[b]; });
    }
}

CallTree TreeOf(const SessionFacts& session)
{
    CallTree tree;
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadSamples& thread : process.m_samples.m_threads)
        {
            AddThread(&tree, thread.m_stacks, NsPerSample(session, process));
        }
    }
    SettleTree(&tree);
    return tree;
}

struct TreeStep
{
    uint32_t m_node;
    uint64_t m_depth;
};

} // namespace

Table FunctionsView(const SessionFacts& session)
{
    Table table = TableOfTimes({{"samples", "samples", ZORV_CELL_COUNT},
                                {"function", "function", ZORV_CELL_TEXT},
                                {"module", "module", ZORV_CELL_TEXT},
                                {"source", "source", ZORV_CELL_TEXT}});
    const double whole = SampledNs(session);
    for (const auto& [pFunction, count] : RankedFunctions(*session.m_pSymbolizer, FunctionsOf(session)))
    {
        std::vector<Cell>& row = AddTimes(&table, count.m_selfNs, count.m_totalNs, whole);
        row.emplace_back(count.m_self);
        AddPlace(&row, pFunction->m_name, *pFunction, {pFunction->m_source, pFunction->m_line});
    }
    return table;
}

Table LinesView(const SessionFacts& session)
{
    Table table = TableOfTimes({{"function", "function", ZORV_CELL_TEXT},
                                {"module", "module", ZORV_CELL_TEXT},
                                {"line", "line", ZORV_CELL_TEXT}});
    FunctionCounts counts;
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadSamples& thread : process.m_samples.m_threads)
        {
            AddFunctions(&counts, thread.m_lines, NsPerSample(session, process));
        }
    }
    std::vector<std::pair<uint32_t, FunctionCount>> rows(counts.begin(), counts.end());
    std::sort(rows.begin(), rows.end(),
              [](const auto& a, const auto& b)
              {
                  return std::tie(b.second.m_selfNs, b.second.m_totalNs, a.first) <
                         std::tie(a.second.m_selfNs, a.second.m_totalNs, b.first);
              });
    const Symbolizer& symbolizer = *session.m_pSymbolizer;
    const double whole = SampledNs(session);
    for (const auto& [id, count] : rows)
    {
        const CodeLine& line = symbolizer.m_lines[id];
        const Function& function = symbolizer.m_functions[line.m_function];
        AddPlace(&AddTimes(&table, count.m_selfNs, count.m_totalNs, whole), function.m_name, function,
                 {symbolizer.m_sources[line.m_source], line.m_line});
    }
    return table;
}

Table CallTreeView(const SessionFacts& session, double leastShare, bool isIndented)
{
    Table table = TableOfTimes({{"depth", "depth", ZORV_CELL_COUNT},
                                {"function", "function", ZORV_CELL_TEXT},
                                {"module", "module", ZORV_CELL_TEXT},
                                {"source", "source", ZORV_CELL_TEXT}});
    const CallTree tree = TreeOf(session);
    const double whole = SampledNs(session);
    std::vector<TreeStep> steps = {{0, 0}};
    while (!steps.empty() && !tree.m_callees.empty())
    {
        const TreeStep step = steps.back();
        steps.pop_back();
        const std::vector<uint32_t>& callees = tree.m_callees[step.m_node];
        for (auto callee = callees.rbegin(); callee != callees.rend(); ++callee)
        {
            if (Share(tree.m_total[*callee], whole) >= leastShare)
            {
                steps.push_back({*callee, step.m_depth + 1});
            }
        }
        if (step.m_node != 0)
        {
            const Function& function =
                session.m_pSymbolizer->m_functions[tree.m_tree.m_nodes[step.m_node].m_function];
            std::vector<Cell>& row =
                AddTimes(&table, tree.m_self[step.m_node], tree.m_total[step.m_node], whole);
            row.emplace_back(step.m_depth);
            const std::string indent(isIndented ? 2 * (step.m_depth - 1) : 0, ' ');
            AddPlace(&row, indent + function.m_name, function, {function.m_source, function.m_line});
        }
    }
    return table;
}

Table BriefTable(const Table& table)
{
    constexpr std::string_view dropped[] = {"totalNs", "samples", "depth", "buildId"};
    constexpr std::string_view shortened[] = {"source", "line"};
    Table brief;
    brief.m_notes = table.m_notes;
    brief.m_rows.resize(table.m_rows.size());
    for (std::size_t column = 0; column < table.m_columns.size(); ++column)
    {
        const std::string_view key = table.m_columns[column].m_pKey;
        if (std::find(std::begin(dropped), std::end(dropped), key) != std::end(dropped))
        {
            continue;
        }
        const bool isPath = std::find(std::begin(shortened), std::end(shortened), key) != std::end(shortened);
        brief.m_columns.push_back(table.m_columns[column]);
        for (std::size_t row = 0; row < table.m_rows.size(); ++row)
        {
            const Cell& cell = table.m_rows[row][column];
            const auto* pText = std::get_if<std::string>(&cell);
            brief.m_rows[row].push_back(isPath && pText != nullptr ? TextCell(ModuleName(*pText)) : cell);
        }
    }
    return brief;
}

Table SymbolsView(const SessionFacts& session)
{
    Table table;
    table.m_columns = {{"addresses", "addresses", ZORV_CELL_COUNT}, {"named", "named", ZORV_CELL_COUNT},
                       {"withLine", "with line", ZORV_CELL_COUNT},  {"module", "module", ZORV_CELL_TEXT},
                       {"buildId", "build-id", ZORV_CELL_TEXT},     {"remarks", "remarks", ZORV_CELL_TEXT}};
    for (const ModuleFacts& module : ModulesOf(*session.m_pSymbolizer))
    {
        AddRow(&table, module.m_addresses, module.m_named, module.m_withLine, TextCell(module.m_path),
               TextCell(module.m_buildId), TextCell(fmt::format("{}", fmt::join(RemarksOn(module), "; "))));
    }
    return table;
}

} // namespace qelix
