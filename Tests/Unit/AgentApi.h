// The agent's exported functions, callable by their own names. Each is found by name at its first call, so a
// missing export fails the test that needs it and no other.
#pragma once

#include "AgentTypes.h"

#include <link.h>
#include <linux/perf_event.h>
#include <stdexcept>
#include <string>

namespace agent
{

// Where the loaded agent defines a name, null when it does not.
void* FindExport(const char* pName);

template <class Signature> class Function;

template <class Result, class... Args> class Function<Result(Args...)>
{
public:
    constexpr explicit Function(const char* pName) : m_pName(pName) {}

    Result operator()(Args... args) const
    {
        return Address()(args...);
    }

    Result (*Address() const)(Args...)
    {
        void* pFound = FindExport(m_pName);
        if (pFound == nullptr)
        {
            throw std::runtime_error(std::string("the agent does not export ") + m_pName);
        }
        return reinterpret_cast<Result (*)(Args...)>(pFound);
    }

private:
    const char* m_pName;
};

template <class Result, class... Args> class Function<Result(Args..., ...)>
{
public:
    constexpr explicit Function(const char* pName) : m_pName(pName) {}

    template <class... More> Result operator()(Args... args, More... more) const
    {
        void* pFound = FindExport(m_pName);
        if (pFound == nullptr)
        {
            throw std::runtime_error(std::string("the agent does not export ") + m_pName);
        }
        return reinterpret_cast<Result (*)(Args..., ...)>(pFound)(args..., more...);
    }

private:
    const char* m_pName;
};

#define ZORV_EXPORT(name, ...)                                                                                 \
    inline constexpr Function<__VA_ARGS__> name                                                                \
    {                                                                                                          \
#name                                                                                                  \
    }

// system access
ZORV_EXPORT(ZorvUmaGetLibHandles, bool());
ZORV_EXPORT(ZorvUmaCloseLibHandles, bool());
ZORV_EXPORT(fnLibLoadCallback, int(dl_phdr_info*, size_t, void*));
ZORV_EXPORT(fnIncreaseFdLimit, bool());
ZORV_EXPORT(fnOpenFile, int(const char*, int, mode_t));
ZORV_EXPORT(fnPerfEventOpen, int(perf_event_attr*, pid_t, int, int, unsigned long));
ZORV_EXPORT(ZorvUmaWrite, ssize_t(int, const void*, size_t));
ZORV_EXPORT(ZorvUmaGetTid, pid_t());
ZORV_EXPORT(ZorvUmaPerfEventOpen, int(perf_event_attr*, pid_t, int, int, unsigned long));
ZORV_EXPORT(ZorvUmaAtexit, int(void (*)()));
ZORV_EXPORT(ZorvUmaPrintf, int(const char*, ...));
ZORV_EXPORT(ZorvUmaFprintf, int(FILE*, const char*, ...));
ZORV_EXPORT(ZorvUmaSprintf, int(char*, const char*, ...));
ZORV_EXPORT(ZorvUmaSnprintf, int(char*, size_t, const char*, ...));
ZORV_EXPORT(ZorvUmaSscanf, int(const char*, const char*, ...));

// configuration, logs, clock
ZORV_EXPORT(ZorvUmaOpenLogAndErrorFile, bool(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaCloseLogAndErrorFile, void(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaWriteLogFile, int(int, int, const char*, int, const char*, ...));
ZORV_EXPORT(ZorvUmaWriteErrorFile, bool(ZorvUmaProfileInfo*, int));
ZORV_EXPORT(ZorvUmaGetTime, uint64_t());
ZORV_EXPORT(ZorvUmaGetCurrentThreadName, bool(char*, size_t));
ZORV_EXPORT(ZorvUmtConfigureEvent, void(int, char*, ZorvUmaProfileInfo*));

// process and thread lifecycle
ZORV_EXPORT(ZorvUmaInit, void());
ZORV_EXPORT(ZorvUmaGetProfileInfo, ZorvUmaProfileInfo*());
ZORV_EXPORT(ZorvUmaAllocateProfileInfo, ZorvUmaProfileInfo*());
ZORV_EXPORT(ZorvUmaFreeProfileInfo, void());
ZORV_EXPORT(ZorvUmaAllocateThreadInfo, ZorvUmaPerThreadInfo*(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaFreeThreadInfo, void());
ZORV_EXPORT(ZorvUmaInitProcess, bool(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaFiniProcess, void(ZorvUmaProfileInfo*, bool));
ZORV_EXPORT(ZorvUmaSetOpenMPAgentInitialized, void(bool));
ZORV_EXPORT(ZorvUmaInitThread, bool(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaFiniThread, void(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaWriteThreadEndRecord, void(ZorvUmaProfileInfo*, uint64_t));
ZORV_EXPORT(ZorvUmtPthreadCreateWrapper, void*(void*));

// controller
ZORV_EXPORT(fnOpenSharedMemory, void*(const char*, size_t, int*));
ZORV_EXPORT(fnCloseSharedMemory, bool(int, void*, size_t));
ZORV_EXPORT(fnUnlinkSharedMemory, bool(const char*, void*, size_t));
ZORV_EXPORT(ZorvUmaInitSharedMemory, bool(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaFiniSharedMemory, bool(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaIsPauseSet, bool(const ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaIsStopSet, bool(const ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaCurrentPauseId, uint64_t(const ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaIsSamePauseId, bool(uint64_t, uint64_t));
ZORV_EXPORT(ZorvUmaIsCollectionStopped, bool(const ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaSetStopCollection, void(bool));
ZORV_EXPORT(ZorvUmaSemWait, int(ZorvUmaProfileInfo*));

// buffers, queue, writer
ZORV_EXPORT(ZorvUmaInitDataWriting, bool(ZorvUmaData*, const char*, const char*, const char*, int));
ZORV_EXPORT(ZorvUmaOpenFileForWrite, bool(const char*, int*, const char*, const char*, int));
ZORV_EXPORT(ZorvUmaCreateBuffers, bool(ZorvUmaData*, int));
ZORV_EXPORT(ZorvUmtAllocateNewBuffer, ZorvUmaBuffer*(ZorvUmaData*, int));
ZORV_EXPORT(ZorvUmaInsertIntoList, ZorvUmaBuffer*(ZorvUmaData*, ZorvUmaBuffer));
ZORV_EXPORT(ZorvUmaGetFreeBuffer, ZorvUmaBuffer*(ZorvUmaData*));
ZORV_EXPORT(ZorvUmaCreateQueue, bool(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaDestroyQueue, void(ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaIsQueueEmpty, bool(ZorvUmaQueue*));
ZORV_EXPORT(ZorvUmaEnqueue, bool(ZorvUmaQueue*, ZorvUmaBuffer*));
ZORV_EXPORT(ZorvUmaDequeue, ZorvUmaBuffer*(ZorvUmaQueue*));
ZORV_EXPORT(ZorvUmaWriteBuffer, bool(ZorvUmaData*, int));
ZORV_EXPORT(ZorvUmaFiniDataWriting, bool(ZorvUmaData*, int, bool));
ZORV_EXPORT(ZorvUmaWriterThread, void*(void*));

// records
ZORV_EXPORT(ZorvUmsWritePcmMetadata, bool(const ZorvUmaProfileInfo*));
ZORV_EXPORT(ZorvUmaWriteProcRecord, void(ZorvUmaProfileInfo*, int32_t, const char*, int, uint64_t, uint64_t));
ZORV_EXPORT(ZorvUmtInsertTraceRecordHdr,
            bool(ZorvUmaProfileInfo*, int32_t, uint64_t, uint64_t, uint16_t, uint16_t, uint16_t, uint16_t));
ZORV_EXPORT(ZorvUmsInsertSampleRecordHdr,
            bool(ZorvUmaProfileInfo*, int32_t, uint64_t, uint16_t, uint16_t, uint16_t));
ZORV_EXPORT(ZorvUmtIsEventEnabled, bool(const ZorvUmaProfileInfo*, int));
ZORV_EXPORT(ZorvUmtGetEventThreshold, uint64_t(const ZorvUmaProfileInfo*, int));
ZORV_EXPORT(ZorvUmtIsTraceEvent, bool(const ZorvUmaProfileInfo*, int));
ZORV_EXPORT(ZorvUmtCachePthreadRecord,
            ZorvUmaBuffer*(ZorvUmaProfileInfo*, uint64_t, uint64_t, uint64_t, uint16_t));
ZORV_EXPORT(ZorvUmtCapturePthreadRecord,
            void(ZorvUmaProfileInfo*, uint64_t, uint64_t, uint64_t, uint64_t, int, uint16_t, ZorvUmaBuffer*));
ZORV_EXPORT(ZorvUmtCacheSyscallRecord,
            ZorvUmaBuffer*(ZorvUmaProfileInfo*, uint64_t, uint64_t, uint16_t, int, uint16_t, uint64_t));
ZORV_EXPORT(ZorvUmtCaptureSysCallRecord, void(ZorvUmaProfileInfo*, uint64_t, uint64_t, uint64_t, uint16_t, int,
                                              uint16_t, uint64_t, ZorvUmaBuffer*));
ZORV_EXPORT(ZorvUmaAllocateCsBuf, bool(ZorvUmaProfileInfo*));

// modules, and programs that are started
ZORV_EXPORT(fnWriteProcessMaps, bool(pid_t, int));
ZORV_EXPORT(fnWriteMmapRecord, bool(uint64_t, uint64_t, uint64_t, int, const char*, int, pid_t));
ZORV_EXPORT(ZorvUmaIsAgentAppended, bool(const ZorvUmaProfileInfo*, char* const*, int*, int*));
ZORV_EXPORT(ZorvUmaUpdateEnv, char**(const ZorvUmaProfileInfo*, char* const*, int, int));
ZORV_EXPORT(ZorvUmaIsPythonInterpreter, bool(const ZorvUmaProfileInfo*, const char*));
ZORV_EXPORT(ZorvPythonLibPath, bool(const char*));
ZORV_EXPORT(ZorvUmaUpdateArgs, char**(const ZorvUmaProfileInfo*, char* const*));

#undef ZORV_EXPORT

} // namespace agent
