// How the loaded libraries are found.
#include "Support.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::Replace;

namespace
{

class Handle : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(LoadAgent(AgentStart::WITHOUT_LIBC));
        *Handlers() = {};
    }

    // Feeds one object of that name to the callback; each dlopen answers a new handle.
    int Visit(const char* pName, ZorvLibHandlers* pHandlers)
    {
        Replace open("dlopen",
                     [this](const Call& call)
                     {
                         m_opened.emplace_back(call.Arg<const char*>(0));
                         EXPECT_EQ(call.Arg<int>(1), 6);
                         return m_nextHandle == 0 ? 0 : m_nextHandle++;
                     });
        // This program's stands ahead of the agent, so it is the one to be called.
        Replace lookUp("dlsym",
                       [](const Call& call) { return call.Arg<void*>(0) == RTLD_NEXT ? 0 : call.PassOn(); });
        dl_phdr_info info{};
        info.dlpi_name = pName;
        return fnLibLoadCallback(&info, sizeof info, pHandlers);
    }

    static void* Fake(uint64_t number)
    {
        return reinterpret_cast<void*>(number);
    }

    uint64_t m_nextHandle = 0x100;
    std::vector<std::string> m_opened;
    ZorvLibHandlers m_handlers{};
};

TEST_F(Handle, WithoutLibcTheAgentDoesNotStart)
{
    EXPECT_NE(StartMessages(), "");
    EXPECT_EQ(ZorvUmaGetProfileInfo(), nullptr);
}

TEST_F(Handle, EachLibraryIsOpenedByItsFullNameWithoutLoading)
{
    EXPECT_EQ(Visit("/lib/x/libc.so.6", &m_handlers), 0);
    EXPECT_EQ(Visit("/lib/x/libpthread.so.0", &m_handlers), 0);
    EXPECT_EQ(Visit("/lib/x/librt.so.1", &m_handlers), 0);
    EXPECT_EQ(m_handlers.m_pLibcHandle, Fake(0x100));
    EXPECT_EQ(m_handlers.m_pLibPthreadHandle, Fake(0x101));
    EXPECT_EQ(m_handlers.m_pLibRtHandle, Fake(0x102));
    EXPECT_EQ(m_opened, (Strings{"/lib/x/libc.so.6", "/lib/x/libpthread.so.0", "/lib/x/librt.so.1"}));
}

TEST_F(Handle, OtherObjectsAreNotOpened)
{
    for (const char* pName : {"", "/lib/libm.so.6", "/lib/libcrypt.so.1", "linux-vdso.so.1", "/lib/libc-2.so"})
    {
        EXPECT_EQ(Visit(pName, &m_handlers), 0) << pName;
    }
    EXPECT_TRUE(m_opened.empty());
    EXPECT_EQ(m_handlers.m_pLibcHandle, nullptr);
}

// A plain substring test on the whole path.
TEST_F(Handle, TheNameMayStandAnywhereInThePath)
{
    EXPECT_EQ(Visit("/opt/libc.so.d/libpthread.so.0.librt.so", &m_handlers), 0);
    EXPECT_EQ(m_handlers.m_pLibcHandle, Fake(0x100));
    EXPECT_EQ(m_handlers.m_pLibPthreadHandle, Fake(0x101));
    EXPECT_EQ(m_handlers.m_pLibRtHandle, Fake(0x102));
}

TEST_F(Handle, TheLastMatchWins)
{
    Visit("/a/libc.so.6", &m_handlers);
    Visit("/b/libc.so.6", &m_handlers);
    EXPECT_EQ(m_handlers.m_pLibcHandle, Fake(0x101));
}

TEST_F(Handle, AFailedOpenIsStoredToo)
{
    m_handlers.m_pLibcHandle = Fake(7);
    m_nextHandle = 0;
    EXPECT_EQ(Visit("/a/libc.so.6", &m_handlers), 0);
    EXPECT_EQ(m_handlers.m_pLibcHandle, nullptr);
}

TEST_F(Handle, NullArgumentsLetTheWalkGoOn)
{
    dl_phdr_info info{};
    info.dlpi_name = "/lib/libc.so.6";
    EXPECT_EQ(fnLibLoadCallback(nullptr, 0, &m_handlers), 0);
    EXPECT_EQ(fnLibLoadCallback(&info, sizeof info, nullptr), 0);
    EXPECT_EQ(m_handlers.m_pLibcHandle, nullptr);
}

// One walk over made-up objects.
bool Walk(std::initializer_list<const char*> names, void** ppOpened)
{
    Replace open("dlopen", [=](const Call&) { return reinterpret_cast<uint64_t>(ppOpened); });
    Replace walk("dl_iterate_phdr",
                 [=](const Call& call)
                 {
                     using Visitor = int(dl_phdr_info*, size_t, void*);
                     for (const char* pName : names)
                     {
                         dl_phdr_info info{};
                         info.dlpi_name = pName;
                         EXPECT_EQ(call.Arg<Visitor*>(0)(&info, sizeof info, call.Arg<void*>(1)), 0);
                     }
                     return 0;
                 });
    const bool found = ZorvUmaGetLibHandles();
    EXPECT_EQ(walk.Calls(), 1);
    return found;
}

TEST_F(Handle, LibcAloneIsEnough)
{
    void* pOpened = nullptr;
    EXPECT_TRUE(Walk({"", "/lib/libc.so.6"}, &pOpened));
    EXPECT_EQ(Handlers()->m_pLibcHandle, &pOpened);
    EXPECT_EQ(Handlers()->m_pLibPthreadHandle, nullptr);
    EXPECT_EQ(Handlers()->m_pLibRtHandle, nullptr);
}

TEST_F(Handle, WithoutLibcTheOthersAreNotEnough)
{
    void* pOpened = nullptr;
    EXPECT_FALSE(Walk({"/lib/libpthread.so.0", "/lib/librt.so.1"}, &pOpened));
    EXPECT_EQ(Handlers()->m_pLibPthreadHandle, &pOpened);
    EXPECT_EQ(Handlers()->m_pLibRtHandle, &pOpened);
}

// A forked child may not walk again: the loader's lock can be held for ever by a thread that it does not have.
TEST_F(Handle, AForkedChildKeepsItsParentsHandlesWithoutAWalk)
{
    void* pOpened = nullptr;
    EXPECT_TRUE(Walk({"/lib/libc.so.6"}, &pOpened));
    const pid_t child = fork();
    if (child == 0)
    {
        Replace walk("dl_iterate_phdr", faults::Fails(0));
        const bool isFound = ZorvUmaGetLibHandles();
        _exit(isFound && walk.Calls() == 0 && Handlers()->m_pLibcHandle == &pOpened ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(Handle, EachCallOfTheSameProcessWalks)
{
    void* pOpened = nullptr;
    EXPECT_TRUE(Walk({"/lib/libc.so.6"}, &pOpened));
    EXPECT_TRUE(Walk({}, &pOpened)) << "what is held stays";
}

// Loaded objects libc.so.6 and librt.so.1 but no separate threads library.
TEST_F(Handle, MutexLockResolvesThroughLibcWithoutAThreadsLibrary)
{
    *Handlers() = {Fake(0x1), nullptr, Fake(0x3)};
    StandardError ignored;
    void* pAsked = nullptr;
    Replace lookUp("dlsym",
                   [&](const Call& call)
                   {
                       pAsked = call.Arg<void*>(0);
                       return 0;
                   });
    CallExport("ZorvUmaPthreadMutexLock", {0});
    EXPECT_EQ(pAsked, Fake(0x1));
}

std::vector<uint64_t> ClosedHandles()
{
    std::vector<uint64_t> closed;
    Replace close("dlclose",
                  [&](const Call& call)
                  {
                      closed.push_back(call.m_words[0]);
                      return 0;
                  });
    EXPECT_TRUE(ZorvUmaCloseLibHandles());
    return closed;
}

TEST_F(Handle, ClosingGoesInOrderAndClearsNothing)
{
    *Handlers() = {Fake(1), Fake(2), Fake(3)};
    EXPECT_EQ(ClosedHandles(), (std::vector<uint64_t>{1, 2, 3}));
    EXPECT_EQ(Handlers()->m_pLibcHandle, Fake(1));
    EXPECT_EQ(Handlers()->m_pLibPthreadHandle, Fake(2));
    EXPECT_EQ(Handlers()->m_pLibRtHandle, Fake(3));
}

TEST_F(Handle, ClosingSkipsWhatIsNotOpen)
{
    EXPECT_TRUE(ClosedHandles().empty());
    *Handlers() = {nullptr, Fake(2), nullptr};
    EXPECT_EQ(ClosedHandles(), std::vector<uint64_t>{2});
}

} // namespace
