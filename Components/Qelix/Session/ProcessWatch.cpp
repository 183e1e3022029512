#include "Session/ProcessWatch.h"

#include "Session/SessionDirectory.h"

#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>

namespace qelix
{
namespace
{

void NoteProcesses(ProcessWatch* pWatch, const char* pEvents, std::size_t size)
{
    for (std::size_t at = 0; at + sizeof(inotify_event) <= size;)
    {
        inotify_event event;
        std::memcpy(&event, pEvents + at, sizeof(event));
        const char* pName = pEvents + at + sizeof(event);
        at += sizeof(event) + event.len;
        const pid_t pid = event.len == 0 ? 0 : PidInFileName(std::string(pName, strnlen(pName, event.len)));
        const pid_t parent = pid > 0 ? ParentOf(pid) : 0;
        if (parent > 0)
        {
            pWatch->m_parentOf.emplace(pid, parent); // after its parent's end it has another one
        }
    }
}

void Watch(ProcessWatch* pWatch)
{
    pollfd waits[] = {{pWatch->m_inotifyFd, POLLIN, 0}, {pWatch->m_endFd, POLLIN, 0}};
    alignas(inotify_event) char events[8192];
    for (;;)
    {
        poll(waits, std::size(waits), -1);
        const ssize_t size = read(pWatch->m_inotifyFd, events, sizeof(events)); // does not block
        if (size > 0)
        {
            NoteProcesses(pWatch, events, static_cast<std::size_t>(size));
        }
        else if (waits[1].revents != 0)
        {
            return;
        }
    }
}

} // namespace

pid_t ParentOf(pid_t pid)
{
    std::ifstream file(fmt::format("/proc/{}/stat", pid));
    std::string line;
    std::getline(file, line);
    // The name in parentheses may hold blanks and parentheses itself.
    const std::size_t nameEnd = line.rfind(')');
    constexpr std::size_t toParent = sizeof(") S ") - 1;
    return nameEnd == std::string::npos || line.size() < nameEnd + toParent
               ? 0
               : static_cast<pid_t>(strtol(line.c_str() + nameEnd + toParent, nullptr, 10));
}

pid_t PidInFileName(const std::string& path)
{
    const std::size_t underscore = path.rfind('_');
    return underscore == std::string::npos
               ? 0
               : static_cast<pid_t>(strtol(path.c_str() + underscore + 1, nullptr, 10));
}

MarkedPid MarkedPidInFileName(const std::string& path)
{
    const std::string name = path.substr(path.rfind('/') + 1);
    const std::string behindKind = name.substr(name.find('_') + 1);
    std::size_t length = 0;
    while (length < behindKind.size() && behindKind[length] == 's')
    {
        const std::size_t end = behindKind.find_first_not_of("0123456789", length + 1);
        if (end == std::string::npos || end == length + 1 || behindKind[end] != '@')
        {
            break;
        }
        length = end + 1;
    }
    return {behindKind.substr(0, length), PidInFileName(path)};
}

ProcessWatch::ProcessWatch(const std::string& sessionPath)
{
    m_inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    m_endFd = eventfd(0, EFD_CLOEXEC);
    if (m_inotifyFd < 0 || m_endFd < 0 ||
        inotify_add_watch(m_inotifyFd, LogFolder(sessionPath).c_str(), IN_CREATE) < 0)
    {
        return;
    }
    try
    {
        m_thread = std::thread(Watch, this);
    }
    catch (const std::system_error&)
    {
        // Without a thread to watch with, the tree is told from the logs alone.
    }
}

ProcessWatch::~ProcessWatch()
{
    Finish();
    for (const int fd : {m_inotifyFd, m_endFd})
    {
        if (fd >= 0)
        {
            close(fd);
        }
    }
}

std::map<pid_t, pid_t> ProcessWatch::Finish()
{
    if (m_thread.joinable())
    {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(m_endFd, &one, sizeof(one));
        m_thread.join();
    }
    return m_parentOf;
}

} // namespace qelix
