// All that a report says of a session; the text and the JSON form print the same facts.
#pragma once

#include "Report/ProcessTree.h"
#include "Report/RecordFilter.h"
#include "Report/SampleFacts.h"
#include "Report/TraceFacts.h"
#include "Session/AgentConfiguration.h"
#include "Session/AgentReports.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qelix
{

struct ProcessFacts
{
    MarkedPid m_id;
    std::string m_name; // of its main thread
    int32_t m_mpiRankId = 0;
    TraceFacts m_trace;
    ProcessSamples m_samples;
    LifeSpan m_span;                   // until the last time that anything of it was recorded
    std::optional<Damage> m_mapDamage; // of the metadata file
};

struct SessionFacts
{
    std::string m_path;
    SessionRecord m_record; // what qelix noted of the run
    RecordedSettings m_settings;
    uint64_t m_bytes = 0; // of all its files
    LifeSpan m_span;
    uint64_t m_periodNs =
        0; // CPU time that a sample stands for: the interval, or the tick where that is longer
    std::shared_ptr<Symbolizer> m_pSymbolizer;
    std::vector<ProcessFacts> m_processes; // longest total first
    ProcessTree m_tree;
    std::vector<LockFacts> m_locks; // of the whole session, longest total first; the ten first ones by default
    uint64_t m_lockCount = 0;       // how many there are, and
    uint64_t m_foldedLocks = 0;     // how many more there were that were waited for least
    std::vector<AgentError> m_agentErrors;
    AgentLogFacts m_log;
};

struct SessionView
{
    RecordFilter m_filter;
    bool m_isWithoutSamples = false;
    std::size_t m_locksKept = 10; // a session of many processes is to need the memory of one
};

// Fails when the path is no session directory.
SessionFacts ReadSessionFacts(const std::string& path, const SampleView& samples = {},
                              const SessionView& view = {});

bool IsDamaged(const SessionFacts& session);

// Of the run as the launcher saw it: what the records span is less when they were stopped, or lost to a kill.
uint64_t WallNs(const SessionFacts& session);

uint64_t CallCount(const TraceFacts& process);
uint64_t SampleCount(const SessionFacts& session);

// The calls of each class, in the order of the classes; those without a call are left out.
std::vector<std::pair<TraceClass, CallFacts>> CallsByClass(const std::vector<NamedCalls>& calls);
std::vector<std::pair<TraceClass, CallFacts>> CallsByClass(const TraceFacts& process);

} // namespace qelix
