#include "Compare/Difference.h"

#include "Report/Csv.h"
#include "Report/Report.h"
#include "Report/Screen.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

std::size_t RowsShown(const Difference& difference, std::size_t most)
{
    return most == 0 ? difference.m_rows.size() : std::min(most, difference.m_rows.size());
}

// "12.3 ms", "4.56 %"
std::string ValueText(const Difference& difference, double value)
{
    return difference.m_isOfShares ? fmt::format("{:.2f} %", 100 * value)
                                   : DurationText(static_cast<uint64_t>(std::llround(std::max(value, 0.0))));
}

std::string ChangeText(const Difference& difference, double change)
{
    return (change < 0 ? "-" : "+") + ValueText(difference, std::abs(change));
}

// Against what it was before.
std::string PartText(const DifferenceRow& row)
{
    constexpr double severalTimes = 10;
    const double before = row.m_a.m_mean;
    const double after = row.m_b.m_mean;
    if (before <= 0 || after <= 0)
    {
        return before <= 0 && after <= 0 ? "" : before <= 0 ? "new" : "gone";
    }
    return after / before >= severalTimes ? fmt::format("{:.0f} x", after / before)
                                          : fmt::format("{:+.1f} %", 100 * ChangeOf(row) / before);
}

// A row's own part of the line, in front of the name.
std::string Columns(const Difference& difference, const char* pVerdict, const std::string& a,
                    const std::string& b, const std::string& change, const std::string& noise,
                    const std::string& part, const char* pKind)
{
    const std::size_t width = difference.m_isOfShares ? 8 : 7; // "100.00 %", "1.25 ms"
    return fmt::format("  {:<6} {:>{}} {:>{}} {:>{}} {:>{}} {:>8}  {:<8} ", pVerdict, a, width, b, width,
                       change, width + 1, noise, width + 1, part, pKind);
}

// The place, of a row that has room for it.
std::string RowText(const Difference& difference, const DifferenceRow& row, const Screen& screen)
{
    const std::string columns =
        Columns(difference, VerdictName(row.m_verdict), ValueText(difference, row.m_a.m_mean),
                ValueText(difference, row.m_b.m_mean), ChangeText(difference, ChangeOf(row)),
                "±" + ValueText(difference, NoiseOf(row)), PartText(row), row.m_key.m_kind.c_str());
    const std::size_t room = screen.m_width - std::min(screen.m_width, WidthOf(columns));
    const std::string name = CutName(PrintableText(row.m_key.m_name), room);
    const std::string place =
        row.m_key.m_place.empty() ? "" : fmt::format("  ({})", PrintableText(row.m_key.m_place));
    return columns + name + (WidthOf(name) + WidthOf(place) <= room ? place : "") + '\n';
}

Json SideJson(const Estimate& estimate, double count, const char* pUnit)
{
    return {{pUnit, estimate.m_mean}, {"noise", std::sqrt(estimate.m_errorSquared)}, {"count", count}};
}

} // namespace

std::string DifferenceText(const Difference& difference, std::size_t most, const Screen& screen)
{
    const auto told =
        std::count_if(difference.m_rows.begin(), difference.m_rows.end(),
                      [](const DifferenceRow& row) { return row.m_verdict != ZORV_VERDICT_SAME; });
    std::string text =
        fmt::format("A: {}, B: {}; of {} things compared {} changed by more than noise\n",
                    fmt::format("{} run{}", difference.m_runsA, difference.m_runsA == 1 ? "" : "s"),
                    fmt::format("{} run{}", difference.m_runsB, difference.m_runsB == 1 ? "" : "s"),
                    difference.m_rows.size(), told);
    text += '\n' + Columns(difference, "", "A", "B", "change", "noise", "", "what") + "name\n";
    const std::size_t shown = RowsShown(difference, most);
    for (std::size_t i = 0; i < shown; ++i)
    {
        text += RowText(difference, difference.m_rows[i], screen);
    }
    if (shown < difference.m_rows.size())
    {
        text += fmt::format("  and {} more; -n 0 shows all\n", difference.m_rows.size() - shown);
    }
    if (std::max(difference.m_runsA, difference.m_runsB) == 1)
    {
        text +=
            '\n' +
            Wrapped("The noise is that of the samples and waits within a run. Runs differ by more than that: "
                    "give several of each, DIR,DIR,..., and their spread counts.",
                    screen.m_width, "") +
            '\n';
    }
    return text;
}

std::string DifferenceJson(const Difference& difference, std::size_t most)
{
    const char* pUnit = difference.m_isOfShares ? "share" : "ns";
    Json rows = Json::array();
    for (std::size_t i = 0; i < RowsShown(difference, most); ++i)
    {
        const DifferenceRow& row = difference.m_rows[i];
        rows.push_back({{"kind", row.m_key.m_kind},
                        {"name", row.m_key.m_name},
                        {"place", row.m_key.m_place},
                        {"verdict", VerdictName(row.m_verdict)},
                        {"a", SideJson(row.m_a, row.m_countA, pUnit)},
                        {"b", SideJson(row.m_b, row.m_countB, pUnit)},
                        {"change", ChangeOf(row)},
                        {"noise", NoiseOf(row)},
                        {"likelihood", row.m_likelihood}});
    }
    const Json json = {{"runsA", difference.m_runsA},
                       {"runsB", difference.m_runsB},
                       {"unit", pUnit},
                       {"compared", difference.m_rows.size()},
                       {"rows", rows}};
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string DifferenceCsv(const Difference& difference, std::size_t most)
{
    const char* pUnit = difference.m_isOfShares ? "share" : "ns";
    std::string text =
        fmt::format("kind,name,place,verdict,a_{0},a_noise,a_count,b_{0},b_noise,b_count,change,noise,"
                    "likelihood\n",
                    pUnit);
    for (std::size_t i = 0; i < RowsShown(difference, most); ++i)
    {
        const DifferenceRow& row = difference.m_rows[i];
        text += fmt::format("{},{},{},{},{:.9g},{:.9g},{:.9g},{:.9g},{:.9g},{:.9g},{:.9g},{:.9g},{:.4g}\n",
                            row.m_key.m_kind, CsvText(row.m_key.m_name), CsvText(row.m_key.m_place),
                            VerdictName(row.m_verdict), row.m_a.m_mean, std::sqrt(row.m_a.m_errorSquared),
                            row.m_countA, row.m_b.m_mean, std::sqrt(row.m_b.m_errorSquared), row.m_countB,
                            ChangeOf(row), NoiseOf(row), row.m_likelihood);
    }
    return text;
}

} // namespace qelix
