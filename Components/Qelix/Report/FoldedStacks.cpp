#include "Report/FoldedStacks.h"

#include <algorithm>
#include <fmt/format.h>

namespace qelix
{

// A frame ends at ';' and a stack at its last blank, so a name may hold no ';' and no line break.
std::string FoldedFrame(const std::string& name)
{
    std::string text = PrintableText(name);
    std::replace(text.begin(), text.end(), ';', ':');
    return text;
}

std::string FoldedLabel(const std::string& name, int64_t id)
{
    return fmt::format("{} ({})", name.empty() ? "-" : FoldedFrame(name), id);
}

namespace
{

std::string FramesOf(const SessionFacts& session, const StackTree& tree, uint32_t node)
{
    std::vector<uint32_t> functions;
    for (; node != 0; node = tree.m_nodes[node].m_parent)
    {
        functions.push_back(tree.m_nodes[node].m_function);
    }
    std::string text;
    for (auto function = functions.rbegin(); function != functions.rend(); ++function)
    {
        text += ';' + FoldedFrame(session.m_pSymbolizer->m_functions[*function].m_name);
    }
    return text;
}

} // namespace

void WriteFoldedStacks(const SessionFacts& session, const TextSink& sink)
{
    for (const ProcessFacts& process : session.m_processes)
    {
        for (const ThreadSamples& thread : process.m_samples.m_threads)
        {
            const std::string prefix =
                FoldedLabel(process.m_name, process.m_pid) + ';' + FoldedLabel(thread.m_name, thread.m_tid);
            const std::vector<StackNode>& nodes = thread.m_stacks.m_nodes;
            for (uint32_t node = 1; node < nodes.size(); ++node)
            {
                if (nodes[node].m_self != 0)
                {
                    sink(fmt::format("{}{} {}\n", prefix, FramesOf(session, thread.m_stacks, node),
                                     nodes[node].m_self));
                }
            }
        }
    }
}

} // namespace qelix
