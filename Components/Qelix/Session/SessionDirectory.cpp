#include "Session/SessionDirectory.h"

#include "Session/AgentConfiguration.h"
#include "Session/Failure.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

constexpr const char* g_folders[] = {".log", ".error", "trace", "sample", "metadata"};

[[noreturn]] void ThrowNotMade(const std::string& path, const std::string& why)
{
    throw Failure(ZORV_STATUS_OWN_FAILURE,
                  "cannot make the session directory {}: {}; choose another with -o DIR", path, why);
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

std::string DefaultSessionName(const std::string& program, pid_t pid)
{
    std::string name = fs::path(program).filename();
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '=' || static_cast<unsigned char>(c) <= ' '; }, '_');
    return fmt::format("qelix-{}-{}", name, pid);
}

SessionDirectory MakeSessionDirectory(const std::string& path)
{
    std::error_code error;
    const std::string absolute = fs::absolute(path, error).lexically_normal();
    if (error)
    {
        ThrowNotMade(path, error.message());
    }
    SessionDirectory session{absolute.ends_with('/') ? absolute.substr(0, absolute.size() - 1) : absolute};
    RequireConfigurablePath("session directory", session.m_path, "choose another with -o DIR");
    if (IsUsedAlready(session.m_path))
    {
        ThrowNotMade(session.m_path, "it is there already and not an empty directory");
    }
    session.m_isMade = !fs::exists(session.m_path, error);
    for (const char* pFolder : g_folders)
    {
        MakeFolder(fs::path(session.m_path) / pFolder);
    }
    return session;
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

} // namespace qelix
