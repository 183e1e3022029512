#include "Session/SessionRecord.h"

#include "Session/SessionDirectory.h"

#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

// 2 has all that stands behind "processes". Later versions may add, never change.
constexpr int ZORV_RECORD_VERSION = 2;

// What nobody wrote in good faith is not read into memory: a record with a build-id for each of 10,000 modules
// has 2 MB.
constexpr uint64_t ZORV_LARGEST_RECORD = 64 << 20;

template <typename T> Json OrNull(const std::optional<T>& value)
{
    return value ? Json(*value) : Json(nullptr);
}

Json ProcessesJson(const SessionRecord& record)
{
    Json processes = Json::array();
    for (const auto& [process, parent] : record.m_parentOf)
    {
        Json json = {{"pid", process.m_pid}, {"parent", parent}};
        if (!process.m_mark.empty())
        {
            json["mark"] = process.m_mark;
        }
        processes.push_back(std::move(json));
    }
    return processes;
}

Json ThresholdsJson(const Thresholds& thresholds)
{
    Json json = Json::object();
    for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
    {
        json[TraceClassName(static_cast<TraceClass>(i))] = OrNull(thresholds[i]);
    }
    return json;
}

Json ClocksJson(const std::optional<ClockPair>& clocks)
{
    return clocks ? Json{{"monotonicNs", clocks->m_monotonicNs}, {"realtimeNs", clocks->m_realtimeNs}}
                  : Json(nullptr);
}

// The same end as "waitStatus", in words that need no knowledge of the platform.
void AddEnd(const std::optional<int>& waitStatus, Json* pJson)
{
    (*pJson)["waitStatus"] = OrNull(waitStatus);
    const bool isExit = waitStatus && WIFEXITED(*waitStatus);
    const bool isSignal = waitStatus && WIFSIGNALED(*waitStatus);
    (*pJson)["exitStatus"] = isExit ? Json(WEXITSTATUS(*waitStatus)) : Json(nullptr);
    (*pJson)["signal"] = isSignal ? Json(WTERMSIG(*waitStatus)) : Json(nullptr);
}

void AddSetUp(const SessionRecord& record, Json* pJson)
{
    Json& json = *pJson;
    json["program"] = record.m_program;
    json["agentVersion"] = record.m_agentVersion;
    json["agentBuildId"] = record.m_agentBuildId;
    json["host"] = record.m_machine.m_host;
    json["bootId"] = record.m_machine.m_bootId;
    json["kernel"] = record.m_machine.m_kernel;
    json["user"] = record.m_machine.m_user;
    json["launcherPid"] = record.m_launcherPid;
    json["block"] = record.m_blockName;
    json["rank"] = OrNull(record.m_rank);
    json["intervalNs"] = OrNull(record.m_intervalNs);
    json["stackDepth"] = OrNull(record.m_depth);
    json["thresholdsNs"] = ThresholdsJson(record.m_thresholds);
    json["children"] = record.m_profileChildren;
    json["start"] = ClocksJson(record.m_start);
    json["end"] = ClocksJson(record.m_end);
    json["budgetBytes"] = OrNull(record.m_budgetBytes);
    json["isBudgetReached"] = record.m_isBudgetReached;
    json["isStopped"] = record.m_isStopped;
    json["writerCpuNs"] = OrNull(record.m_writerCpuNs);
    json["buildIds"] = record.m_buildIds;
}

// Files are damaged and edited: what has another type than the due one is as good as missing.
template <typename T> std::optional<T> ValueAt(const Json& json, const char* pKey)
{
    const auto found = json.find(pKey);
    if (found == json.end() || !found->is_number_integer())
    {
        return std::nullopt;
    }
    return found->get<T>();
}

std::string TextAt(const Json& json, const char* pKey)
{
    const auto found = json.find(pKey);
    return found != json.end() && found->is_string() ? found->get<std::string>() : "";
}

bool FlagAt(const Json& json, const char* pKey, bool isMissing)
{
    const auto found = json.find(pKey);
    return found != json.end() && found->is_boolean() ? found->get<bool>() : isMissing;
}

// Null, which has no members, when it is no object.
const Json& ObjectAt(const Json& json, const char* pKey)
{
    static const Json none = Json::object();
    const auto found = json.find(pKey);
    return found != json.end() && found->is_object() ? *found : none;
}

std::optional<ClockPair> ClocksAt(const Json& json, const char* pKey)
{
    const Json& clocks = ObjectAt(json, pKey);
    const auto monotonic = ValueAt<uint64_t>(clocks, "monotonicNs");
    const auto realtime = ValueAt<uint64_t>(clocks, "realtimeNs");
    return monotonic && realtime ? std::optional(ClockPair{*monotonic, *realtime}) : std::nullopt;
}

std::map<MarkedPid, pid_t> ParentsIn(const Json& json)
{
    std::map<MarkedPid, pid_t> parents;
    const auto found = json.find("processes");
    if (found == json.end() || !found->is_array())
    {
        return parents;
    }
    for (const Json& process : *found)
    {
        if (!process.is_object())
        {
            continue;
        }
        const auto pid = ValueAt<pid_t>(process, "pid");
        const auto parent = ValueAt<pid_t>(process, "parent");
        if (pid && parent)
        {
            parents[{TextAt(process, "mark"), *pid}] = *parent;
        }
    }
    return parents;
}

std::map<std::string, std::string> BuildIdsIn(const Json& json)
{
    std::map<std::string, std::string> buildIds;
    for (const auto& [path, buildId] : ObjectAt(json, "buildIds").items())
    {
        if (buildId.is_string())
        {
            buildIds[path] = buildId.get<std::string>();
        }
    }
    return buildIds;
}

void TakeSetUp(const Json& json, SessionRecord* pRecord)
{
    pRecord->m_program = TextAt(json, "program");
    pRecord->m_agentVersion = TextAt(json, "agentVersion");
    pRecord->m_agentBuildId = TextAt(json, "agentBuildId");
    pRecord->m_machine = {TextAt(json, "host"), TextAt(json, "bootId"), TextAt(json, "kernel"),
                          TextAt(json, "user")};
    pRecord->m_launcherPid = ValueAt<pid_t>(json, "launcherPid").value_or(0);
    pRecord->m_blockName = TextAt(json, "block");
    pRecord->m_rank = ValueAt<int64_t>(json, "rank");
    pRecord->m_intervalNs = ValueAt<uint64_t>(json, "intervalNs");
    pRecord->m_depth = ValueAt<uint32_t>(json, "stackDepth");
    const Json& thresholds = ObjectAt(json, "thresholdsNs");
    for (int i = 0; i < ZORV_CLASS_COUNT; ++i)
    {
        pRecord->m_thresholds[i] = ValueAt<uint64_t>(thresholds, TraceClassName(static_cast<TraceClass>(i)));
    }
    pRecord->m_profileChildren = FlagAt(json, "children", true);
    pRecord->m_start = ClocksAt(json, "start");
    pRecord->m_end = ClocksAt(json, "end");
    pRecord->m_budgetBytes = ValueAt<uint64_t>(json, "budgetBytes");
    pRecord->m_writerCpuNs = ValueAt<uint64_t>(json, "writerCpuNs");
    pRecord->m_isBudgetReached = FlagAt(json, "isBudgetReached", false);
    pRecord->m_isStopped = FlagAt(json, "isStopped", false);
    pRecord->m_buildIds = BuildIdsIn(json);
}

Json ReadJson(const std::string& path)
{
    std::error_code error;
    // A pipe in its place would never end.
    const bool isPlain = std::filesystem::is_regular_file(path, error) &&
                         std::filesystem::file_size(path, error) <= ZORV_LARGEST_RECORD;
    if (!isPlain)
    {
        return nullptr;
    }
    std::ifstream file(path);
    return Json::parse(file, nullptr, false);
}

std::string TroubleOf(int64_t version)
{
    if (version < 1)
    {
        return "it is damaged or none of qelix's, so the run's command, status, clocks and settings are not "
               "known";
    }
    return version <= ZORV_RECORD_VERSION
               ? ""
               : fmt::format("its version is {} and this qelix knows {}: what is new in it is left out",
                             version, ZORV_RECORD_VERSION);
}

} // namespace

bool WriteSessionRecord(const std::string& sessionPath, const SessionRecord& record)
{
    Json json = {{"version", ZORV_RECORD_VERSION}, {"command", record.m_command}, {"pid", record.m_programPid}};
    json["tickNs"] = OrNull(record.m_tickNs);
    AddEnd(record.m_waitStatus, &json);
    json["processes"] = ProcessesJson(record);
    AddSetUp(record, &json);
    const std::string path = RecordFilePath(sessionPath);
    const std::string newPath = path + ".new";
    std::ofstream file(newPath, std::ios::trunc);
    file << json.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
    file.close();
    return file && rename(newPath.c_str(), path.c_str()) == 0;
}

SessionRecord ReadSessionRecord(const std::string& sessionPath)
{
    SessionRecord record;
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::symlink_status(RecordFilePath(sessionPath), error)))
    {
        return record;
    }
    const Json json = ReadJson(RecordFilePath(sessionPath));
    const int64_t version = json.is_object() ? ValueAt<int64_t>(json, "version").value_or(0) : 0;
    record.m_trouble = TroubleOf(version);
    if (version < 1)
    {
        return record;
    }
    if (const auto command = json.find("command"); command != json.end() && command->is_array())
    {
        for (const Json& word : *command)
        {
            record.m_command.push_back(word.is_string() ? word.get<std::string>() : "");
        }
    }
    record.m_programPid = ValueAt<pid_t>(json, "pid").value_or(0);
    record.m_tickNs = ValueAt<uint64_t>(json, "tickNs");
    record.m_waitStatus = ValueAt<int>(json, "waitStatus");
    record.m_parentOf = ParentsIn(json);
    TakeSetUp(json, &record);
    return record;
}

} // namespace qelix
