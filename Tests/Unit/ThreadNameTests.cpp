// The name of the calling thread, from the kernel or from the process's files.
#include "Support.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

using ThreadName = AgentTest;

std::string NameOf(size_t size = 32)
{
    std::string name(64, '#');
    EXPECT_TRUE(ZorvUmaGetCurrentThreadName(name.data(), size));
    return name.c_str();
}

// Runs on a thread of that name.
template <class Body> void OnThread(const char* pName, Body body)
{
    std::thread(
        [&]
        {
            pthread_setname_np(pthread_self(), pName);
            body();
        })
        .join();
}

TEST_F(ThreadName, ComesFromTheKernel)
{
    CallLog opens{"fnOpenFile"};
    OnThread("kernel-name", [] { EXPECT_EQ(NameOf(), "kernel-name"); });
    EXPECT_TRUE(opens.Calls().empty());
}

TEST_F(ThreadName, OfTheMainThreadComesFromTheProcessWhenTheKernelRefuses)
{
    Replace refuse("ZorvUmaGetThreadName", Fails(MINUS_ONE));
    std::vector<std::string> paths;
    Replace open("fnOpenFile",
                 [&](const Call& call)
                 {
                     paths.emplace_back(call.Arg<const char*>(0));
                     EXPECT_EQ(call.Arg<int>(1) & O_ACCMODE, O_RDONLY);
                     return call.PassOn();
                 });
    const std::string expected = ReadWhole(std::string("/proc/self/comm"));
    EXPECT_EQ(NameOf() + "\n", expected);
    EXPECT_EQ(paths, Strings{Format("/proc/%d/comm", getpid())});
}

TEST_F(ThreadName, OfAnotherThreadComesFromItsTask)
{
    Replace refuse("ZorvUmaGetThreadName", Fails(MINUS_ONE));
    std::vector<std::string> paths;
    Replace open("fnOpenFile",
                 [&](const Call& call)
                 {
                     paths.emplace_back(call.Arg<const char*>(0));
                     return call.PassOn();
                 });
    long tid = 0;
    OnThread("task-name",
             [&]
             {
                 tid = syscall(SYS_gettid);
                 EXPECT_EQ(NameOf(), "task-name");
             });
    EXPECT_EQ(paths, Strings{Format("/proc/%d/task/%ld/comm", getpid(), tid)});
}

TEST_F(ThreadName, FailsWhenTheFileCannotBeOpened)
{
    Replace refuse("ZorvUmaGetThreadName", Fails(MINUS_ONE));
    Replace open("fnOpenFile", Fails(MINUS_ONE, ENOENT));
    char name[32];
    EXPECT_FALSE(ZorvUmaGetCurrentThreadName(name, sizeof name));
}

// What the file holds, as a test makes it.
class ThreadNameFile : public AgentTest
{
protected:
    std::string NameFrom(const std::string& content, size_t size)
    {
        const int fd = MakeMemoryFile();
        EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        lseek(fd, 0, SEEK_SET);
        Replace refuse("ZorvUmaGetThreadName", Fails(MINUS_ONE));
        Replace open("fnOpenFile", [=](const Call&) { return fd; });
        const std::string name = NameOf(size);
        EXPECT_FALSE(IsOpen(fd));
        return name;
    }
};

TEST_F(ThreadNameFile, LosesOneNewline)
{
    EXPECT_EQ(NameFrom("abc\n", 32), "abc");
    EXPECT_EQ(NameFrom("abc\n\n", 32), "abc\n");
    EXPECT_EQ(NameFrom("abc", 32), "abc");
}

TEST_F(ThreadNameFile, IsCutToTheBuffer)
{
    EXPECT_EQ(NameFrom("abcdefgh\n", 4), "abc");
    EXPECT_EQ(NameFrom("abc\n", 4), "abc");
}

TEST_F(ThreadNameFile, MayBeEmpty)
{
    EXPECT_EQ(NameFrom("", 32), "");
    EXPECT_EQ(NameFrom("\n", 32), "");
}

TEST_F(ThreadNameFile, AReadThatFailsGivesAnEmptyName)
{
    Replace read("ZorvUmaRead", Fails(MINUS_ONE, EIO));
    EXPECT_EQ(NameFrom("abc\n", 32), "");
}

} // namespace
