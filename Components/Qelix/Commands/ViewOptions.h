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

// What the help says of them.
struct TableHelp
{
    const char* m_pSort = "The column to sort by, as CSV names it";
    const char* m_pRows = "Rows of the text (20); 0: all";
    const char* m_pJson = "One JSON object";
    const char* m_pCsv = "Comma-separated values";
};

void AddFilterOptions(CLI::App* pApp, FilterOptions* pOptions);
void AddTableOptions(CLI::App* pApp, TableOptions* pOptions, const TableHelp& help = {});

// Each fails when a text cannot be understood.
RecordFilter FilterOf(const FilterOptions& options);
void PrintTable(Table table, const TableOptions& options);

// Says on standard error what of the session's files cannot be read, and the status to leave with.
int ToldStatusOf(const SessionFacts& session);

// The directory when it is one of a session, else the newest session here.
std::string SessionOr(const std::string& directory);

} // namespace qelix
