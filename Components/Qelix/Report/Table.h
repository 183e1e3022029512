// A view of a session: rows under columns, and the forms that they are printed in.
#pragma once

#include "Report/Screen.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace qelix
{

enum CellForm
{
    ZORV_CELL_TEXT,
    ZORV_CELL_COUNT,
    ZORV_CELL_TIME,    // nanoseconds
    ZORV_CELL_SHARE,   // of 1
    ZORV_CELL_NUMBER,  // with a fraction
    ZORV_CELL_ADDRESS, // of a program
};

struct TableColumn
{
    const char* m_pKey;   // in CSV, JSON and for --sort
    const char* m_pTitle; // of the text
    CellForm m_form;
    bool m_isDetail = false; // left out of a text that the screen is too narrow for
};

// Nothing: not known.
using Cell = std::variant<std::monostate, std::string, uint64_t, double>;

Cell TextCell(const std::string& text); // nothing for an empty one

struct Table
{
    std::vector<TableColumn> m_columns;
    std::vector<std::vector<Cell>> m_rows;
    std::vector<std::string> m_notes; // below the text, and in JSON
};

template <typename... T> std::vector<Cell>& AddRow(Table* pTable, T&&... cells)
{
    std::vector<Cell>& row = pTable->m_rows.emplace_back();
    row.reserve(pTable->m_columns.size());
    (row.emplace_back(std::forward<T>(cells)), ...);
    return row;
}

// Largest first, texts in the order of the alphabet. Fails for a column that there is not, naming those there
// are.
void SortTable(Table* pTable, const std::string& key);
void KeepRows(Table* pTable, std::size_t count);

std::string TableText(const Table& whole, const Screen& screen);
std::string TableCsv(const Table& table);
std::string TableJson(const Table& table); // an object: "rows", a list of objects, and "notes"

} // namespace qelix
