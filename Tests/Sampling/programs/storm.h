// A storm of sampling signals against threads that do what a careless handler would hang on or tear.
#pragma once

#include "sampled.h"

#ifdef __cplusplus
extern "C"
{
#endif

    enum
    {
        MOST_VICTIMS = 64
    };

    extern volatile int g_isOver; // what the victims do ends when this is set

    // The calling thread takes signals from now on / none any more. What was sent to it until then is
    // delivered.
    void JoinStorm(void);
    void LeaveStorm(void);
    // Says that the victim gets on with its work: the next signal comes only then, or they would pile up on a
    // thread that takes long for each.
    void MakeProgress(void);

    void RunThreads(void* (*pRoutine)(void*), int count); // until the time is over, each inside the storm
    void RunThreadsBesideMain(void* (*pRoutine)(void*), int count, void (*pMain)(void));

    // What happens to everybody at once.
    void* BurnInStorm(void* pUnused);
    void* ChurnMemory(void* pUnused);
    void* ChurnModules(void* pUnused);
    void* WalkModules(void* pUnused);
    void* RunForeignCode(void* pUnused);
    void* ThrowAndCatch(void* pUnused);
    void* ChangeNames(void* pUnused);
    void* ChurnThreads(void* pUnused);
    void ForkChildren(void);

    // Modes of a file each.
    int Errno(void);
    int AlternateStack(void);
    int SmallestStack(void);
    int CancelDeferred(void);
    int CancelAsynchronous(void);
    int ExitUnderLoad(void);
    int ResetSignals(void);
    int OwnUnwinder(void);
    int ExitThreads(void);
    int HandlersInHandler(void);

    void*
    NewForeignCode(void); // void (*)(void (*)(void)): calls its argument, and no table says how to unwind it

#ifdef __cplusplus
}
#endif
