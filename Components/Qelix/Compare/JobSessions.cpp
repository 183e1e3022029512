// The sessions of a job: a folder rank=N for each rank.
#include "Compare/Merge.h"

#include "Session/Failure.h"
#include "Session/SessionDirectory.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

// "rank=12"; nothing for other names.
std::optional<int64_t> RankOfFolder(const std::string& name)
{
    constexpr std::string_view prefix = "rank=";
    int64_t rank = 0;
    if (!name.starts_with(prefix))
    {
        return std::nullopt;
    }
    const char* pEnd = name.data() + name.size();
    const auto [pAt, error] = std::from_chars(name.data() + prefix.size(), pEnd, rank);
    return error == std::errc() && pAt == pEnd ? std::optional(rank) : std::nullopt;
}

} // namespace

std::vector<std::string> SessionsAt(const std::string& path)
{
    std::error_code error;
    if (fs::is_directory(TraceFolder(path), error))
    {
        return {path};
    }
    std::vector<std::pair<int64_t, std::string>> ranks;
    for (fs::directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error))
    {
        const auto rank = RankOfFolder(entry->path().filename());
        if (rank && fs::is_directory(TraceFolder(entry->path())))
        {
            ranks.emplace_back(*rank, entry->path());
        }
    }
    if (ranks.empty())
    {
        throw Failure(
            ZORV_FAILURE_NO_SESSION,
            "{} is neither a session nor a job: it has no folder \"trace\" and none \"rank=N\"; name a "
            "directory that qelix run or record has made",
            path)
            .At(path);
    }
    std::sort(ranks.begin(), ranks.end());
    std::vector<std::string> sessions;
    for (auto& [rank, session] : ranks)
    {
        sessions.push_back(std::move(session));
    }
    return sessions;
}

} // namespace qelix
