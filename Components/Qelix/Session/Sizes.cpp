#include "Session/Sizes.h"

#include <charconv>
#include <fmt/format.h>

namespace qelix
{
namespace
{

constexpr std::string_view ZORV_PREFIXES = "KMGT";
constexpr uint64_t ZORV_STEP = 1024;

} // namespace

std::optional<uint64_t> ParseSize(std::string_view text)
{
    uint64_t bytes = 0;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), bytes);
    if (error != std::errc())
    {
        return std::nullopt;
    }
    std::string_view unit = text.substr(static_cast<std::size_t>(pEnd - text.data()));
    const std::size_t power = unit.empty() ? unit.npos : ZORV_PREFIXES.find(unit.front());
    if (power != unit.npos)
    {
        unit.remove_prefix(1);
        for (std::size_t i = 0; i <= power; ++i)
        {
            if (__builtin_mul_overflow(bytes, ZORV_STEP, &bytes))
            {
                return std::nullopt;
            }
        }
    }
    const bool isKnown = unit.empty() || unit == "B" || (unit == "iB" && power != unit.npos);
    return isKnown ? std::optional(bytes) : std::nullopt;
}

std::string SizeText(uint64_t bytes)
{
    if (bytes < ZORV_STEP)
    {
        return fmt::format("{} B", bytes);
    }
    double size = static_cast<double>(bytes);
    std::size_t power = 0;
    for (; size >= ZORV_STEP && power < ZORV_PREFIXES.size(); ++power)
    {
        size /= ZORV_STEP;
    }
    return fmt::format("{:.1f} {}iB", size, ZORV_PREFIXES[power - 1]);
}

} // namespace qelix
