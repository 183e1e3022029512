#include "Compare/RankSummary.h"

#include "Compare/Merge.h"
#include "Compare/TimeTotals.h"
#include "Report/CpuFacts.h"
#include "Session/Failure.h"
#include "Session/SessionDirectory.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

constexpr int ZORV_SUMMARY_VERSION = 1;
constexpr std::size_t ZORV_RANKED_KEPT = 5;
constexpr uint64_t ZORV_LARGEST_SUMMARY = 1 << 20;

// From the folder's name, which qelix gives; else what the agents were told.
int64_t RankOf(const SessionFacts& session)
{
    const std::string name = fs::path(session.m_path + "/").parent_path().filename();
    constexpr std::string_view prefix = "rank=";
    int64_t rank = 0;
    if (name.starts_with(prefix) &&
        std::from_chars(name.data() + prefix.size(), name.data() + name.size(), rank).ec == std::errc())
    {
        return rank;
    }
    return session.m_processes.empty() ? 0 : session.m_processes.front().m_mpiRankId;
}

void AddTop(const SessionFacts& session, RankSummary* pSummary)
{
    for (const LockFacts& lock : session.m_locks)
    {
        if (pSummary->m_locks.size() < ZORV_RANKED_KEPT)
        {
            pSummary->m_locks.push_back({lock.m_name, lock.m_calls.m_totalNs});
        }
    }
    for (const FunctionRow& row : RankedFunctions(*session.m_pSymbolizer, FunctionsOf(session)))
    {
        if (pSummary->m_functions.size() < ZORV_RANKED_KEPT)
        {
            pSummary->m_functions.push_back({row.m_pFunction->m_name, WholeNs(row.m_count.m_selfNs)});
        }
    }
}

Json RankedJson(const std::vector<RankedTime>& times)
{
    Json list = Json::array();
    for (const RankedTime& time : times)
    {
        list.push_back({{"name", time.m_name}, {"ns", time.m_ns}});
    }
    return list;
}

Json SummaryJson(const RankSummary& summary)
{
    Json json = {{"version", ZORV_SUMMARY_VERSION}, {"rank", summary.m_rank}, {"host", summary.m_host}};
    json["wallNs"] = summary.m_wallNs;
    json["processes"] = summary.m_processes;
    json["threads"] = summary.m_threads;
    json["threadNs"] = summary.m_threadNs;
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
    {
        json["times"][FormOf(static_cast<TimeKind>(kind)).m_pName] = summary.m_timeNs[kind];
    }
    json["locks"] = RankedJson(summary.m_locks);
    json["functions"] = RankedJson(summary.m_functions);
    json["damaged"] = summary.m_isDamaged;
    return json;
}

uint64_t NumberAt(const Json& json, const char* pKey)
{
    const auto found = json.is_object() ? json.find(pKey) : json.end();
    return json.is_object() && found != json.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

std::string TextAt(const Json& json, const char* pKey)
{
    const auto found = json.is_object() ? json.find(pKey) : json.end();
    return json.is_object() && found != json.end() && found->is_string() ? found->get<std::string>() : "";
}

std::vector<RankedTime> RankedIn(const Json& json, const char* pKey)
{
    std::vector<RankedTime> times;
    if (const auto found = json.find(pKey); found != json.end() && found->is_array())
    {
        for (const Json& entry : *found)
        {
            times.push_back({TextAt(entry, "name"), NumberAt(entry, "ns")});
        }
    }
    return times;
}

RankSummary SummaryIn(const Json& json)
{
    RankSummary summary;
    const auto rank = json.find("rank");
    summary.m_rank = rank != json.end() && rank->is_number_integer() ? rank->get<int64_t>() : 0;
    summary.m_host = TextAt(json, "host");
    summary.m_wallNs = NumberAt(json, "wallNs");
    summary.m_processes = NumberAt(json, "processes");
    summary.m_threads = NumberAt(json, "threads");
    summary.m_threadNs = NumberAt(json, "threadNs");
    if (const auto times = json.find("times"); times != json.end())
    {
        for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
        {
            summary.m_timeNs[kind] = NumberAt(*times, FormOf(static_cast<TimeKind>(kind)).m_pName);
        }
    }
    summary.m_locks = RankedIn(json, "locks");
    summary.m_functions = RankedIn(json, "functions");
    const auto damaged = json.find("damaged");
    summary.m_isDamaged = damaged != json.end() && damaged->is_boolean() && damaged->get<bool>();
    return summary;
}

bool IsOlderThanFiles(const std::string& session)
{
    std::error_code error;
    const fs::file_time_type made = fs::last_write_time(SummaryFilePath(session), error);
    for (const std::string& folder : {TraceFolder(session), SampleFolder(session)})
    {
        for (const char* pEnding : {".umt", ".ums"})
        {
            for (const std::string& file : FilesIn(folder, pEnding))
            {
                if (fs::last_write_time(file, error) > made)
                {
                    return true;
                }
            }
        }
    }
    return false;
}

} // namespace

RankSummary SummaryOf(const SessionFacts& session)
{
    RankSummary summary;
    summary.m_rank = RankOf(session);
    summary.m_host = HostOf(session.m_path);
    const TimeTotals totals = TotalsOf(session);
    summary.m_wallNs = totals.m_wallNs;
    summary.m_processes = session.m_processes.size();
    summary.m_threads = totals.m_threads;
    summary.m_threadNs = totals.m_threadNs;
    summary.m_timeNs = totals.m_timeNs;
    AddTop(session, &summary);
    summary.m_isDamaged = IsDamaged(session);
    return summary;
}

bool WriteRankSummary(const std::string& session)
{
    try
    {
        const RankSummary summary = SummaryOf(ReadSessionFacts(session));
        const std::string newPath = fmt::format("{}.new-{}", SummaryFilePath(session), getpid());
        std::ofstream file(newPath, std::ios::trunc);
        file << SummaryJson(summary).dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
        file.close();
        const bool isWritten = file && rename(newPath.c_str(), SummaryFilePath(session).c_str()) == 0;
        if (!isWritten)
        {
            unlink(newPath.c_str());
        }
        return isWritten;
    }
    catch (const Failure&)
    {
        return false;
    }
}

std::optional<RankSummary> ReadRankSummary(const std::string& session)
{
    std::error_code error;
    const std::string path = SummaryFilePath(session);
    if (!fs::is_regular_file(path, error) || fs::file_size(path, error) > ZORV_LARGEST_SUMMARY ||
        IsOlderThanFiles(session))
    {
        return std::nullopt;
    }
    std::ifstream file(path);
    const Json json = Json::parse(file, nullptr, false);
    if (!json.is_object() || NumberAt(json, "version") != ZORV_SUMMARY_VERSION)
    {
        return std::nullopt;
    }
    return SummaryIn(json);
}

} // namespace qelix
