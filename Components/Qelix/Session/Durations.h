// Times on the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace qelix
{

// "500ns", "10us", "1ms", "2s", "5m", "1h"; a number alone counts nanoseconds. Nothing for any other text, and
// for a time that 64 bits cannot hold.
std::optional<uint64_t> ParseDuration(std::string_view text);

} // namespace qelix
