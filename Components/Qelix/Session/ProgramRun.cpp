#include "Session/ProgramRun.h"

#include "Session/AgentConfiguration.h"
#include "Session/Failure.h"
#include "Session/ProgramCheck.h"
#include "Session/SessionDirectory.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr int g_forwarded[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

std::vector<char*> PointersTo(const std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts)
    {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

bool IsVariable(std::string_view entry, std::string_view name)
{
    return entry.starts_with(name) && entry.size() > name.size() && entry[name.size()] == '=';
}

[[noreturn]] void BecomeProgram(const ProgramStart& start, const SignalGuard& guard, int errorPipe)
{
    const std::vector<char*> arguments = PointersTo(start.m_arguments);
    const std::vector<char*> environment = PointersTo(start.m_environment);
    sigaction(SIGCHLD, &guard.m_oldChild, nullptr);
    sigaction(SIGPIPE, &guard.m_oldPipe, nullptr);
    sigaction(SIGXFSZ, &guard.m_oldFileSize, nullptr);
    sigprocmask(SIG_SETMASK, &guard.m_oldMask, nullptr);
    // Not execve: like a shell it hands a script without an interpreter line to sh.
    execvpe(start.m_path.c_str(), arguments.data(), environment.data());
    const int error = errno;
    [[maybe_unused]] const ssize_t written = write(errorPipe, &error, sizeof(error));
    _exit(ZORV_STATUS_OWN_FAILURE);
}

// The pipe closes by itself when the program starts; what comes out of it is why it did not.
int ReadStartError(int errorPipe)
{
    int error = 0;
    ssize_t count;
    do
    {
        count = read(errorPipe, &error, sizeof(error));
    } while (count < 0 && errno == EINTR);
    close(errorPipe);
    return count == sizeof(error) ? error : 0;
}

[[noreturn]] void ThrowCannotStart(const std::string& what, int error)
{
    throw Failure(ZORV_FAILURE_CANNOT_START,
                  "cannot start {}: {}; check the limits on processes and open files", what, strerror(error));
}

// The file itself was found before, so what is missing is the interpreter that it names.
[[noreturn]] void ThrowNotRun(const std::string& path, int error)
{
    const std::string interpreter = ExecutedFile(path);
    const bool isMissing = error == ENOENT;
    throw Failure(isMissing ? ZORV_FAILURE_NOT_FOUND : ZORV_FAILURE_CANNOT_RUN, "cannot run {}: {}{}; {}", path,
                  interpreter == path ? "" : interpreter + ": ", strerror(error),
                  isMissing ? "check the interpreter that its first line or its header names"
                            : "check that it may be executed here")
        .At(path);
}

int WaitForSignal(const SignalGuard& guard, const std::optional<uint64_t>& atMostNs, siginfo_t* pInfo)
{
    if (!atMostNs)
    {
        return sigwaitinfo(&guard.m_guarded, pInfo);
    }
    constexpr uint64_t second = 1'000'000'000;
    const timespec atMost = {static_cast<time_t>(*atMostNs / second), static_cast<long>(*atMostNs % second)};
    return sigtimedwait(&guard.m_guarded, pInfo, &atMost);
}

// A terminal sends its signals to every process of the foreground group, the program included.
bool HasGotItself(pid_t program, const siginfo_t& info)
{
    return info.si_code > 0 && getpgid(program) == getpgrp();
}

} // namespace

SignalGuard::SignalGuard()
{
    sigemptyset(&m_guarded);
    sigaddset(&m_guarded, SIGCHLD);
    for (const int signal : g_forwarded)
    {
        sigaddset(&m_guarded, signal);
    }
    sigprocmask(SIG_BLOCK, &m_guarded, &m_oldMask);
    // With an ignored SIGCHLD the kernel would throw the program's status away.
    struct sigaction plain = {};
    plain.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &plain, &m_oldChild);
    // A reader that leaves our standard error must not end us.
    plain.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &plain, &m_oldPipe);
    // Nor may a limit on the size of our files, which would read as the program's death.
    sigaction(SIGXFSZ, &plain, &m_oldFileSize);
}

SignalGuard::~SignalGuard()
{
    const timespec noTime = {};
    while (sigtimedwait(&m_guarded, nullptr, &noTime) > 0)
    {
    }
    sigprocmask(SIG_SETMASK, &m_oldMask, nullptr);
}

std::vector<std::string> ProgramEnvironment(const std::string& agentPath, const std::string& sessionPath)
{
    std::vector<std::string> environment;
    for (char** ppEntry = environ; ppEntry != nullptr && *ppEntry != nullptr; ++ppEntry)
    {
        const std::string_view entry = *ppEntry;
        if (!IsVariable(entry, "LD_PRELOAD") && !IsVariable(entry, "QELIX_SESSION_DIR") &&
            !IsVariable(entry, "QELIX_UMA_CONFIG_FILE"))
        {
            environment.emplace_back(entry);
        }
    }
    const char* pPreloaded = getenv("LD_PRELOAD");
    const bool hasMore = pPreloaded != nullptr && *pPreloaded != '\0';
    environment.push_back("LD_PRELOAD=" + agentPath + (hasMore ? ":" + std::string(pPreloaded) : ""));
    environment.push_back("QELIX_SESSION_DIR=" + sessionPath);
    environment.push_back("QELIX_UMA_CONFIG_FILE=" + ConfigurationFile(sessionPath));
    return environment;
}

pid_t StartProgram(const ProgramStart& start, const SignalGuard& guard)
{
    int errorPipe[2];
    if (pipe2(errorPipe, O_CLOEXEC) != 0)
    {
        ThrowCannotStart(start.m_path, errno);
    }
    const pid_t program = fork();
    const int forkError = errno;
    if (program == 0)
    {
        BecomeProgram(start, guard, errorPipe[1]);
    }
    close(errorPipe[1]);
    const int startError = ReadStartError(errorPipe[0]);
    if (program < 0)
    {
        ThrowCannotStart(start.m_path, forkError);
    }
    if (startError == 0)
    {
        return program;
    }
    waitpid(program, nullptr, 0);
    ThrowNotRun(start.m_path, startError);
}

int WaitForProgram(pid_t program, const SignalGuard& guard, const Besides& besides)
{
    for (;;)
    {
        siginfo_t info;
        const int signal = WaitForSignal(guard, besides(), &info);
        int status;
        // Any child's end may hide that of the program: signals of one kind do not queue.
        if ((signal == SIGCHLD || signal < 0) && waitpid(program, &status, WNOHANG) == program)
        {
            return status;
        }
        if (signal > 0 && signal != SIGCHLD && !HasGotItself(program, info))
        {
            kill(program, signal);
        }
    }
}

void DieOfSignal(int signal)
{
    fflush(nullptr);
    const rlimit none = {};
    setrlimit(RLIMIT_CORE, &none);
    prctl(PR_SET_DUMPABLE, 0); // a limit does not hold back a core that goes into a pipe
    struct sigaction plain = {};
    plain.sa_handler = SIG_DFL;
    sigaction(signal, &plain, nullptr);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    sigprocmask(SIG_UNBLOCK, &only, nullptr);
    kill(getpid(), signal);
    _exit(ZORV_STATUS_SIGNAL_OFFSET + signal); // as the first process of a container we are not killed
}

} // namespace qelix
