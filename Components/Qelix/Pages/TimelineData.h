// A time line as the page's script reads it: lists of numbers, each start told from the one before.
#pragma once

#include "Pages/PageFile.h"
#include "Pages/Timeline.h"

namespace qelix
{

// Of each thread: "runs" (start, length, samples, name), "waits" (start, length or -1 for a call that has not
// returned, group, name, lock or -1), "cells" (number, group, calls, nanoseconds).
PageJson TimelineData(Timeline timeline);

} // namespace qelix
