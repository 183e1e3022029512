#include "Compare/Merge.h"

#include "Session/Failure.h"
#include "Session/SessionDirectory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <unistd.h>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

struct Part
{
    std::string m_path;
    std::string m_mark; // in the names of its files
    Json m_record;      // its session.json; null when there is none
};

std::optional<int64_t> IntegerAt(const Json& json, const char* pOuter, const char* pInner)
{
    const Json* pAt = &json;
    for (const char* pKey : {pOuter, pInner})
    {
        if (!pAt->is_object() || !pAt->contains(pKey))
        {
            return std::nullopt;
        }
        pAt = &(*pAt)[pKey];
    }
    return pAt->is_number_integer() ? std::optional(pAt->get<int64_t>()) : std::nullopt;
}

std::string TextAt(const Json& json, const char* pKey)
{
    const auto found = json.is_object() ? json.find(pKey) : json.end();
    return json.is_object() && found != json.end() && found->is_string() ? found->get<std::string>() : "";
}

// The calendar's time at the records' zero; nothing when the session does not tell.
std::optional<int64_t> ZeroOf(const Json& record)
{
    const auto real = IntegerAt(record, "start", "realtimeNs");
    const auto monotonic = IntegerAt(record, "start", "monotonicNs");
    return real && monotonic ? std::optional(static_cast<int64_t>(static_cast<uint64_t>(*real) -
                                                                  static_cast<uint64_t>(*monotonic)))
                             : std::nullopt;
}

// Sessions of one boot have one clock; calendars of hosts may be some milliseconds apart.
int64_t ShiftAgainst(const Part& first, const Part& part)
{
    const std::string boot = TextAt(part.m_record, "bootId");
    if (!boot.empty() && boot == TextAt(first.m_record, "bootId"))
    {
        return 0;
    }
    const auto zero = ZeroOf(part.m_record);
    const auto firstZero = ZeroOf(first.m_record);
    return zero && firstZero
               ? static_cast<int64_t>(static_cast<uint64_t>(*zero) - static_cast<uint64_t>(*firstZero))
               : 0;
}

std::string TextOfFile(const std::string& path)
{
    std::error_code error;
    if (!fs::is_regular_file(path, error)) // a pipe would never end
    {
        return "";
    }
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

Json ReadRecordJson(const std::string& session)
{
    Json json = Json::parse(TextOfFile(RecordFilePath(session)), nullptr, false);
    return json.is_object() ? json : Json(nullptr);
}

// "trace_HOST_PID.umt" becomes "trace_s1@HOST_PID.umt": what stands before the first '_' and behind the last
// one means something.
std::string MarkedName(const std::string& name, const std::string& mark)
{
    const std::size_t at = name.find('_');
    return at == std::string::npos ? mark + name : name.substr(0, at + 1) + mark + name.substr(at + 1);
}

void LinkOrCopy(const fs::path& from, const fs::path& to)
{
    std::error_code error;
    fs::create_hard_link(from, to, error);
    if (error)
    {
        fs::copy_file(from, to, error);
    }
    if (error)
    {
        throw Failure(ZORV_FAILURE_CANNOT_WRITE,
                      "cannot copy {} to {}: {}; choose a directory with room for it", from.string(),
                      to.string(), error.message())
            .At(to.string());
    }
}

std::size_t TakeFiles(const Part& part, const fs::path& out)
{
    struct Folder
    {
        std::string (*m_of)(const std::string& session);
        const char* m_pEnding;
    };
    constexpr Folder folders[] = {{TraceFolder, ".umt"},
                                  {SampleFolder, ".ums"},
                                  {MetadataFolder, ".meta"},
                                  {LogFolder, ".txt"},
                                  {ErrorFolder, ".err"}};
    std::size_t count = 0;
    for (const Folder& folder : folders)
    {
        for (const std::string& file : FilesIn(folder.m_of(part.m_path), folder.m_pEnding))
        {
            const fs::path to = folder.m_of(out);
            LinkOrCopy(file, to / MarkedName(fs::path(file).filename(), part.m_mark));
            ++count;
        }
    }
    return count;
}

Json ListAt(const Json& json, const char* pKey)
{
    const auto found = json.is_object() ? json.find(pKey) : json.end();
    return json.is_object() && found != json.end() && found->is_array() ? *found : Json::array();
}

// Where the files of a part come from: of one that was merged before, each of its own parts has a clock.
void AddSources(const Part& part, int64_t shift, Json* pMerged)
{
    for (Json inner : ListAt(part.m_record, "merged"))
    {
        const bool isWhole =
            inner.is_object() && inner.contains("clockShiftNs") && inner["clockShiftNs"].is_number_integer();
        if (isWhole)
        {
            const auto own = static_cast<uint64_t>(inner["clockShiftNs"].get<int64_t>());
            inner["mark"] = part.m_mark + TextAt(inner, "mark");
            inner["clockShiftNs"] = static_cast<int64_t>(own + static_cast<uint64_t>(shift));
            pMerged->push_back(std::move(inner));
        }
    }
    Json entry = {{"path", part.m_path}, {"mark", part.m_mark}};
    entry["host"] = TextAt(part.m_record, "host");
    entry["rank"] =
        part.m_record.is_object() && part.m_record.contains("rank") ? part.m_record["rank"] : nullptr;
    entry["clockShiftNs"] = shift;
    pMerged->push_back(std::move(entry));
}

// What was merged, behind what the first session says of itself.
Json MergedRecord(const std::vector<Part>& parts)
{
    Json record = parts.front().m_record.is_null() ? Json{{"version", 1}} : parts.front().m_record;
    Json processes = Json::array();
    Json merged = Json::array();
    for (const Part& part : parts)
    {
        for (Json process : ListAt(part.m_record, "processes"))
        {
            if (process.is_object())
            {
                process["mark"] = part.m_mark + TextAt(process, "mark");
            }
            processes.push_back(std::move(process));
        }
        AddSources(part, ShiftAgainst(parts.front(), part), &merged);
    }
    record["processes"] = std::move(processes);
    record["merged"] = std::move(merged);
    return record;
}

void WriteText(const fs::path& path, const std::string& text)
{
    std::ofstream file(path, std::ios::trunc);
    file << text;
    file.close();
    if (!file)
    {
        throw Failure(ZORV_FAILURE_CANNOT_WRITE, "{} cannot be written; choose a directory with room for it",
                      path.string())
            .At(path.string());
    }
}

std::vector<std::string> WarningsOf(const std::vector<Part>& parts)
{
    std::vector<std::string> warnings;
    const std::string first = TextAt(parts.front().m_record, "bootId");
    for (const Part& part : parts)
    {
        // The configurations differ in their paths anyway; what the records say is what counts.
        for (const char* pKey : {"thresholdsNs", "intervalNs", "tickNs"})
        {
            const auto value = [pKey](const Json& record)
            { return record.is_object() && record.contains(pKey) ? record[pKey] : Json(nullptr); };
            if (value(part.m_record) != value(parts.front().m_record))
            {
                warnings.push_back(
                    fmt::format("{} was recorded with other {} than {}: its figures cannot be compared",
                                part.m_path, pKey, parts.front().m_path));
            }
        }
        if (TextAt(part.m_record, "bootId") != first &&
            !(ZeroOf(part.m_record) && ZeroOf(parts.front().m_record)))
        {
            warnings.push_back(fmt::format("{} does not note its clock: its times may not fit those of {}",
                                           part.m_path, parts.front().m_path));
        }
    }
    return warnings;
}

// Taken away again unless it is kept.
struct NewDirectory
{
    explicit NewDirectory(const std::string& path) : m_path(fmt::format("{}.new-{}", path, getpid())) {}
    NewDirectory(const NewDirectory&) = delete;
    NewDirectory& operator=(const NewDirectory&) = delete;
    ~NewDirectory()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }

    std::string m_path;
};

} // namespace

MergeResult MergeSessions(const std::string& out, const std::vector<std::string>& sessions)
{
    std::vector<Part> parts;
    for (const std::string& session : sessions)
    {
        parts.push_back({session, fmt::format("s{}@", parts.size()), ReadRecordJson(session)});
    }
    if (std::error_code error; fs::exists(out, error))
    {
        throw Failure(ZORV_FAILURE_EXISTS, "{} is there already; name a directory that is not", out).At(out);
    }
    const NewDirectory made(out);
    MakeSessionDirectory(made.m_path);
    MergeResult result{out, parts.size(), 0, WarningsOf(parts)};
    for (const Part& part : parts)
    {
        result.m_files += TakeFiles(part, made.m_path);
    }
    WriteText(ConfigurationFile(made.m_path), TextOfFile(ConfigurationFile(parts.front().m_path)));
    WriteText(RecordFilePath(made.m_path),
              MergedRecord(parts).dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
    if (rename(made.m_path.c_str(), out.c_str()) != 0)
    {
        throw Failure(ZORV_FAILURE_CANNOT_WRITE, "cannot make {}: {}", out, strerror(errno)).At(out);
    }
    return result;
}

std::string HostOf(const std::string& session)
{
    return TextAt(ReadRecordJson(session), "host");
}

} // namespace qelix
