// The definitions that this program exports ahead of the agent's. They stand in a file of their own: no header
// that declares one of the names with its real parameters may be seen here.
#include "FaultNames.h"
#include "Faults.h"

namespace faults
{
Word Dispatch(int id, const Words& words);
}

using faults::Word;

#define ZORV_FAULT(name)                                                                                       \
    extern "C" __attribute__((visibility("default"))) Word name(Word a, Word b, Word c, Word d, Word e,        \
                                                                Word f, Word g, Word h, Word i, Word j)        \
    {                                                                                                          \
        return faults::Dispatch(FAULT_##name, {a, b, c, d, e, f, g, h, i, j});                                 \
    }
#include "FaultNames.def"
