// How the agent goes on into programs that the process starts.
//
// New argument and environment arrays, and the strings put into them, come from the agent's allocator and are
// never freed: the image is replaced, or the environment keeps the pointer.
#pragma once

#include "ZorvUserModeTraceHelpers.h"

extern "C"
{
    // Whether an "LD_PRELOAD=" entry of the environment names the agent. *pLdPreloadIndex receives the index of
    // the last such entry and is left alone where there is none; *pEnvLength the number of entries with the
    // terminating null.
    ZORV_EXPORT bool ZorvUmaIsAgentAppended(const ZorvUmaProfileInfo* pProfileInfo, char* const* ppEnv,
                                            int* pLdPreloadIndex, int* pEnvLength);
    // A new environment with the agent first in "LD_PRELOAD", or null.
    ZORV_EXPORT char** ZorvUmaUpdateEnv(const ZorvUmaProfileInfo* pProfileInfo, char* const* ppEnv, int envLen,
                                        int ldPreloadIdx);
    // Whether the file is a Python interpreter that takes the Python agent: only while tracing is off.
    ZORV_EXPORT bool ZorvUmaIsPythonInterpreter(const ZorvUmaProfileInfo* pProfileInfo, const char* pFilePath);
    ZORV_EXPORT bool ZorvPythonLibPath(const char* pPath);
    ZORV_EXPORT bool ZorvIsFileExists(const char* pFileName);
    // New arguments with the Python agent's script and settings behind the first, or null.
    ZORV_EXPORT char** ZorvUmaUpdateArgs(const ZorvUmaProfileInfo* pProfileInfo, char* const* ppArgv);
}
