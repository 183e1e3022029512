// Writes a session as large as is asked for, so that what reads sessions can be measured.
//
//   BenchMakeSession DIRECTORY RECORDS
//
// One process of 16 threads, whose records stand in the file in blocks as the agent writes them: half of them
// waits for one of 64 mutexes, the rest writes, waits for a condition and sleeps, of 1 us to some ms. The same
// arguments make the same bytes.
#include "ZorvUserModeTraceTypes.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace
{

constexpr int ZORV_PID = 4242;
constexpr int ZORV_THREADS = 16;
constexpr int ZORV_LOCKS = 64;
constexpr long ZORV_BLOCK = 2048; // records that a thread's buffer holds
constexpr uint64_t ZORV_START = 1'000'000'000'000;

struct Call
{
    ZorvUmtRecordHdr m_hdr;
    union
    {
        ZorvUmtPthreadRecord m_pthread;
        ZorvUmtSyscallRecord m_syscall;
    };
};
static_assert(sizeof(Call) == ZORV_UMT_CALL_RECORD_SIZE);

struct ThreadState
{
    int32_t m_tid;
    uint64_t m_time;
    uint64_t m_random;
};

uint64_t Random(ThreadState* pThread)
{
    pThread->m_random = pThread->m_random * 6364136223846793005ULL + 1442695040888963407ULL;
    return pThread->m_random >> 33;
}

Call NextCall(ThreadState* pThread)
{
    const uint64_t choice = Random(pThread) % 10;
    const uint64_t duration = 1000ULL + Random(pThread) % (1000ULL << Random(pThread) % 12);
    const bool isPthread = choice < 6;
    Call call = {};
    call.m_hdr = {static_cast<uint16_t>(isPthread ? ZORV_UMT_RECORD_PTHREAD : ZORV_UMT_RECORD_SYSCALL),
                  sizeof(Call),
                  0,
                  0,
                  pThread->m_time,
                  pThread->m_time + duration,
                  ZORV_PID,
                  pThread->m_tid};
    if (isPthread)
    {
        call.m_hdr.m_subType = choice < 5 ? ZORV_PTHREAD_LOCK_MUTEX : ZORV_PTHREAD_WAIT_CV;
        call.m_pthread.m_lockAddress = 0x7f0000001000 + Random(pThread) % ZORV_LOCKS * 64;
        call.m_pthread.m_funcVa = 0x7f1000000000 + choice / 5 * 0x100;
    }
    else
    {
        call.m_hdr.m_subType = choice < 9 ? ZORV_SYSCALL_TYPE_IO : ZORV_SYSCALL_TYPE_SLEEP;
        call.m_syscall.m_funcVa = 0x7f1000001000 + choice / 9 * 0x100;
    }
    pThread->m_time += duration + Random(pThread) % 1000;
    return call;
}

void WriteName(FILE* pFile, const ThreadState& thread)
{
    const ZorvUmtRecordHdr header = {
        ZORV_UMT_RECORD_PROC, ZORV_UMT_PROC_RECORD_SIZE, 0, 0, ZORV_START, 0, ZORV_PID, thread.m_tid};
    ZorvUmtProcRecord name = {};
    name.m_pthreadId = static_cast<uint64_t>(thread.m_tid) << 12;
    snprintf(name.m_name, sizeof(name.m_name), "worker-%d", thread.m_tid - ZORV_PID);
    fwrite(&header, sizeof(header), 1, pFile);
    fwrite(&name, sizeof(name), 1, pFile);
}

bool WriteTrace(FILE* pFile, long records)
{
    const ZorvUmtFileHdr header = {ZORV_FILE_MAGIC_NUM, ZORV_PID, 0, ZORV_UMT_FILE_VERSION_1_1, 0, 0};
    fwrite(&header, sizeof(header), 1, pFile);
    std::array<ThreadState, ZORV_THREADS> threads;
    for (int i = 0; i < ZORV_THREADS; ++i)
    {
        threads[i] = {ZORV_PID + i, ZORV_START, static_cast<uint64_t>(i)};
        WriteName(pFile, threads[i]);
    }
    std::vector<Call> block;
    for (long written = 0, turn = 0; written < records; ++turn)
    {
        block.clear();
        while (static_cast<long>(block.size()) < ZORV_BLOCK && written < records)
        {
            block.push_back(NextCall(&threads[turn % ZORV_THREADS]));
            ++written;
        }
        fwrite(block.data(), sizeof(Call), block.size(), pFile);
    }
    return ferror(pFile) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        return 2;
    }
    const std::filesystem::path directory = argv[1];
    std::filesystem::create_directories(directory / "trace");
    const std::string path = directory / ("trace/trace_bench_" + std::to_string(ZORV_PID) + ".umt");
    FILE* pFile = fopen(path.c_str(), "we");
    const bool isWritten = pFile != nullptr && WriteTrace(pFile, strtol(argv[2], nullptr, 10));
    return pFile != nullptr && fclose(pFile) == 0 && isWritten ? 0 : 1;
}
