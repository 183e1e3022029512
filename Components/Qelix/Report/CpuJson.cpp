#include "Report/CpuJson.h"

#include "Report/CpuFacts.h"

#include <algorithm>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

Json FunctionsJson(const SessionFacts& session, const FunctionCounts& counts)
{
    Json list = Json::array();
    for (const FunctionRow& row : RankedFunctions(*session.m_pSymbolizer, counts))
    {
        list.push_back({{"name", row.m_pFunction->m_name},
                        {"module", row.m_pFunction->m_module},
                        {"self", row.m_count.m_self},
                        {"total", row.m_count.m_total},
                        {"selfNs", WholeNs(row.m_count.m_selfNs)},
                        {"totalNs", WholeNs(row.m_count.m_totalNs)}});
    }
    return list;
}

Json CpuThreadsJson(const SessionFacts& session)
{
    Json list = Json::array();
    for (const ThreadRow& row : RankedThreads(session))
    {
        const ProcessFacts* pProcess = row.m_pProcess;
        const ThreadSamples* pThread = row.m_pThread;
        Json events = Json::array();
        for (std::size_t i = 0; i < std::min(pThread->m_eventSums.size(), pProcess->m_samples.m_events.size());
             ++i)
        {
            events.push_back({{"code", pProcess->m_samples.m_events[i]}, {"count", pThread->m_eventSums[i]}});
        }
        list.push_back({{"pid", pProcess->m_id.m_pid},
                        {"mark", pProcess->m_id.m_mark},
                        {"tid", pThread->m_tid},
                        {"name", pThread->m_name},
                        {"samples", pThread->m_samples},
                        {"truncated", pThread->m_truncated},
                        {"events", events},
                        {"functions", FunctionsJson(session, FunctionsOf(session, row))}});
    }
    return list;
}

} // namespace

nlohmann::ordered_json CpuJson(const SessionFacts& session)
{
    const FunctionCounts counts = FunctionsOf(session);
    Json modules = Json::array();
    for (const ModuleRow& row : RankedModules(*session.m_pSymbolizer, counts))
    {
        modules.push_back({{"path", row.m_path}, {"self", row.m_self}, {"selfNs", WholeNs(row.m_selfNs)}});
    }
    Json processes = Json::array();
    for (const ProcessFacts& process : session.m_processes)
    {
        if (process.m_samples.m_samples != 0)
        {
            processes.push_back({{"pid", process.m_id.m_pid},
                                 {"mark", process.m_id.m_mark},
                                 {"name", process.m_name},
                                 {"samples", process.m_samples.m_samples},
                                 {"functions", FunctionsJson(session, FunctionsOf(session, process))}});
        }
    }
    Json json = {{"samples", SampleCount(session)}, {"periodNs", session.m_periodNs}};
    json["sampledNs"] = WholeNs(SampledNs(session));
    json["functions"] = FunctionsJson(session, counts);
    json["modules"] = std::move(modules);
    json["processes"] = std::move(processes);
    json["threads"] = CpuThreadsJson(session);
    return json;
}

} // namespace qelix
