#include "Export/Formats.h"

#include "Report/FoldedStacks.h"

#include <fmt/format.h>
#include <map>

namespace qelix
{

void WriteFolded(SessionStream* pStream, Output* pOutput)
{
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        std::map<std::pair<int32_t, uint32_t>, uint64_t> counts; // by thread and stack
        const RecordSink sink{nullptr, [&counts](const StreamedSample& sample) {
                                  ++counts[{sample.m_tid, sample.m_stack}];
                              }};
        StreamRecords(pStream, process, sink);
        std::map<std::string, uint64_t> lines; // places of one function differ, their lines do not
        for (const auto& [key, count] : counts)
        {
            std::string stack = FoldedLabel(process.m_name, process.m_pid) + ';' +
                                FoldedLabel(process.m_threads.at(key.first).m_name, key.first);
            for (const uint32_t function : FunctionsOfStack(pStream->m_stacks, key.second))
            {
                stack += ';' + FoldedFrame(pStream->m_symbolizer.m_functions[function].m_name);
            }
            lines[stack] += count;
        }
        for (const auto& [stack, count] : lines)
        {
            Put(pOutput, fmt::format("{} {}\n", stack, count));
        }
    }
}

} // namespace qelix
