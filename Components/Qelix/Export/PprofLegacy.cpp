// The older profile of pprof, which google-pprof reads: a list of names by address, and the stacks of all
// threads together as machine words. It has no room for calls, nor for threads.
#include "Export/Formats.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <map>

namespace qelix
{
namespace
{

constexpr uint64_t ZORV_NS_PER_US = 1000;
constexpr uint64_t ZORV_FIRST_ADDRESS = 0x1000;
constexpr uint64_t ZORV_ADDRESS_STEP = 0x10;

// Processes have different code at one address: a place has an address of its own here.
uint64_t AddressOf(uint32_t place)
{
    return ZORV_FIRST_ADDRESS + place * ZORV_ADDRESS_STEP;
}

// Two strokes stand between a function and what is inlined in it.
std::string NameWithoutStrokes(const std::string& name)
{
    std::string text = PrintableText(name);
    for (std::size_t at = text.find("--"); at != std::string::npos; at = text.find("--", at))
    {
        text.insert(at + 1, 1, ' ');
    }
    return text;
}

void PutSymbols(const SessionStream& stream, Output* pOutput)
{
    const std::vector<SurveyedProcess>& processes = stream.m_survey.m_processes;
    Put(pOutput, fmt::format("--- symbol\nbinary={}\n",
                             processes.empty() ? "-" : PrintableText(processes.front().m_name)));
    for (uint32_t place = 0; place < stream.m_stacks.m_places.size(); ++place)
    {
        const std::vector<uint32_t>& functions = stream.m_stacks.m_places[place].m_pPlace->m_functions;
        std::string names;
        for (auto function = functions.rbegin(); function != functions.rend(); ++function)
        {
            names += (names.empty() ? "" : "--") +
                     NameWithoutStrokes(stream.m_symbolizer.m_functions[*function].m_name);
        }
        Put(pOutput, fmt::format("{:#018x} {}\n", AddressOf(place), names));
    }
    Put(pOutput, "---\n--- profile\n");
}

void PutWords(Output* pOutput, const std::vector<uint64_t>& words)
{
    Put(pOutput, {reinterpret_cast<const char*>(words.data()), words.size() * sizeof(words[0])});
}

void PutStack(const SessionStream& stream, uint32_t stack, uint64_t count, Output* pOutput)
{
    std::vector<uint64_t> words = {count, 0};
    for (uint32_t frame = stack; frame != 0; frame = stream.m_stacks.m_frames[frame].m_parent)
    {
        words.push_back(AddressOf(stream.m_stacks.m_frames[frame].m_place)); // innermost first
    }
    words[1] = words.size() - 2;
    PutWords(pOutput, words);
}

} // namespace

void WritePprofLegacy(SessionStream* pStream, Output* pOutput)
{
    // There is one period for all: a sample that stands for more of them counts for as many.
    const double period = static_cast<double>(std::max<uint64_t>(pStream->m_survey.m_periodNs, 1));
    std::map<uint32_t, double> counts; // of periods, by stack
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        const double weight = process.m_nsPerSample == 0 ? 1 : process.m_nsPerSample / period;
        StreamRecords(pStream, process, {nullptr, [&counts, weight](const StreamedSample& sample) {
                                             counts[sample.m_stack] += weight;
                                         }});
    }
    counts.erase(0); // a stack without a frame would be the mark of the end
    PutSymbols(*pStream, pOutput);
    constexpr uint64_t headerWords = 3; // that follow: version, period, padding
    PutWords(pOutput,
             {0, headerWords, 0, std::max<uint64_t>(pStream->m_survey.m_periodNs / ZORV_NS_PER_US, 1), 0});
    for (const auto& [stack, count] : counts)
    {
        PutStack(*pStream, stack, std::max<uint64_t>(static_cast<uint64_t>(std::llround(count)), 1), pOutput);
    }
    PutWords(pOutput, {0, 1, 0});
}

} // namespace qelix
