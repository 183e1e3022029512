// What the tests share: the loaded agent, files in memory, what went to standard error, and records read back.
#pragma once

#include "AgentApi.h"
#include "Faults.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace agent
{

// ---- the loaded agent ------------------------------------------------------------------------------------

// How far the agent's constructor gets.
enum class AgentStart
{
    WITHOUT_LIBC,    // finds no library and no name: nothing is looked up yet, there is no process record
    WITHOUT_SESSION, // makes its records, then finds no session directory
};

// Loads the agent once a process; a second call must name the same start.
void LoadAgent(AgentStart start);

// What loading wrote to standard error.
const std::string& StartMessages();

// The agent's own handle record, as its walk over the loaded objects was given it.
ZorvLibHandlers* Handlers();

const char* AgentPath();

// Calls an export with words for arguments; for tables that cover functions of every type.
uint64_t CallExport(const char* pName, const std::vector<uint64_t>& words);

// ---- files and standard error ----------------------------------------------------------------------------

// A file in memory, opened for appending as the agent opens its log.
int MakeMemoryFile();
std::string ReadWhole(int fd);
std::string ReadWhole(const std::string& path);
bool IsOpen(int fd);

// Collects standard error until the text is taken.
class StandardError
{
public:
    StandardError();
    ~StandardError();
    std::string Take();

private:
    int m_savedFd;
    int m_fd;
};

// A directory that is removed with all that is in it.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    const std::string& Path() const;
    std::string operator/(const std::string& name) const;

private:
    std::string m_path;
};

std::string HostName();
std::string Format(const char* pFormat, ...) __attribute__((format(printf, 1, 2)));
std::string Times(int count, const std::string& text);

// ---- the log ---------------------------------------------------------------------------------------------

struct LogLine
{
    std::string m_level;    // "ERROR", ...
    std::string m_function; // empty for INFO
    std::string m_message;
};

std::vector<LogLine> ReadLog(int fd);

// "LEVEL message" of each line, the form in which tests state what they expect.
std::vector<std::string> LogMessages(int fd);

// ---- fixtures --------------------------------------------------------------------------------------------

// Timers that are made and never fire. The kernel counts real ones for all processes of a user together, and
// refuses them while another program has too many signals pending.
class IdleTimers
{
public:
    IdleTimers();

private:
    faults::Replace m_create;
    faults::Replace m_set;
    faults::Replace m_delete;
};

// A process record of its own for each test, with a log in memory; no thread record, nothing started.
class AgentTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    std::vector<std::string> Log() const;

    ZorvUmaProfileInfo* m_pInfo = nullptr;
    int m_logFd = -1; // stays open when a test makes the agent close or forget its own
    IdleTimers m_timers;
};

// The same with both streams on, and a thread record for the calling thread: records can be written.
class RecordingTest : public AgentTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    void EnableEvent(int event, uint64_t threshold = 0);

    // The controller's block, read as not paused, not stopped until a test changes it.
    struct
    {
        bool m_isPause;
        bool m_isStop;
        alignas(8) uint64_t m_pauseId;
    } m_controller{};

    ZorvUmaPerThreadInfo* m_pThread = nullptr;
};

// ---- streams and records ---------------------------------------------------------------------------------

struct Stream // a stream of the test's own
{
    explicit Stream(bool isTrace);
    ~Stream();
    ZorvUmaData m_data{};
    ZorvUmaQueue m_queue{};
};

std::vector<ZorvUmaBuffer*> BuffersOf(const ZorvUmaData& data);
std::vector<ZorvUmaBuffer*> QueuedBuffers(const ZorvUmaQueue& queue);
bool IsAllZero(const char* pBytes, size_t size);

template <class T> T ReadAt(const ZorvUmaBuffer* pBuffer, uint32_t offset)
{
    T value;
    memcpy(&value, pBuffer->m_pData + offset, sizeof value);
    return value;
}

// The header of each record of the buffer; fails the test when they do not end exactly at m_dataLen.
std::vector<TraceHeader> TraceRecords(const ZorvUmaBuffer* pBuffer);

// What a test puts into a buffer that only has to be seen again.
void FillBuffer(ZorvUmaBuffer* pBuffer, uint32_t dataLen, char byte);

using Strings = std::vector<std::string>;

} // namespace agent
