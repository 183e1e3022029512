#include "Report/Report.h"
#include "Report/TextParts.h"

#include <fmt/format.h>
#include <iterator>

namespace qelix
{
namespace
{

struct Unit
{
    const char* m_pName;
    double m_size;
};

// Three digits that matter, in the largest unit that has one before the point.
template <std::size_t N> std::string InUnits(uint64_t amount, const Unit (&units)[N], const char* pSmallest)
{
    for (const Unit& unit : units)
    {
        // What would round up to 1000 of a smaller unit is one of this.
        const double value = static_cast<double>(amount) / unit.m_size;
        if (value >= 0.9995)
        {
            const int decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
            return fmt::format("{:.{}f} {}", value, decimals, unit.m_pName);
        }
    }
    return fmt::format("{} {}", amount, pSmallest);
}

} // namespace

std::string DurationText(uint64_t nanoseconds)
{
    constexpr Unit units[] = {{"s", 1e9}, {"ms", 1e6}, {"µs", 1e3}};
    return InUnits(nanoseconds, units, "ns");
}

std::string BytesText(uint64_t bytes)
{
    constexpr Unit units[] = {{"GB", 1e9}, {"MB", 1e6}, {"kB", 1e3}};
    return InUnits(bytes, units, "B");
}

std::string NameOr(const std::string& name, const char* pOtherwise)
{
    return name.empty() ? pOtherwise : PrintableText(name);
}

std::string Plural(uint64_t count, const char* pSingular, const char* pPlural)
{
    return fmt::format("{} {}", count, count == 1 ? pSingular : pPlural);
}

std::string PercentText(double share)
{
    const double percent = 100 * share;
    return percent == 0 ? "0" : percent < 1 ? "<1" : fmt::format("{:.0f}", percent);
}

} // namespace qelix
