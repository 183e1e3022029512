// SQLite with its errors as failures.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <variant>

struct sqlite3;
struct sqlite3_stmt;

namespace qelix
{

struct DatabaseCloser
{
    void operator()(sqlite3* pDatabase) const;
    void operator()(sqlite3_stmt* pStatement) const;
};

using Database = std::unique_ptr<sqlite3, DatabaseCloser>;
using Statement = std::unique_ptr<sqlite3_stmt, DatabaseCloser>;

struct Null
{
};

using DatabaseValue = std::variant<Null, int64_t, std::string>;

// A new database, for one writer and without a journal: a half written one is thrown away as a whole.
Database MakeDatabase(const std::string& path);
void Execute(sqlite3* pDatabase, const char* pSql);
Statement Prepare(sqlite3* pDatabase, const std::string& sql);

// "insert into TABLE" of so many columns.
Statement PrepareInsert(sqlite3* pDatabase, const char* pTable, std::size_t columns);
void Insert(sqlite3_stmt* pStatement, std::initializer_list<DatabaseValue> values);

// SQLite's numbers have a sign; times and addresses of a process do not reach it.
inline int64_t Number(uint64_t value)
{
    return static_cast<int64_t>(value);
}

} // namespace qelix
