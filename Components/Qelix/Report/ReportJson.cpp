#include "Report/CpuJson.h"
#include "Report/Report.h"
#include "Report/ThreadTimes.h"
#include "Symbols/ModuleFacts.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

Json FactsJson(const CallFacts& facts)
{
    return {{"calls", facts.m_calls},
            {"neverReturned", facts.m_neverReturned},
            {"untimed", facts.m_untimed},
            {"totalNs", facts.m_totalNs},
            {"meanNs", MeanNs(facts)},
            {"longestNs", facts.m_longestNs},
            {"p50Ns", Percentile(facts.m_durations, 50)},
            {"p95Ns", Percentile(facts.m_durations, 95)},
            {"p99Ns", Percentile(facts.m_durations, 99)}};
}

Json CallsJson(const NamedCalls& calls)
{
    Json json = {{"class", TraceClassName(ClassOf(*calls.m_pKind))},
                 {"kind", calls.m_pKind->m_pName},
                 {"name", calls.m_name}};
    json.update(FactsJson(calls.m_facts));
    return json;
}

Json ClassesJson(const std::vector<std::pair<TraceClass, CallFacts>>& classes)
{
    Json list = Json::array();
    for (const auto& [traceClass, facts] : classes)
    {
        Json json = {{"class", TraceClassName(traceClass)}};
        json.update(FactsJson(facts));
        list.push_back(std::move(json));
    }
    return list;
}

Json ThreadJson(const ThreadFacts& thread)
{
    Json calls = Json::array();
    for (const NamedCalls& named : thread.m_calls)
    {
        calls.push_back(CallsJson(named));
    }
    Json json = {{"tid", thread.m_tid}, {"name", thread.m_name}, {"totalNs", thread.m_totalNs}};
    json["classes"] = ClassesJson(CallsByClass(thread.m_calls));
    json["calls"] = std::move(calls);
    return json;
}

Json DamageJson(const Damage& damage)
{
    return {{"offset", damage.m_offset}, {"reason", damage.m_reason}, {"remedy", DamageRemedy(damage.m_kind)}};
}

Json OptionalDamageJson(const std::optional<Damage>& damage)
{
    return damage ? DamageJson(*damage) : Json(nullptr);
}

// The mark tells processes of one id apart, in a session that was merged.
void PutProcess(Json* pJson, const MarkedPid& process)
{
    (*pJson)["pid"] = process.m_pid;
    (*pJson)["mark"] = process.m_mark;
}

Json ParentJson(const SessionFacts& session, const MarkedPid& process)
{
    const std::optional<MarkedPid> parent = ParentOf(session.m_tree, process);
    return parent ? Json(parent->m_pid) : Json(nullptr);
}

Json ProcessJson(const SessionFacts& session, const ProcessFacts& process)
{
    const TraceFacts& trace = process.m_trace;
    Json threads = Json::array();
    for (const ThreadFacts& thread : trace.m_threads)
    {
        threads.push_back(ThreadJson(thread));
    }
    Json json = {{"file", trace.m_path}};
    PutProcess(&json, process.m_id);
    json["parent"] = ParentJson(session, process.m_id);
    json["name"] = process.m_name;
    json["mpiRankId"] = process.m_mpiRankId;
    json["isEmpty"] = trace.m_isEmpty;
    json["totalNs"] = trace.m_totalNs;
    json["samples"] = process.m_samples.m_samples;
    json["unreadBytes"] = trace.m_unreadBytes;
    json["damage"] = OptionalDamageJson(trace.m_damage);
    json["sampleDamage"] = OptionalDamageJson(process.m_samples.m_damage);
    json["metadataDamage"] = OptionalDamageJson(process.m_mapDamage);
    json["classes"] = ClassesJson(CallsByClass(trace));
    json["threads"] = std::move(threads);
    return json;
}

Json UnrecordedJson(const SessionFacts& session)
{
    Json list = Json::array();
    for (const UnrecordedProcess& process : session.m_tree.m_unrecorded)
    {
        Json json;
        PutProcess(&json, process.m_process);
        json["parent"] = ParentJson(session, process.m_process);
        json["program"] = process.m_program;
        json["reason"] = process.m_reason;
        list.push_back(std::move(json));
    }
    return list;
}

Json LockJson(const LockFacts& lock)
{
    Json json = {{"address", lock.m_address}};
    PutProcess(&json, lock.m_process);
    json["kind"] = lock.m_pKind->m_pName;
    json.update(FactsJson(lock.m_calls));
    json["name"] = lock.m_name;
    json["isHeap"] = lock.m_isHeap;
    json["firstTid"] = lock.m_firstTid;
    json["stuckNs"] = lock.m_stuckNs;
    json["meanWaiters"] = MeanWaiters(lock);
    json["lastAcquirers"] = Json::array();
    for (const LockAcquirer& acquirer : lock.m_lastAcquirers)
    {
        if (acquirer.m_time != 0)
        {
            json["lastAcquirers"].push_back(acquirer.m_tid);
        }
    }
    json["threads"] = Json::array();
    for (const LockWaiter& waiter : lock.m_waiters)
    {
        json["threads"].push_back(waiter.m_tid);
    }
    return json;
}

Json NeverReturnedJson(const NeverReturned& call)
{
    return {{"pid", call.m_process.m_pid},        {"mark", call.m_process.m_mark}, {"tid", call.m_tid},
            {"kind", call.m_pKind->m_pName},      {"name", call.m_name},           {"address", call.m_address},
            {"startTime", call.m_startTime},      {"atLeastNs", call.m_atLeastNs}, {"lock", call.m_lockName},
            {"lastAcquirer", call.m_lastAcquirer}};
}

// By class; null for one that is off. The whole is null when the session does not tell.
Json ThresholdsJson(const std::optional<Thresholds>& thresholds)
{
    if (!thresholds)
    {
        return nullptr;
    }
    Json json;
    for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
    {
        json[TraceClassName(static_cast<TraceClass>(i))] =
            (*thresholds)[i] ? Json(*(*thresholds)[i]) : Json(nullptr);
    }
    return json;
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
            {"timerOverruns", session.m_log.m_timerOverruns},
            {"logErrorLines", session.m_log.m_errorLines},
            {"firstLogError", session.m_log.m_firstError},
            {"firstLogErrorFile", session.m_log.m_firstErrorFile},
            {"errors", errors}};
}

// Where each thread's time went.
Json TimesJson(const SessionFacts& session)
{
    Json list = Json::array();
    for (const ThreadTimes& times : TimesOfThreads(session))
    {
        Json json;
        PutProcess(&json, times.m_pProcess->m_id);
        json["tid"] = times.m_tid;
        json["name"] = times.m_name;
        json["wallNs"] = times.m_wallNs;
        for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
        {
            json[fmt::format("{}Ns", FormOf(static_cast<TimeKind>(kind)).m_pName)] = times.m_timeNs[kind];
        }
        list.push_back(std::move(json));
    }
    return list;
}

// What could be named.
Json ModulesJson(const Symbolizer& symbolizer)
{
    Json list = Json::array();
    for (const ModuleFacts& module : ModulesOf(symbolizer))
    {
        list.push_back({{"path", module.m_path},
                        {"buildId", module.m_buildId},
                        {"isChanged", module.m_match == ZORV_FILE_CHANGED || module.m_match == ZORV_FILE_NEWER},
                        {"addresses", module.m_addresses},
                        {"named", module.m_named},
                        {"withLine", module.m_withLine},
                        {"remarks", RemarksOn(module)}});
    }
    return list;
}

} // namespace

std::string ReportJson(const SessionFacts& session)
{
    Json processes = Json::array();
    Json locks = Json::array();
    Json neverReturned = Json::array();
    for (const ProcessFacts& process : session.m_processes)
    {
        processes.push_back(ProcessJson(session, process));
        for (const NeverReturned& call : process.m_trace.m_neverReturned)
        {
            neverReturned.push_back(NeverReturnedJson(call));
        }
    }
    for (const LockFacts& lock : session.m_locks)
    {
        locks.push_back(LockJson(lock));
    }
    Json json = {{"session", session.m_path}, {"command", session.m_record.m_command}};
    json["waitStatus"] = session.m_record.m_waitStatus ? Json(*session.m_record.m_waitStatus) : Json(nullptr);
    json["bytes"] = session.m_bytes;
    json["wallNs"] = WallNs(session);
    json["thresholdsNs"] = ThresholdsJson(session.m_settings.m_thresholds);
    json["processes"] = std::move(processes);
    json["unrecorded"] = UnrecordedJson(session);
    json["times"] = TimesJson(session);
    json["locks"] = std::move(locks);
    json["neverReturned"] = std::move(neverReturned);
    json["cpu"] = CpuJson(session);
    json["modules"] = ModulesJson(*session.m_pSymbolizer);
    json["agent"] = AgentJson(session);
    // Names come from the program: bytes that are no UTF-8 are replaced rather than refused.
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace qelix
