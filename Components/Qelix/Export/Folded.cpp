#include "Export/Folded.h"

#include "Export/Formats.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace qelix
{
namespace
{

struct ThreadStack
{
    int32_t m_tid;
    uint32_t m_stack;
    auto operator<=>(const ThreadStack&) const = default;
};

std::string LineOf(const SessionStream& stream, const SurveyedProcess& process, const ThreadStack& stack)
{
    std::string line = FoldedLabel(process.m_name, process.m_pid) + ';' +
                       FoldedLabel(process.m_threads.at(stack.m_tid).m_name, stack.m_tid);
    for (const uint32_t function : FunctionsOfStack(stream.m_stacks, stack.m_stack))
    {
        line += ';' + FoldedFrame(stream.m_symbolizer.m_functions[function].m_name);
    }
    return line;
}

} // namespace

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

void WriteFolded(SessionStream* pStream, Output* pOutput)
{
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        std::map<ThreadStack, uint64_t> counts;
        const RecordSink sink{nullptr, [&counts](const StreamedSample& sample) {
                                  ++counts[{sample.m_tid, sample.m_stack}];
                              }};
        StreamRecords(pStream, process, sink);
        std::map<std::string, uint64_t> lines; // several places of a function give one line
        for (const auto& [stack, count] : counts)
        {
            lines[LineOf(*pStream, process, stack)] += count;
        }
        for (const auto& [line, count] : lines)
        {
            Put(pOutput, fmt::format("{} {}\n", line, count));
        }
    }
}

} // namespace qelix
