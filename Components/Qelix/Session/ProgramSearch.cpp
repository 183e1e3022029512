#include "Session/ProgramSearch.h"

#include "Session/AgentConfiguration.h"
#include "Session/Failure.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace qelix
{
namespace
{

constexpr const char* ZORV_AGENT_FILE = "libZorUserModeTracingAgent.so";

// 0, or the error number that says why the file cannot be executed.
int ExecutionError(const std::string& path)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0)
    {
        return errno;
    }
    if (!S_ISREG(status.st_mode))
    {
        return S_ISDIR(status.st_mode) ? EISDIR : EACCES;
    }
    return faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

[[noreturn]] void ThrowCannotRun(const std::string& path, int error)
{
    throw Failure(ZORV_FAILURE_CANNOT_RUN, "cannot run {}: {}; check that it is a program and may be executed",
                  path, strerror(error))
        .At(path);
}

bool IsMissing(int error)
{
    return error == ENOENT || error == ENOTDIR;
}

std::string FindByPath(const std::string& path)
{
    const int error = ExecutionError(path);
    if (IsMissing(error))
    {
        throw Failure(ZORV_FAILURE_NOT_FOUND, "there is no program {}; check the path", path).At(path);
    }
    if (error != 0)
    {
        ThrowCannotRun(path, error);
    }
    return path;
}

} // namespace

std::string FindProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos)
    {
        return FindByPath(name);
    }
    const char* pPath = getenv("PATH");
    std::string_view rest = pPath != nullptr ? pPath : "/bin:/usr/bin";
    std::string refused;
    int refusal = 0;
    for (bool isLast = name.empty(); !isLast;)
    {
        const std::size_t end = rest.find(':');
        const std::string_view folder = rest.substr(0, end);
        std::string candidate = (folder.empty() ? "." : std::string(folder)) + "/" + name;
        const int error = ExecutionError(candidate);
        if (error == 0)
        {
            return candidate;
        }
        if (!IsMissing(error) && error != EISDIR && refusal == 0)
        {
            refused = candidate;
            refusal = error;
        }
        isLast = end == std::string_view::npos;
        rest.remove_prefix(isLast ? rest.size() : end + 1);
    }
    if (refusal != 0)
    {
        ThrowCannotRun(refused, refusal);
    }
    throw Failure(ZORV_FAILURE_NOT_FOUND,
                  "there is no program \"{}\" on the PATH; check its name or give its path", name)
        .At(name);
}

std::string FindAgent()
{
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    const fs::path agent = (self.parent_path() / ".." / "lib" / ZORV_AGENT_FILE).lexically_normal();
    if (error || access(agent.c_str(), R_OK) != 0)
    {
        throw Failure(ZORV_FAILURE_CANNOT_START,
                      "the agent {} cannot be read: {}; build it: run ./qelix or ./check in "
                      "the source folder",
                      agent.string(), error ? error.message() : strerror(errno))
            .At(agent.string());
    }
    RequirePreloadablePath(agent);
    return agent;
}

} // namespace qelix
