#include "Report/Table.h"

#include "Report/Report.h"
#include "Session/Failure.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

constexpr std::size_t ZORV_LEAST_TEXT = 12; // columns that a text keeps on a narrow screen

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
    return IsLeft(form) ? Fitted(text, width) : blanks + text;
}

// Texts give up what the screen has not, the widest one first.
std::vector<std::size_t> WidthsOf(const Table& table, const std::vector<std::vector<std::string>>& texts,
                                  const Screen& screen)
{
    std::vector<std::size_t> widths;
    std::size_t sum = 0;
    for (std::size_t i = 0; i < table.m_columns.size(); ++i)
    {
        std::size_t width = WidthOf(table.m_columns[i].m_pTitle);
        for (const std::vector<std::string>& row : texts)
        {
            width = std::max(width, WidthOf(row[i]));
        }
        widths.push_back(width);
        sum += width + (i == 0 ? 0 : 2);
    }
    while (sum > screen.m_width)
    {
        std::size_t* pWidest = nullptr;
        for (std::size_t i = 0; i < widths.size(); ++i)
        {
            if (table.m_columns[i].m_form == ZORV_CELL_TEXT && widths[i] > ZORV_LEAST_TEXT &&
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

// Quoted where RFC 4180 asks for it.
std::string CsvField(const std::string& text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos)
    {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text)
    {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + '"';
}

std::string CsvCell(const Cell& cell)
{
    if (const auto* pText = std::get_if<std::string>(&cell))
    {
        return CsvField(*pText);
    }
    if (const auto* pCount = std::get_if<uint64_t>(&cell))
    {
        return fmt::format("{}", *pCount);
    }
    const auto* pNumber = std::get_if<double>(&cell);
    return pNumber == nullptr ? "" : fmt::format("{:.6g}", *pNumber);
}

Json JsonCell(const Cell& cell)
{
    if (const auto* pText = std::get_if<std::string>(&cell))
    {
        return *pText;
    }
    if (const auto* pCount = std::get_if<uint64_t>(&cell))
    {
        return *pCount;
    }
    const auto* pNumber = std::get_if<double>(&cell);
    return pNumber == nullptr ? Json(nullptr) : Json(*pNumber);
}

} // namespace

Cell TextCell(const std::string& text)
{
    Cell cell;
    if (!text.empty())
    {
        cell = text;
    }
    return cell;
}

void SortTable(Table* pTable, const std::string& key)
{
    std::vector<std::string> keys;
    for (const TableColumn& column : pTable->m_columns)
    {
        keys.push_back(column.m_pKey);
    }
    const auto at = std::find(keys.begin(), keys.end(), key);
    if (at == keys.end())
    {
        throw Failure(ZORV_FAILURE_USAGE, "--sort: there is no column \"{}\"; there are {}", key,
                      fmt::join(keys, ", "));
    }
    const auto column = static_cast<std::size_t>(at - keys.begin());
    const bool isText = pTable->m_columns[column].m_form == ZORV_CELL_TEXT;
    std::stable_sort(pTable->m_rows.begin(), pTable->m_rows.end(),
                     [column, isText](const std::vector<Cell>& a, const std::vector<Cell>& b)
                     { return isText ? a[column] < b[column] : b[column] < a[column]; });
}

void KeepRows(Table* pTable, std::size_t count)
{
    if (pTable->m_rows.size() > count)
    {
        pTable->m_notes.insert(pTable->m_notes.begin(),
                               fmt::format("and {} more; -n 0 shows all", pTable->m_rows.size() - count));
        pTable->m_rows.resize(count);
    }
}

std::string TableText(const Table& table, const Screen& screen)
{
    std::vector<std::vector<std::string>> texts;
    for (const std::vector<Cell>& row : table.m_rows)
    {
        std::vector<std::string>& cells = texts.emplace_back();
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            cells.push_back(CellText(row[i], table.m_columns[i].m_form));
        }
    }
    const std::vector<std::size_t> widths = WidthsOf(table, texts, screen);
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

std::string TableCsv(const Table& table)
{
    std::string text;
    for (std::size_t i = 0; i < table.m_columns.size(); ++i)
    {
        text += (i == 0 ? "" : ",") + std::string(table.m_columns[i].m_pKey);
    }
    text += '\n';
    for (const std::vector<Cell>& row : table.m_rows)
    {
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            text += (i == 0 ? "" : ",") + CsvCell(row[i]);
        }
        text += '\n';
    }
    return text;
}

std::string TableJson(const Table& table)
{
    Json rows = Json::array();
    for (const std::vector<Cell>& row : table.m_rows)
    {
        Json json;
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            json[table.m_columns[i].m_pKey] = JsonCell(row[i]);
        }
        rows.push_back(std::move(json));
    }
    const Json json = {{"rows", std::move(rows)}, {"notes", table.m_notes}};
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace qelix
