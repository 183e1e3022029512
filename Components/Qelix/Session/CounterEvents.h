// The processor's counters by name, as the kernel describes them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qelix
{

// Codes of a list like "cycles,cache-misses,0x1c2": names of the kernel's PMU folder, or codes as numbers.
// Fails when a name is not known, and for more events than the agent has room for.
std::vector<uint64_t> ParseEvents(const std::string& list, const std::string& pmuFolder);

// What `event=0x3c,umask=1` comes to: each value goes into the bits that format/TERM says ("config:0-7,32-35").
uint64_t EventCode(std::string_view terms, const std::string& pmuFolder);

std::string CorePmuFolder();
bool HasCounters(const std::string& pmuFolder);

} // namespace qelix
