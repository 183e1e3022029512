// One call of the log: the level, and the message with its arguments. The line carries the calling function.
#pragma once

#include "ZorvUserModeTraceHelpers.h"

#define ZORV_LOG(fd, level, ...)                                                                               \
    ZorvUmaWriteLogFile(fd, ZORV_UMA_LOG_TYPE_##level, __func__, __LINE__, __VA_ARGS__)

// For the cold part of a function that logs under the function's own name.
#define ZORV_LOG_AS(fd, level, function, ...)                                                                  \
    ZorvUmaWriteLogFile(fd, ZORV_UMA_LOG_TYPE_##level, function, __LINE__, __VA_ARGS__)
