#include "Report/Report.h"

#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

Json CallsJson(const CallKind& kind, const CallFacts& facts)
{
    return {{"kind", kind.m_pName},
            {"calls", facts.m_calls},
            {"neverReturned", facts.m_neverReturned},
            {"untimed", facts.m_untimed},
            {"totalNs", facts.m_totalNs},
            {"longestNs", facts.m_longestNs},
            {"p50Ns", Percentile(facts.m_durations, 50)},
            {"p99Ns", Percentile(facts.m_durations, 99)}};
}

Json ThreadJson(const ThreadFacts& thread)
{
    Json calls = Json::array();
    for (const auto& [pKind, facts] : thread.m_calls)
    {
        calls.push_back(CallsJson(*pKind, facts));
    }
    return {{"tid", thread.m_tid}, {"name", thread.m_name}, {"totalNs", thread.m_totalNs}, {"calls", calls}};
}

Json DamageJson(const Damage& damage)
{
    return {{"offset", damage.m_offset}, {"reason", damage.m_reason}, {"remedy", DamageRemedy(damage.m_kind)}};
}

Json ProcessJson(const ProcessFacts& process)
{
    Json threads = Json::array();
    for (const ThreadFacts& thread : process.m_threads)
    {
        threads.push_back(ThreadJson(thread));
    }
    Json json = {{"file", process.m_path},
                 {"pid", process.m_pid},
                 {"name", process.m_name},
                 {"mpiRankId", process.m_mpiRankId},
                 {"isEmpty", process.m_isEmpty},
                 {"totalNs", process.m_totalNs},
                 {"unreadBytes", process.m_unreadBytes}};
    json["damage"] = process.m_damage ? DamageJson(*process.m_damage) : Json(nullptr);
    json["threads"] = std::move(threads);
    return json;
}

Json LockJson(const LockFacts& lock)
{
    Json json = {{"address", lock.m_address}, {"pid", lock.m_pid}};
    json.update(CallsJson(*lock.m_pKind, lock.m_calls));
    json["threads"] = lock.m_tids;
    return json;
}

Json NeverReturnedJson(const NeverReturned& call)
{
    return {{"pid", call.m_pid},
            {"tid", call.m_tid},
            {"kind", call.m_pKind->m_pName},
            {"address", call.m_address},
            {"startTime", call.m_startTime},
            {"atLeastNs", call.m_atLeastNs}};
}

Json AgentJson(const SessionFacts& session)
{
    Json errors = Json::array();
    for (const AgentError& error : session.m_agentErrors)
    {
        errors.push_back({{"file", error.m_path},
                          {"pid", error.m_pid},
                          {"code", error.m_code},
                          {"explanation", ExplainAgentError(error)}});
    }
    return {{"lostTraceRecords", session.m_log.m_lostTraceRecords},
            {"lostSampleRecords", session.m_log.m_lostSampleRecords},
            {"logErrorLines", session.m_log.m_errorLines},
            {"firstLogError", session.m_log.m_firstError},
            {"firstLogErrorFile", session.m_log.m_firstErrorFile},
            {"errors", errors}};
}

} // namespace

std::string ReportJson(const SessionFacts& session)
{
    Json processes = Json::array();
    Json locks = Json::array();
    Json neverReturned = Json::array();
    for (const ProcessFacts& process : session.m_processes)
    {
        processes.push_back(ProcessJson(process));
        for (const NeverReturned& call : process.m_neverReturned)
        {
            neverReturned.push_back(NeverReturnedJson(call));
        }
    }
    for (const LockFacts& lock : session.m_locks)
    {
        locks.push_back(LockJson(lock));
    }
    Json json = {{"session", session.m_path}};
    json["thresholdNs"] = session.m_thresholdNs ? Json(*session.m_thresholdNs) : Json(nullptr);
    json["processes"] = std::move(processes);
    json["locks"] = std::move(locks);
    json["neverReturned"] = std::move(neverReturned);
    json["agent"] = AgentJson(session);
    // Names come from the program: bytes that are no UTF-8 are replaced rather than refused.
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace qelix
