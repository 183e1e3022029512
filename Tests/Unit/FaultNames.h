// The names of FaultNames.def as numbers.
#pragma once

enum FaultId
{
#define ZORV_FAULT(name) FAULT_##name,
#include "FaultNames.def"
#undef ZORV_FAULT
    FAULT_COUNT,
    FAULT_FIRST_OF_AGENT = FAULT_ZorvUmaGetLibHandles,
};
