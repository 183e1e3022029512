#include "Report/Table.h"

#include "Report/Csv.h"
#include "Session/Failure.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>
#include <string_view>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;

std::string CsvCell(const Cell& cell)
{
    if (const auto* pText = std::get_if<std::string>(&cell))
    {
        return CsvText(*pText);
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
    const std::vector<TableColumn>& columns = pTable->m_columns;
    auto at = std::find_if(columns.begin(), columns.end(),
                           [&key](const TableColumn& column) { return column.m_pKey == key; });
    if (at == columns.end()) // as the text calls it
    {
        at = std::find_if(columns.begin(), columns.end(),
                          [&key](const TableColumn& column) { return column.m_pTitle == key; });
    }
    if (at == columns.end())
    {
        throw Failure(ZORV_FAILURE_USAGE, "--sort: there is no column \"{}\"; there are {}", key,
                      fmt::join(keys, ", "));
    }
    const auto column = static_cast<std::size_t>(at - columns.begin());
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
