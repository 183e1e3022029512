// The writer thread, as the rest of the agent sees it.
#pragma once

#include "ZorvMetadataTypes.h"
#include "ZorvUserModeTraceHelpers.h"

// Ends the writer's rest, if it rests: there is something to write. A system call only then.
void ZorvUmaNudgeWriter(ZorvUmaProfileInfo* pProfileInfo);
// Ends the writer's rest, now and for good: finalisation waits for the thread to end.
void ZorvUmaWakeWriter(ZorvUmaProfileInfo* pProfileInfo);
