// A table as text, as wide as the screen: what a narrow one has no room for gives way.
#include "Report/Report.h"
#include "Report/Table.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>
#include <string_view>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_LEAST_TEXT = 12;      // columns that a text keeps on a narrow screen
constexpr std::size_t ZORV_LEAST_TEXT_TIGHT = 7; // without the details

std::string CellText(const Cell& cell, CellForm form)
{
    if (const auto* pText = std::get_if<std::string>(&cell))
    {
        return PrintableText(*pText);
    }
    if (const auto* pNumber = std::get_if<double>(&cell))
    {
        return form == ZORV_CELL_SHARE ? fmt::format("{:.1f} %", 100 * *pNumber)
                                       : fmt::format("{:.2f}", *pNumber);
    }
    if (const auto* pCount = std::get_if<uint64_t>(&cell))
    {
        return form == ZORV_CELL_TIME      ? DurationText(*pCount)
               : form == ZORV_CELL_ADDRESS ? fmt::format("{:#x}", *pCount)
                                           : fmt::format("{}", *pCount);
    }
    return "-";
}

bool IsLeft(CellForm form)
{
    return form == ZORV_CELL_TEXT || form == ZORV_CELL_ADDRESS;
}

std::string Aligned(const std::string& text, std::size_t width, CellForm form)
{
    const std::string blanks(width - std::min(width, WidthOf(text)), ' ');
    return IsLeft(form) ? Fitted(CutName(text, width), width) : blanks + text;
}

using Texts = std::vector<std::vector<std::string>>;

Texts TextsOf(const Table& table)
{
    Texts texts;
    for (const std::vector<Cell>& row : table.m_rows)
    {
        std::vector<std::string>& cells = texts.emplace_back();
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            cells.push_back(CellText(row[i], table.m_columns[i].m_form));
        }
    }
    return texts;
}

std::vector<std::size_t> WishedWidths(const Table& table, const Texts& texts)
{
    std::vector<std::size_t> widths;
    for (std::size_t i = 0; i < table.m_columns.size(); ++i)
    {
        std::size_t width = WidthOf(table.m_columns[i].m_pTitle);
        for (const std::vector<std::string>& row : texts)
        {
            width = std::max(width, WidthOf(row[i]));
        }
        widths.push_back(width);
    }
    return widths;
}

std::size_t LineWidth(const std::vector<std::size_t>& widths)
{
    return std::accumulate(widths.begin(), widths.end(), 2 * std::max<std::size_t>(widths.size(), 1) - 2);
}

bool IsRepeated(const Table& table, std::size_t column)
{
    const std::string_view key = table.m_columns[column].m_pKey;
    return (key == "process" || key == "pid") && !table.m_rows.empty() &&
           std::all_of(table.m_rows.begin(), table.m_rows.end(),
                       [&](const std::vector<Cell>& row)
                       { return row[column] == table.m_rows.front()[column]; });
}

// Where the screen has no room the process of all rows is told once, below them.
Table WithoutRepetition(const Table& table)
{
    Table brief{{}, std::vector<std::vector<Cell>>(table.m_rows.size()), table.m_notes};
    std::string process;
    for (std::size_t column = 0; column < table.m_columns.size(); ++column)
    {
        if (std::string_view(table.m_columns[column].m_pKey) == "class")
        {
            continue; // a call's name says nearly as much
        }
        if (IsRepeated(table, column))
        {
            process += ' ' + CellText(table.m_rows.front()[column], table.m_columns[column].m_form);
            continue;
        }
        brief.m_columns.push_back(table.m_columns[column]);
        for (std::size_t row = 0; row < table.m_rows.size(); ++row)
        {
            brief.m_rows[row].push_back(table.m_rows[row][column]);
        }
    }
    if (!process.empty())
    {
        brief.m_notes.push_back("all of process" + process);
    }
    return brief;
}

bool HasDetails(const Table& table)
{
    return std::any_of(table.m_columns.begin(), table.m_columns.end(),
                       [](const TableColumn& column) { return column.m_isDetail; });
}

// Where that does not do either, details are for wider screens, and shares are whole numbers.
Table WithoutDetails(const Table& table)
{
    Table brief{{}, std::vector<std::vector<Cell>>(table.m_rows.size()), table.m_notes};
    for (std::size_t column = 0; column < table.m_columns.size(); ++column)
    {
        const TableColumn& form = table.m_columns[column];
        if (form.m_isDetail)
        {
            continue;
        }
        brief.m_columns.push_back(form);
        for (std::size_t row = 0; row < table.m_rows.size(); ++row)
        {
            const Cell& cell = table.m_rows[row][column];
            const auto* pShare = form.m_form == ZORV_CELL_SHARE ? std::get_if<double>(&cell) : nullptr;
            brief.m_rows[row].push_back(pShare != nullptr ? Cell(PercentText(*pShare)) : cell);
        }
    }
    const bool hasShares =
        std::any_of(table.m_columns.begin(), table.m_columns.end(),
                    [](const TableColumn& column) { return column.m_form == ZORV_CELL_SHARE; });
    brief.m_notes.push_back(std::string(hasShares ? "shares in %; " : "") +
                            "a wider screen, --csv and --json have more");
    return brief;
}

// Texts give up what the screen has not, the widest one first.
std::vector<std::size_t> WidthsOf(const Table& table, const Texts& texts, const Screen& screen,
                                  std::size_t leastText)
{
    std::vector<std::size_t> widths = WishedWidths(table, texts);
    std::size_t sum = LineWidth(widths);
    while (sum > screen.m_width)
    {
        std::size_t* pWidest = nullptr;
        for (std::size_t i = 0; i < widths.size(); ++i)
        {
            if (table.m_columns[i].m_form == ZORV_CELL_TEXT && widths[i] > leastText &&
                (pWidest == nullptr || widths[i] > *pWidest))
            {
                pWidest = &widths[i];
            }
        }
        if (pWidest == nullptr)
        {
            break; // a wide line says more than one that is cut off
        }
        --*pWidest;
        --sum;
    }
    return widths;
}

void AppendLine(std::string* pText, const Table& table, const std::vector<std::string>& cells,
                const std::vector<std::size_t>& widths)
{
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i)
    {
        line += (i == 0 ? "" : "  ") + Aligned(cells[i], widths[i], table.m_columns[i].m_form);
    }
    *pText += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
}

} // namespace

std::string TableText(const Table& whole, const Screen& screen)
{
    const bool isTooWide = LineWidth(WishedWidths(whole, TextsOf(whole))) > screen.m_width;
    Table table = isTooWide ? WithoutRepetition(whole) : whole;
    Texts texts = TextsOf(table);
    std::vector<std::size_t> widths = WidthsOf(table, texts, screen, ZORV_LEAST_TEXT);
    if (LineWidth(widths) > screen.m_width && HasDetails(table))
    {
        table = WithoutDetails(table);
        texts = TextsOf(table);
        widths = WidthsOf(table, texts, screen, ZORV_LEAST_TEXT_TIGHT);
    }
    std::vector<std::string> titles;
    for (const TableColumn& column : table.m_columns)
    {
        titles.push_back(column.m_pTitle);
    }
    std::string head;
    AppendLine(&head, table, titles, widths);
    std::string text = texts.empty() ? "" : Heading(screen, head.substr(0, head.size() - 1)) + '\n';
    for (const std::vector<std::string>& cells : texts)
    {
        AppendLine(&text, table, cells, widths);
    }
    if (texts.empty() && table.m_notes.empty())
    {
        text = "nothing of the kind was recorded\n";
    }
    for (const std::string& note : table.m_notes)
    {
        text += Wrapped(note, screen.m_width, "  ") + '\n';
    }
    return text;
}

} // namespace qelix
