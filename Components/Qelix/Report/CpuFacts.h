// Where the samples of a session fell, ranked.
#pragma once

#include "Report/SessionFacts.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qelix
{

struct FunctionRow
{
    const Function* m_pFunction = nullptr;
    FunctionCount m_count;
};

// Most time in the function itself first, then most in what it calls; equal ones by name. Samples alone tell
// where they were not weighed.
std::vector<FunctionRow> RankedFunctions(const Symbolizer& symbolizer, const FunctionCounts& counts);

struct ModuleRow
{
    std::string m_path;
    uint64_t m_self = 0;
};

std::vector<ModuleRow> RankedModules(const Symbolizer& symbolizer, const FunctionCounts& counts);

struct ThreadRow
{
    const ProcessFacts* m_pProcess = nullptr;
    const ThreadSamples* m_pThread = nullptr;
};

std::vector<ThreadRow> RankedThreads(const SessionFacts& session); // those that have a sample

FunctionCounts FunctionsOf(const ProcessSamples& process);
FunctionCounts FunctionsOf(const SessionFacts& session);

// CPU time that so many samples of the session, or of one process, stand for. A timer that fired while its last
// signal was still pending made no sample: what was missed is shared out among those that were made.
uint64_t SampledNs(const SessionFacts& session, uint64_t samples);
uint64_t SampledNs(const SessionFacts& session, const ProcessFacts& process, uint64_t samples);
double NsPerSample(const SessionFacts& session, const ProcessFacts& process);
double SampledNs(const SessionFacts& session); // all of them, each weighed as its process asks for

} // namespace qelix
