// Where the samples of a session fell, ranked.
#pragma once

#include "Report/SampleWeight.h"
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
    uint64_t m_self = 0; // samples
    double m_selfNs = 0; // the CPU time that they stand for, once they are weighed
};

std::vector<ModuleRow> RankedModules(const Symbolizer& symbolizer, const FunctionCounts& counts);

struct ThreadRow
{
    const ProcessFacts* m_pProcess = nullptr;
    const ThreadSamples* m_pThread = nullptr;
    double m_ns = 0; // of CPU time
};

// Those that have a sample, most CPU time first.
std::vector<ThreadRow> RankedThreads(const SessionFacts& session);

// Weighed: processes may miss unequal parts of their samples.
FunctionCounts FunctionsOf(const SessionFacts& session, const ProcessFacts& process);
FunctionCounts FunctionsOf(const SessionFacts& session, const ThreadRow& thread);
FunctionCounts FunctionsOf(const SessionFacts& session);

// CPU time that so many samples of a process stand for.
uint64_t SampledNs(const SessionFacts& session, const ProcessFacts& process, uint64_t samples);
double NsPerSample(const SessionFacts& session, const ProcessFacts& process);
double SampledNs(const SessionFacts& session); // all of them, each weighed as its process asks for

} // namespace qelix
