// The options that the views of a session have in common.
#pragma once

#include "Report/SessionFacts.h"
#include "Report/Table.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace qelix
{

// What of the session is looked at.
struct FilterOptions
{
    std::vector<std::string> m_threads;
    std::vector<std::string> m_processes;
    std::vector<std::string> m_classes;
    std::string m_time;
};

// How a table of it is printed.
struct TableOptions
{
    std::string m_sort;
    std::optional<std::size_t> m_rows; // 0: all
    bool m_isJson = false;
    bool m_isCsv = false;
};

void AddFilterOptions(CLI::App* pApp, FilterOptions* pOptions);
void AddTableOptions(CLI::App* pApp, TableOptions* pOptions);

// Each fails when a text cannot be understood.
RecordFilter FilterOf(const FilterOptions& options);
void PrintTable(Table table, const TableOptions& options);

// The directory when it is one of a session, else the newest session here.
std::string SessionOr(const std::string& directory);

} // namespace qelix
