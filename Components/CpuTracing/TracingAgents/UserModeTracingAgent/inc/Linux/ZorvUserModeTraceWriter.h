// The writer thread, as the rest of the agent sees it.
#pragma once

#include "ZorvMetadataTypes.h"
#include "ZorvUserModeTraceHelpers.h"

// There is something to write: ends the writer's rest, if it rests and if that is worth a system call now.
void ZorvUmaNudgeWriter(ZorvUmaProfileInfo* pProfileInfo);
// Ends the writer's rest, now and for good: finalisation waits for the thread to end.
void ZorvUmaWakeWriter(ZorvUmaProfileInfo* pProfileInfo);
