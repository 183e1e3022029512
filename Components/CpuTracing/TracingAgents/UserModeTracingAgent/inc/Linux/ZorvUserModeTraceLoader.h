// The modules of the process as the unwinder asks for them, without the loader's lock.
#pragma once

#include "ZorvUserModeTraceHelpers.h"

// Makes the first list; until then the unwinder asks the loader itself. pUnwinder: handle of the unwinder's
// object. wasLoaded: the program had it before the agent opened it.
void ZorvUmsListModules(void* pUnwinder, bool wasLoaded);

// Makes the list anew where it lacks the module that dlopen(3) gave; it has that one's dependencies then, too.
// The caller holds the turn to unwind, in no signal handler and with every signal blocked. No lock of the
// loader is taken for a module that is listed: in a forked child nobody may hold it any more.
void ZorvUmsListModule(void* pHandle);

// Around a dlclose(3): modules may vanish under an answer that begins behind Begin no more.
void ZorvUmsBeginClosing();
void ZorvUmsEndClosing();
void ZorvUmsForgetClosings(); // in a forked child: those of other threads never end there

// The calling thread is about to enter the loader, or has left it: it may hold the loader's locks in between.
// Gives what Leave wants back.
const void* ZorvUmsEnterLoader(const void* pFrame);
void ZorvUmsLeaveLoader(const void* pBefore);

// Whether the address lies in the unwinder's object.
bool ZorvUmsIsUnwinder(const void* pCode);
// The program can reach the unwinder, too. To be said before it can: its first use may hold the unwinder's lock
// when a sample asks.
void ZorvUmsShareUnwinder();
// In a signal handler: whether unwinding here could wait for ever. It could where the thread holds a lock of
// the loader, and another one, which holds the unwinder's lock because the program unwinds by itself, waits for
// that.
bool ZorvUmsIsUnwindingUnsafe();
