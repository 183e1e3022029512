// The controller's block: how it is opened, and what each failing step leaves behind.
#include "Support.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace agent;
using faults::Call;
using faults::CallLog;
using faults::Fails;
using faults::FailsOn;
using faults::Replace;

namespace
{

constexpr uint64_t MINUS_ONE = ~uint64_t{0};

class SharedMemory : public AgentTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
        m_name = Format("/unit-%d", getpid());
        shm_unlink(m_name.c_str());
    }

    void TearDown() override
    {
        shm_unlink(m_name.c_str());
        AgentTest::TearDown();
    }

    void* Open(int* pFd)
    {
        return fnOpenSharedMemory(m_name.c_str(), SHARED_BLOCK_SIZE, pFd);
    }

    // The object with these bytes, as a controller makes it before the agent comes.
    void MakeObject(char byte, size_t size = SHARED_BLOCK_SIZE)
    {
        const int fd = shm_open(m_name.c_str(), O_RDWR | O_CREAT, 0644);
        const std::string content(size, byte);
        ASSERT_EQ(write(fd, content.data(), size), static_cast<ssize_t>(size));
        close(fd);
    }

    bool Exists()
    {
        const int fd = shm_open(m_name.c_str(), O_RDONLY, 0);
        const bool exists = fd >= 0;
        close(fd);
        return exists;
    }

    std::string m_name;
};

// ---- opening ---------------------------------------------------------------------------------------------

TEST_F(SharedMemory, ANewObjectIsZeroedAndReadsAsRunning)
{
    int fd = -1;
    CallLog calls{"ZorvUmaShmOpen", "ZorvUmaFtruncate", "ZorvUmaMmap"};
    char* pBlock = static_cast<char*>(Open(&fd));
    ASSERT_NE(pBlock, nullptr);
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(IsAllZero(pBlock, SHARED_BLOCK_SIZE));
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_size, static_cast<off_t>(SHARED_BLOCK_SIZE));

    ASSERT_EQ(calls.Names(), (Strings{"ZorvUmaShmOpen", "ZorvUmaFtruncate", "ZorvUmaMmap"}));
    const std::vector<Call>& made = calls.Calls();
    EXPECT_STREQ(made[0].Arg<const char*>(0), m_name.c_str());
    EXPECT_EQ(made[0].Arg<int>(1), O_RDWR | O_CREAT | O_EXCL);
    EXPECT_EQ(made[0].Arg<mode_t>(2), 0644u);
    EXPECT_EQ(made[1].Arg<int>(0), fd);
    EXPECT_EQ(made[1].m_words[1], SHARED_BLOCK_SIZE);
    EXPECT_EQ(made[2].m_words[1], SHARED_BLOCK_SIZE);
    EXPECT_EQ(made[2].Arg<int>(2), PROT_READ | PROT_WRITE);
    EXPECT_EQ(made[2].Arg<int>(3), MAP_SHARED);
    EXPECT_EQ(made[2].Arg<int>(4), fd);
    EXPECT_EQ(made[2].m_words[5], 0u);
    EXPECT_TRUE(fnCloseSharedMemory(fd, pBlock, SHARED_BLOCK_SIZE));
}

TEST_F(SharedMemory, AnObjectThatExistsKeepsItsContent)
{
    MakeObject('c');
    int fd = -1;
    CallLog calls{"ZorvUmaShmOpen"};
    char* pBlock = static_cast<char*>(Open(&fd));
    ASSERT_NE(pBlock, nullptr);
    EXPECT_EQ(std::string(pBlock, SHARED_BLOCK_SIZE), std::string(SHARED_BLOCK_SIZE, 'c'));
    ASSERT_EQ(calls.Calls().size(), 2u);
    EXPECT_EQ(calls.Calls()[1].Arg<int>(1), O_RDWR);
    EXPECT_EQ(calls.Calls()[1].Arg<mode_t>(2), 0644u);
    EXPECT_TRUE(fnCloseSharedMemory(fd, pBlock, SHARED_BLOCK_SIZE));
}

TEST_F(SharedMemory, ANullNameOpensNothing)
{
    int fd = -1;
    CallLog calls{"ZorvUmaShmOpen"};
    EXPECT_EQ(fnOpenSharedMemory(nullptr, SHARED_BLOCK_SIZE, &fd), nullptr);
    EXPECT_TRUE(calls.Calls().empty());
    EXPECT_EQ(fd, -1);
}

TEST_F(SharedMemory, AnotherFailureThanExistsIsNotTriedAgain)
{
    int fd = -1;
    Replace open("ZorvUmaShmOpen", Fails(MINUS_ONE, EACCES));
    EXPECT_EQ(Open(&fd), nullptr);
    EXPECT_EQ(open.Calls(), 1);
    EXPECT_EQ(fd, -1);
}

TEST_F(SharedMemory, AFailureOfTheSecondOpenIsAFailure)
{
    MakeObject('c');
    int fd = -1;
    Replace open("ZorvUmaShmOpen", FailsOn(2, MINUS_ONE, EACCES));
    EXPECT_EQ(Open(&fd), nullptr);
    EXPECT_EQ(open.Calls(), 2);
    EXPECT_EQ(fd, -1);
}

TEST_F(SharedMemory, AFailedResizeRemovesTheName)
{
    int fd = -1;
    Replace resize("ZorvUmaFtruncate", Fails(MINUS_ONE, ENOSPC));
    CallLog calls{"ZorvUmaMmap", "ZorvUmaShmUnlink", "ZorvUmaClose"};
    EXPECT_EQ(Open(&fd), nullptr);
    EXPECT_EQ(calls.Names(), Strings{"ZorvUmaShmUnlink"}) << "the descriptor is not closed here";
    EXPECT_FALSE(Exists());
    EXPECT_EQ(fd, -1);
}

TEST_F(SharedMemory, AFailedMappingRemovesTheNameAndReturnsAllOnes)
{
    int fd = -1;
    Replace map("ZorvUmaMmap", Fails(MINUS_ONE, ENOMEM));
    CallLog calls{"ZorvUmaShmUnlink", "ZorvUmaClose"};
    EXPECT_EQ(Open(&fd), MAP_FAILED);
    EXPECT_EQ(calls.Names(), Strings{"ZorvUmaShmUnlink"});
    EXPECT_FALSE(Exists());
    EXPECT_EQ(fd, -1);
}

// ---- closing and removing --------------------------------------------------------------------------------

TEST_F(SharedMemory, ClosingUnmapsAndCloses)
{
    int fd = -1;
    void* pBlock = Open(&fd);
    CallLog calls{"ZorvUmaMunmap", "ZorvUmaClose"};
    EXPECT_TRUE(fnCloseSharedMemory(fd, pBlock, SHARED_BLOCK_SIZE));
    ASSERT_EQ(calls.Names(), (Strings{"ZorvUmaMunmap", "ZorvUmaClose"}));
    EXPECT_EQ(calls.Calls()[0].Arg<void*>(0), pBlock);
    EXPECT_EQ(calls.Calls()[0].m_words[1], SHARED_BLOCK_SIZE);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(Exists()) << "the name is the controller's";
}

TEST_F(SharedMemory, ClosingWithoutADescriptorDoesNothing)
{
    CallLog calls{"ZorvUmaMunmap", "ZorvUmaClose"};
    char block[SHARED_BLOCK_SIZE];
    EXPECT_FALSE(fnCloseSharedMemory(-1, block, sizeof block));
    EXPECT_TRUE(calls.Calls().empty());
}

TEST_F(SharedMemory, ClosingAFailedMappingOnlyCloses)
{
    const int fd = MakeMemoryFile();
    CallLog calls{"ZorvUmaMunmap"};
    EXPECT_TRUE(fnCloseSharedMemory(fd, MAP_FAILED, SHARED_BLOCK_SIZE));
    EXPECT_TRUE(calls.Calls().empty());
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(SharedMemory, RemovingUnmapsAndUnlinks)
{
    int fd = -1;
    void* pBlock = Open(&fd);
    CallLog calls{"ZorvUmaMunmap", "ZorvUmaShmUnlink"};
    EXPECT_TRUE(fnUnlinkSharedMemory(m_name.c_str(), pBlock, SHARED_BLOCK_SIZE));
    EXPECT_EQ(calls.Names(), (Strings{"ZorvUmaMunmap", "ZorvUmaShmUnlink"}));
    EXPECT_FALSE(Exists());
    close(fd);
}

TEST_F(SharedMemory, RemovingAFailedMappingOnlyUnlinks)
{
    MakeObject('c');
    CallLog calls{"ZorvUmaMunmap"};
    EXPECT_TRUE(fnUnlinkSharedMemory(m_name.c_str(), MAP_FAILED, SHARED_BLOCK_SIZE));
    EXPECT_TRUE(calls.Calls().empty());
    EXPECT_FALSE(Exists());
}

TEST_F(SharedMemory, RemovingWithoutANameDoesNothing)
{
    CallLog calls{"ZorvUmaMunmap", "ZorvUmaShmUnlink"};
    char block[SHARED_BLOCK_SIZE];
    EXPECT_TRUE(fnUnlinkSharedMemory(nullptr, block, sizeof block));
    EXPECT_TRUE(calls.Calls().empty());
}

// ---- the process record's part ---------------------------------------------------------------------------

class SharedBlock : public SharedMemory
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(SharedMemory::SetUp());
        m_pInfo->m_umaConfig.m_shmName = m_name.data();
    }
};

TEST_F(SharedBlock, PointersLeadIntoTheFirstOfTheFourBlocks)
{
    ASSERT_TRUE(ZorvUmaInitSharedMemory(m_pInfo));
    char* pBlock = static_cast<char*>(m_pInfo->m_pMappedAddr);
    ASSERT_NE(pBlock, nullptr);
    EXPECT_GE(m_pInfo->m_shmFd, 0);
    EXPECT_EQ(reinterpret_cast<char*>(m_pInfo->m_pIsPaused), pBlock);
    EXPECT_EQ(reinterpret_cast<char*>(m_pInfo->m_pIsStopped), pBlock + 1);
    EXPECT_EQ(reinterpret_cast<char*>(m_pInfo->m_pPauseId), pBlock + 8);
}

TEST_F(SharedBlock, TheControllersBytesAreSeenWhileTheyChange)
{
    ASSERT_TRUE(ZorvUmaInitSharedMemory(m_pInfo));
    const int fd = shm_open(m_name.c_str(), O_RDWR, 0);
    char* pController =
        static_cast<char*>(mmap(nullptr, SHARED_BLOCK_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    EXPECT_FALSE(ZorvUmaIsPauseSet(m_pInfo) || ZorvUmaIsStopSet(m_pInfo));
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 0u);
    const uint64_t pauseId = 0x1122334455667788;
    memcpy(pController + 8, &pauseId, sizeof pauseId);
    pController[0] = 1;
    EXPECT_TRUE(ZorvUmaIsPauseSet(m_pInfo));
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), pauseId);
    pController[0] = 0;
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 0u);
    memset(pController + 16, 1, SHARED_BLOCK_SIZE - 16); // the other agents' blocks
    EXPECT_FALSE(ZorvUmaIsPauseSet(m_pInfo) || ZorvUmaIsStopSet(m_pInfo));
    pController[1] = 1;
    EXPECT_TRUE(ZorvUmaIsStopSet(m_pInfo));
    munmap(pController, SHARED_BLOCK_SIZE);
    close(fd);
}

TEST_F(SharedBlock, NeedsARecordAndAName)
{
    EXPECT_FALSE(ZorvUmaInitSharedMemory(nullptr));
    m_pInfo->m_umaConfig.m_shmName = nullptr;
    EXPECT_FALSE(ZorvUmaInitSharedMemory(m_pInfo));
    EXPECT_EQ(m_pInfo->m_pMappedAddr, nullptr);
}

TEST_F(SharedBlock, ANullAddressIsAFailure)
{
    Replace open("fnOpenSharedMemory",
                 [this](const Call& call)
                 {
                     EXPECT_EQ(call.Arg<const char*>(0), m_name.data());
                     EXPECT_EQ(call.m_words[1], SHARED_BLOCK_SIZE);
                     EXPECT_EQ(*call.Arg<int*>(2), -1);
                     return 0;
                 });
    EXPECT_FALSE(ZorvUmaInitSharedMemory(m_pInfo));
    EXPECT_EQ(open.Calls(), 1);
    EXPECT_EQ(m_pInfo->m_pMappedAddr, nullptr);
    EXPECT_EQ(m_pInfo->m_shmFd, -1);
}

// Only null is a failure; the flags then read as unset, and nothing follows the pointers.
TEST_F(SharedBlock, AFailedMappingCountsAsSuccessAndIsNeverFollowed)
{
    Replace map("ZorvUmaMmap", Fails(MINUS_ONE, ENOMEM));
    ASSERT_TRUE(ZorvUmaInitSharedMemory(m_pInfo));
    EXPECT_EQ(m_pInfo->m_pMappedAddr, MAP_FAILED);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m_pInfo->m_pIsPaused), UINTPTR_MAX);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m_pInfo->m_pIsStopped), 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m_pInfo->m_pPauseId), 7u);
    EXPECT_EQ(m_pInfo->m_shmFd, -1);
    EXPECT_FALSE(ZorvUmaIsPauseSet(m_pInfo));
    EXPECT_FALSE(ZorvUmaIsStopSet(m_pInfo));
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 0u);
    m_pInfo->m_isProcessInitialized = true;
    ZorvUmaAllocateThreadInfo(m_pInfo);
    EXPECT_FALSE(ZorvUmaIsCollectionStopped(m_pInfo));
    CallLog calls{"ZorvUmaMunmap"};
    EXPECT_TRUE(ZorvUmaFiniSharedMemory(m_pInfo));
    EXPECT_TRUE(calls.Calls().empty());
}

TEST_F(SharedBlock, FinishingForgetsThePointersAndKeepsTheNumber)
{
    ASSERT_TRUE(ZorvUmaInitSharedMemory(m_pInfo));
    const int fd = m_pInfo->m_shmFd;
    EXPECT_TRUE(ZorvUmaFiniSharedMemory(m_pInfo));
    EXPECT_EQ(m_pInfo->m_pMappedAddr, nullptr);
    EXPECT_EQ(m_pInfo->m_pIsPaused, nullptr);
    EXPECT_EQ(m_pInfo->m_pIsStopped, nullptr);
    EXPECT_EQ(m_pInfo->m_pPauseId, nullptr);
    EXPECT_EQ(m_pInfo->m_shmFd, fd);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_FALSE(ZorvUmaIsPauseSet(m_pInfo) || ZorvUmaIsStopSet(m_pInfo));
    EXPECT_EQ(ZorvUmaCurrentPauseId(m_pInfo), 0u);
}

TEST_F(SharedBlock, FinishingWithoutAMappingOrDescriptorTouchesNothing)
{
    CallLog calls{"ZorvUmaMunmap", "ZorvUmaClose"};
    EXPECT_FALSE(ZorvUmaFiniSharedMemory(nullptr));
    m_pInfo->m_shmFd = 5;
    EXPECT_TRUE(ZorvUmaFiniSharedMemory(m_pInfo));
    m_pInfo->m_shmFd = -1;
    m_pInfo->m_pMappedAddr = this;
    EXPECT_TRUE(ZorvUmaFiniSharedMemory(m_pInfo));
    EXPECT_EQ(m_pInfo->m_pMappedAddr, this);
    EXPECT_TRUE(calls.Calls().empty());
}

} // namespace
