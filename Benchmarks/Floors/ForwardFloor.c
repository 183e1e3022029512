// The floor of an agent that is switched off: the call is found once and then only forwarded, by a tail jump.
#define _GNU_SOURCE
#include "FloorCalls.h"

#include <dlfcn.h>

#define FORWARD_CALL(name, result, parameters, arguments, object)                                              \
    FLOOR_EXPORT result name parameters                                                                        \
    {                                                                                                          \
        static result(*s_pReal) parameters;                                                                    \
        if (FLOOR_UNLIKELY(!s_pReal))                                                                          \
            *(void**)&s_pReal = dlsym(RTLD_NEXT, #name);                                                       \
        return s_pReal arguments;                                                                              \
    }

FLOOR_CALLS(FORWARD_CALL)
