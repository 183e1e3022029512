#include "Export/Database.h"

#include "Session/Failure.h"

#include <sqlite3.h>

namespace qelix
{
namespace
{

void RequireAt(bool isDone, sqlite3* pDatabase, const std::string& path)
{
    if (!isDone)
    {
        throw Failure(ZORV_FAILURE_CANNOT_WRITE,
                      "the database {} cannot be written: {}; choose another file with -o FILE", path,
                      pDatabase == nullptr ? "out of memory" : sqlite3_errmsg(pDatabase))
            .At(path);
    }
}

void Require(bool isDone, sqlite3* pDatabase)
{
    const char* pPath = sqlite3_db_filename(pDatabase, nullptr);
    RequireAt(isDone, pDatabase, pPath == nullptr ? "" : pPath);
}

struct Binder
{
    sqlite3_stmt* m_pStatement;
    int m_column;

    void operator()(Null) const
    {
        sqlite3_bind_null(m_pStatement, m_column);
    }

    void operator()(int64_t value) const
    {
        sqlite3_bind_int64(m_pStatement, m_column, value);
    }

    void operator()(const std::string& text) const
    {
        sqlite3_bind_text64(m_pStatement, m_column, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    }
};

} // namespace

void DatabaseCloser::operator()(sqlite3* pDatabase) const
{
    sqlite3_close(pDatabase);
}

void DatabaseCloser::operator()(sqlite3_stmt* pStatement) const
{
    sqlite3_finalize(pStatement);
}

Database MakeDatabase(const std::string& path)
{
    sqlite3* pRaw = nullptr;
    const int status = sqlite3_open_v2(
        path.c_str(), &pRaw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    Database pDatabase(pRaw);
    RequireAt(status == SQLITE_OK, pRaw, path);
    Execute(pRaw, "pragma journal_mode = off; pragma synchronous = off; pragma locking_mode = exclusive;"
                  "pragma cache_size = -32768; pragma temp_store = file;");
    return pDatabase;
}

void Execute(sqlite3* pDatabase, const char* pSql)
{
    Require(sqlite3_exec(pDatabase, pSql, nullptr, nullptr, nullptr) == SQLITE_OK, pDatabase);
}

Statement Prepare(sqlite3* pDatabase, const std::string& sql)
{
    sqlite3_stmt* pStatement = nullptr;
    Require(sqlite3_prepare_v2(pDatabase, sql.c_str(), -1, &pStatement, nullptr) == SQLITE_OK, pDatabase);
    return Statement(pStatement);
}

Statement PrepareInsert(sqlite3* pDatabase, const char* pTable, std::size_t columns)
{
    std::string marks = "?";
    for (std::size_t i = 1; i < columns; ++i)
    {
        marks += ",?";
    }
    return Prepare(pDatabase, fmt::format("insert into {} values ({})", pTable, marks));
}

void Insert(sqlite3_stmt* pStatement, std::initializer_list<DatabaseValue> values)
{
    int column = 0;
    for (const DatabaseValue& value : values)
    {
        std::visit(Binder{pStatement, ++column}, value);
    }
    Require(sqlite3_step(pStatement) == SQLITE_DONE, sqlite3_db_handle(pStatement));
    sqlite3_reset(pStatement);
}

} // namespace qelix
