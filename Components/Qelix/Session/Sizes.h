// Amounts of bytes: on the command line, and for the eye.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qelix
{

// "4096", "500K", "20M", "2G", "1T" (powers of 1024; a "B" or "iB" may follow). Nothing for any other text.
std::optional<uint64_t> ParseSize(std::string_view text);

// "17 B", "1.2 KiB", "34.0 MiB".
std::string SizeText(uint64_t bytes);

} // namespace qelix
