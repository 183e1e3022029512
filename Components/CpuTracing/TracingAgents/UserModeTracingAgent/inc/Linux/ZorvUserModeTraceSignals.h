// The profiling signal among the program's own.
#pragma once

#include "ZorvUserModeTraceHelpers.h"

// Whether this is the profiling signal: its number while one is configured and the collection has not ended.
bool ZorvUmsIsProfilingSignal(int sig);
// The same, while this process samples.
bool ZorvUmsIsArmedSignal(int sig);

// Opens the calling thread, once it has a timer, to the profiling signal. Threads are created with their
// creator's mask, and programs block every signal over that: they would never be sampled. Outside of
// ZorvUmaEnterAgent, which keeps a mask of its own.
void ZorvUmsAdmitSignal();
// Around what hands the thread's mask on, to a new thread or a new program: it is to be the one that the
// program believes in.
void ZorvUmsBeginMaskInheritance();
void ZorvUmsEndMaskInheritance();
// The set without the profiling signal, where that is armed: the set itself, or a copy in *pCopy.
const sigset_t* ZorvUmsProgramsSignals(const sigset_t* pSet, sigset_t* pCopy);
