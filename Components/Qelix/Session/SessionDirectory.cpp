#include "Session/SessionDirectory.h"

#include "Session/AgentConfiguration.h"
#include "Session/Failure.h"

#include <algorithm>
#include <filesystem>
#include <fmt/chrono.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

// A file name has 255 bytes, and the date and the rest need theirs.
constexpr std::size_t ZORV_LONGEST_NAME = 128;
constexpr const char* ZORV_NEWEST_LINK = "qelix-last";

constexpr const char* g_folders[] = {".log", ".error", "trace", "sample", "metadata"};

[[noreturn]] void ThrowNotMade(const std::string& path, const std::string& why)
{
    throw Failure(ZORV_FAILURE_CANNOT_WRITE,
                  "cannot make the session directory {}: {}; choose another with -o DIR", path, why)
        .At(path);
}

void MakeFolder(const fs::path& path)
{
    std::error_code error;
    fs::create_directories(path, error);
    if (error)
    {
        ThrowNotMade(path, error.message());
    }
}

bool IsUsedAlready(const std::string& path)
{
    std::error_code error;
    return fs::exists(path, error) && !(fs::is_directory(path, error) && fs::is_empty(path, error));
}

std::string AbsolutePath(const std::string& path)
{
    std::error_code error;
    std::string absolute = fs::absolute(path, error).lexically_normal();
    if (error)
    {
        ThrowNotMade(path, error.message());
    }
    if (absolute.ends_with('/'))
    {
        absolute.pop_back();
    }
    return absolute;
}

void MakeFolders(SessionDirectory* pSession)
{
    if (IsUsedAlready(pSession->m_path))
    {
        ThrowNotMade(pSession->m_path, "it is there already and not an empty directory");
    }
    std::error_code error;
    pSession->m_isMade = !fs::exists(pSession->m_path, error);
    for (const char* pFolder : g_folders)
    {
        MakeFolder(fs::path(pSession->m_path) / pFolder);
    }
}

} // namespace

std::string LogFolder(const std::string& session)
{
    return session + "/.log";
}

std::string ErrorFolder(const std::string& session)
{
    return session + "/.error";
}

std::string TraceFolder(const std::string& session)
{
    return session + "/trace";
}

std::string SampleFolder(const std::string& session)
{
    return session + "/sample";
}

std::string MetadataFolder(const std::string& session)
{
    return session + "/metadata";
}

std::string ConfigurationFile(const std::string& session)
{
    return session + "/agent.conf";
}

std::string RecordFilePath(const std::string& session)
{
    return session + "/session.json";
}

std::string SummaryFilePath(const std::string& session)
{
    return session + "/summary.json";
}

std::string DefaultSessionName(const std::string& program, time_t start, pid_t pid)
{
    std::string name = fs::path(program).filename().string().substr(0, ZORV_LONGEST_NAME);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '=' || static_cast<unsigned char>(c) <= ' '; }, '_');
    tm local = {};
    localtime_r(&start, &local);
    return fmt::format("qelix-{}-{:%Y%m%d-%H%M%S}-{}", name, local, pid);
}

SessionDirectory MakeSessionDirectory(const std::string& path)
{
    SessionDirectory session;
    session.m_path = AbsolutePath(path);
    RequireConfigurablePath("session directory", session.m_path, "choose another with -o DIR");
    session.m_configPath = session.m_path;
    session.m_newest = session.m_path;
    MakeFolders(&session);
    return session;
}

SessionDirectory MakeRankDirectory(const std::string& job, int64_t rank)
{
    SessionDirectory session;
    session.m_newest = AbsolutePath(job);
    RequireConfigurablePath("job's directory", session.m_newest, "choose another with -o DIR");
    session.m_path = fmt::format("{}/rank={}", session.m_newest, rank);
    // A configured value ends at its next '=': the agent gets there by a link without one.
    session.m_configPath = fmt::format("{}/.rank-{}", session.m_newest, rank);
    MakeFolders(&session);
    std::error_code error;
    fs::remove(session.m_configPath, error);
    fs::create_directory_symlink(fs::path(session.m_path).filename(), session.m_configPath, error);
    if (error)
    {
        ThrowNotMade(session.m_configPath, error.message());
    }
    return session;
}

void LinkNewest(const SessionDirectory& session)
{
    const fs::path target = session.m_newest;
    const fs::path link = target.parent_path() / ZORV_NEWEST_LINK;
    const fs::path newLink = target.parent_path() / fmt::format(".{}-{}", ZORV_NEWEST_LINK, getpid());
    std::error_code error;
    if (fs::exists(fs::symlink_status(link, error)) && !fs::is_symlink(link, error))
    {
        return;
    }
    fs::create_directory_symlink(target.filename(), newLink, error);
    if (error)
    {
        return; // a file system without links: the session is complete all the same
    }
    fs::rename(newLink, link, error);
    if (error)
    {
        fs::remove(newLink, error);
    }
}

void RemoveSessionDirectory(const SessionDirectory& session)
{
    std::error_code ignored;
    fs::remove(ConfigurationFile(session.m_path), ignored);
    fs::remove(RecordFilePath(session.m_path), ignored);
    for (const char* pFolder : g_folders)
    {
        fs::remove_all(fs::path(session.m_path) / pFolder, ignored);
    }
    if (session.m_isMade)
    {
        fs::remove(session.m_path, ignored);
    }
    if (session.m_configPath != session.m_path)
    {
        fs::remove(session.m_configPath, ignored);
    }
}

std::vector<std::string> FilesIn(const std::string& folder, const std::string& ending)
{
    std::vector<std::string> files;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    {
        if (entry->is_regular_file(error) && entry->path().string().ends_with(ending))
        {
            files.push_back(entry->path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

Failure NoSession(const std::string& path)
{
    std::error_code error;
    const bool isThere = std::filesystem::exists(path, error);
    if (!isThere && path == ZORV_NEWEST_LINK)
    {
        return Failure(
                   ZORV_FAILURE_NO_SESSION,
                   "{} is no session: nothing has been recorded here; record with qelix run PROGRAM, or name a "
                   "session's directory",
                   path)
            .At(path);
    }
    return Failure(ZORV_FAILURE_NO_SESSION, "{} is no session: {}; name a directory that qelix run has made",
                   path, isThere ? "it has no folder \"trace\"" : "there is no such directory")
        .At(path);
}

} // namespace qelix
