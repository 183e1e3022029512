#include "Session/SessionRecord.h"

#include "Session/SessionDirectory.h"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

constexpr int ZORV_RECORD_VERSION = 1;
constexpr uint64_t ZORV_NS_PER_SECOND = 1'000'000'000;

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

std::map<pid_t, pid_t> ParentsIn(const Json& json)
{
    std::map<pid_t, pid_t> parents;
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
            parents[*pid] = *parent;
        }
    }
    return parents;
}

} // namespace

uint64_t KernelTickNs()
{
    timespec tick;
    if (clock_getres(CLOCK_MONOTONIC_COARSE, &tick) != 0)
    {
        return 0;
    }
    return static_cast<uint64_t>(tick.tv_sec) * ZORV_NS_PER_SECOND + static_cast<uint64_t>(tick.tv_nsec);
}

bool WriteSessionRecord(const std::string& sessionPath, const SessionRecord& record)
{
    Json processes = Json::array();
    for (const auto& [pid, parent] : record.m_parentOf)
    {
        processes.push_back({{"pid", pid}, {"parent", parent}});
    }
    Json json = {{"version", ZORV_RECORD_VERSION}, {"command", record.m_command}, {"pid", record.m_programPid}};
    json["tickNs"] = record.m_tickNs ? Json(*record.m_tickNs) : Json(nullptr);
    json["waitStatus"] = record.m_waitStatus ? Json(*record.m_waitStatus) : Json(nullptr);
    json["processes"] = std::move(processes);
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
    std::ifstream file(RecordFilePath(sessionPath));
    const Json json = Json::parse(file, nullptr, false);
    if (!json.is_object() || ValueAt<int>(json, "version") != ZORV_RECORD_VERSION)
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
    return record;
}

} // namespace qelix
