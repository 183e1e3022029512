#include "Support.h"

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

namespace agent
{

using faults::Call;
using faults::Replace;

namespace
{

void* g_pAgent = nullptr;
AgentStart g_start;
ZorvLibHandlers* g_pHandlers = nullptr;
std::string g_startMessages;

// The first walk over the loaded objects that carries a pointer is the agent's own; libgcc makes others.
uint64_t WatchWalk(const Call& call, bool isAllowed)
{
    if (g_pHandlers == nullptr)
    {
        g_pHandlers = call.Arg<ZorvLibHandlers*>(1);
    }
    return isAllowed ? call.PassOn() : 0;
}

void OpenAgent(AgentStart start)
{
    const bool hasLibc = start != AgentStart::WITHOUT_LIBC;
    Replace walk("dl_iterate_phdr", [=](const Call& call) { return WatchWalk(call, hasLibc); });
    const auto lookUp = [=](const Call& call) { return hasLibc ? call.PassOn() : 0; };
    Replace unversioned("dlsym", lookUp);
    Replace versioned("dlvsym", lookUp);
    StandardError standardError;
    g_pAgent = dlopen(AgentPath(), RTLD_NOW | RTLD_LOCAL);
    g_startMessages = standardError.Take();
}

} // namespace

// ---- the loaded agent ------------------------------------------------------------------------------------

const char* AgentPath()
{
    const char* pPath = getenv("ZORV_TEST_AGENT");
    return pPath != nullptr ? pPath : ZORV_TEST_AGENT_PATH;
}

void LoadAgent(AgentStart start)
{
    if (g_pAgent == nullptr)
    {
        unsetenv("QELIX_SESSION_DIR");
        unsetenv("QELIX_UMA_CONFIG_FILE");
        unsetenv("LD_PRELOAD");
        faults::SetAgentPath(AgentPath());
        g_start = start;
        OpenAgent(start);
    }
    ASSERT_NE(g_pAgent, nullptr) << dlerror();
    ASSERT_EQ(g_start, start) << "one process loads the agent in one way only";
}

const std::string& StartMessages()
{
    return g_startMessages;
}

ZorvLibHandlers* Handlers()
{
    return g_pHandlers;
}

void* FindExport(const char* pName)
{
    static const auto pFind = reinterpret_cast<void* (*)(void*, const char*)>(faults::FindInLibc("dlsym"));
    return pFind(g_pAgent, pName);
}

uint64_t CallExport(const char* pName, const std::vector<uint64_t>& words)
{
    faults::Words w{};
    std::copy(words.begin(), words.end(), w.begin());
    using Raw = uint64_t(uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t);
    return Function<Raw>(pName)(w[0], w[1], w[2], w[3], w[4], w[5]);
}

// ---- files and standard error ----------------------------------------------------------------------------

int MakeMemoryFile()
{
    const int fd = memfd_create("test", MFD_CLOEXEC);
    fcntl(fd, F_SETFL, O_APPEND);
    return fd;
}

std::string ReadWhole(int fd)
{
    std::string text;
    char piece[4096];
    off_t offset = 0;
    ssize_t count;
    while ((count = pread(fd, piece, sizeof piece, offset)) > 0)
    {
        text.append(piece, count);
        offset += count;
    }
    return text;
}

std::string ReadWhole(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

StandardError::StandardError() : m_savedFd(dup(STDERR_FILENO)), m_fd(MakeMemoryFile())
{
    fflush(stderr);
    dup2(m_fd, STDERR_FILENO);
}

StandardError::~StandardError()
{
    fflush(stderr);
    dup2(m_savedFd, STDERR_FILENO);
    close(m_savedFd);
    close(m_fd);
}

std::string StandardError::Take()
{
    fflush(stderr);
    std::string text = ReadWhole(m_fd);
    EXPECT_EQ(ftruncate(m_fd, 0), 0);
    return text;
}

TemporaryDirectory::TemporaryDirectory() : m_path("/tmp/unit-XXXXXX")
{
    EXPECT_NE(mkdtemp(m_path.data()), nullptr);
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

const std::string& TemporaryDirectory::Path() const
{
    return m_path;
}

std::string TemporaryDirectory::operator/(const std::string& name) const
{
    return m_path + "/" + name;
}

std::string HostName()
{
    char name[256] = {};
    gethostname(name, sizeof name);
    return name;
}

std::string Format(const char* pFormat, ...)
{
    char text[8192];
    va_list arguments;
    va_start(arguments, pFormat);
    vsnprintf(text, sizeof text, pFormat, arguments);
    va_end(arguments);
    return text;
}

std::string Times(int count, const std::string& text)
{
    std::string all;
    while (count-- > 0)
    {
        all += text;
    }
    return all;
}

// ---- the log ---------------------------------------------------------------------------------------------

std::vector<LogLine> ReadLog(int fd)
{
    static const std::regex located("(ERROR|WARN|DEBUG) : ([A-Za-z_][A-Za-z0-9_]*) : [0-9]+ : (.*)");
    static const std::regex info("INFO : [0-9]+ : [0-9]+: (.*)");
    std::vector<LogLine> lines;
    std::istringstream text(ReadWhole(fd));
    for (std::string line; std::getline(text, line);)
    {
        std::smatch match;
        if (std::regex_match(line, match, located))
        {
            lines.push_back({match[1], match[2], match[3]});
        }
        else if (std::regex_match(line, match, info))
        {
            lines.push_back({"INFO", "", match[1]});
        }
        else
        {
            lines.push_back({"?", "", line});
        }
    }
    return lines;
}

std::vector<std::string> LogMessages(int fd)
{
    std::vector<std::string> messages;
    for (const LogLine& line : ReadLog(fd))
    {
        messages.push_back(line.m_level + " " + line.m_message);
    }
    return messages;
}

// ---- fixtures --------------------------------------------------------------------------------------------

IdleTimers::IdleTimers()
    : m_create("ZorvUmaTimerCreate",
               [](const Call& call)
               {
                   *call.Arg<timer_t*>(2) = reinterpret_cast<timer_t>(1);
                   return 0;
               }),
      m_set("ZorvUmaTimerSetTime", faults::Fails(0)), m_delete("ZorvUmaTimerDelete", faults::Fails(0))
{
}

void AgentTest::SetUp()
{
    ASSERT_NO_FATAL_FAILURE(LoadAgent(AgentStart::WITHOUT_SESSION));
    ZorvUmaFreeThreadInfo();
    m_pInfo = ZorvUmaAllocateProfileInfo();
    ASSERT_NE(m_pInfo, nullptr);
    m_logFd = MakeMemoryFile();
    m_pInfo->m_logFd = m_logFd;
}

// The process ends as one that was finalised already: no test is about what is left behind.
void AgentTest::TearDown()
{
    if (ZorvUmaProfileInfo* pInfo = ZorvUmaGetProfileInfo())
    {
        pInfo->m_isFlush = true;
        pInfo->m_pIsPaused = nullptr;
        pInfo->m_pIsStopped = nullptr;
        pInfo->m_pPauseId = nullptr;
    }
    close(m_logFd);
}

std::vector<std::string> AgentTest::Log() const
{
    return LogMessages(m_logFd);
}

void RecordingTest::SetUp()
{
    ASSERT_NO_FATAL_FAILURE(AgentTest::SetUp());
    m_pInfo->m_umtConfig.m_enable = true;
    m_pInfo->m_umsConfig.m_enable = true;
    m_pInfo->m_umsConfig.m_timerSignalNum = SIGPROF;
    sem_init(&m_pInfo->m_semaphore, 0, 0);
    ASSERT_TRUE(ZorvUmaCreateQueue(m_pInfo));
    m_pInfo->m_umtData.m_fd = MakeMemoryFile();
    m_pInfo->m_umsData.m_fd = MakeMemoryFile();
    m_pInfo->m_pIsPaused = &m_controller.m_isPause;
    m_pInfo->m_pIsStopped = &m_controller.m_isStop;
    m_pInfo->m_pPauseId = &m_controller.m_pauseId;
    m_pInfo->m_isProcessInitialized = true;
    m_pThread = ZorvUmaAllocateThreadInfo(m_pInfo);
    ASSERT_NE(m_pThread, nullptr);
}

void RecordingTest::TearDown()
{
    AgentTest::TearDown();
    ZorvUmaFreeThreadInfo();
}

void RecordingTest::EnableEvent(int event, uint64_t threshold)
{
    m_pInfo->m_umtConfig.m_umtEventList[event] = {true, false, threshold};
}

// ---- streams and records ---------------------------------------------------------------------------------

Stream::Stream(bool isTrace)
{
    pthread_mutex_init(&m_data.m_lock, nullptr);
    pthread_mutex_init(&m_queue.m_lock, nullptr);
    m_data.m_pQueue = &m_queue;
    m_data.m_fd = MakeMemoryFile();
    m_data.m_isTrace = isTrace;
}

Stream::~Stream()
{
    if (m_data.m_fd >= 0)
    {
        close(m_data.m_fd);
    }
}

std::vector<ZorvUmaBuffer*> BuffersOf(const ZorvUmaData& data)
{
    std::vector<ZorvUmaBuffer*> buffers;
    for (ZorvUmaListNode* pNode = data.m_pBufList; pNode != nullptr; pNode = pNode->m_pNext)
    {
        buffers.push_back(&pNode->m_buffer);
    }
    return buffers;
}

std::vector<ZorvUmaBuffer*> QueuedBuffers(const ZorvUmaQueue& queue)
{
    std::vector<ZorvUmaBuffer*> buffers;
    for (ZorvUmaBuffer* pBuffer = queue.m_pFront; pBuffer != nullptr; pBuffer = pBuffer->m_pNext)
    {
        buffers.push_back(pBuffer);
    }
    EXPECT_EQ(queue.m_pRear, buffers.empty() ? nullptr : buffers.back());
    return buffers;
}

bool IsAllZero(const char* pBytes, size_t size)
{
    return std::all_of(pBytes, pBytes + size, [](char byte) { return byte == 0; });
}

std::vector<TraceHeader> TraceRecords(const ZorvUmaBuffer* pBuffer)
{
    std::vector<TraceHeader> records;
    uint32_t offset = 0;
    while (offset < pBuffer->m_dataLen)
    {
        records.push_back(ReadAt<TraceHeader>(pBuffer, offset));
        if (records.back().m_recSize < sizeof(TraceHeader))
        {
            ADD_FAILURE() << "no record at offset " << offset;
            break;
        }
        offset += records.back().m_recSize;
    }
    EXPECT_EQ(offset, pBuffer->m_dataLen);
    return records;
}

void FillBuffer(ZorvUmaBuffer* pBuffer, uint32_t dataLen, char byte)
{
    memset(pBuffer->m_pData, byte, dataLen);
    pBuffer->m_dataLen = dataLen;
}

} // namespace agent

// ---- the program -----------------------------------------------------------------------------------------

namespace
{

pid_t g_testProgram = 0;

// An agent that ends the process would end it with status 0, and the test would seem to have passed.
void FailUnlessFinished()
{
    if (getpid() == g_testProgram)
    {
        fprintf(stderr, "the process was ended inside a test\n");
        _exit(99);
    }
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    g_testProgram = getpid();
    atexit(FailUnlessFinished);
    const int status = RUN_ALL_TESTS();
    g_testProgram = 0;
    return status;
}
