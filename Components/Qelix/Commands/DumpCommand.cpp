#include "Commands/Commands.h"
#include "Commands/DumpForms.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <memory>

namespace qelix
{
namespace
{

struct DumpForm
{
    std::string (*m_header)(const RecordFile& file);
    std::string (*m_record)(const RecordFile& file, const Record& record, ProcessSymbols* pSymbols);
};

constexpr DumpForm g_text = {HeaderAsText, RecordAsText};
constexpr DumpForm g_json = {HeaderAsJson, RecordAsJson};

struct DumpOptions
{
    std::vector<std::string> m_files;
    bool m_isJson = false;
};

// Of a session the file that says what was mapped in the process of this file; empty when there is none.
std::string MetadataBeside(const std::string& path)
{
    const std::filesystem::path file = path;
    const std::string name = file.stem();
    const std::filesystem::path metadata =
        file.parent_path() / ".." / "metadata" / ("metadata_" + name.substr(name.find('_') + 1) + ".meta");
    std::error_code error;
    return std::filesystem::is_regular_file(metadata, error) ? metadata.string() : "";
}

// False when the file could not be read to its end.
bool DumpFile(const std::string& path, const DumpForm& form, Symbolizer* pSymbolizer)
{
    ProcessSymbols symbols = SymbolsOf(pSymbolizer, ReadModuleMap(MetadataBeside(path)));
    const auto pFile = OpenRecordFile(path);
    if (pFile->m_header.m_isPresent)
    {
        PrintOut(form.m_header(*pFile));
    }
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        PrintOut(form.m_record(*pFile, record, &symbols));
    }
    fflush(stdout); // what precedes the damage stands before the message also in one common stream
    if (pFile->m_unreadBytes != 0)
    {
        PrintNote(fmt::format("{}: byte offset {}: an end mark; {} bytes from here on are not read", path,
                              pFile->m_offset, pFile->m_unreadBytes));
    }
    if (pFile->m_damage)
    {
        PrintDamage(*pFile->m_damage);
    }
    return !pFile->m_damage.has_value();
}

int Dump(const DumpOptions& options)
{
    bool areWhole = true;
    Symbolizer symbolizer;
    for (const std::string& path : options.m_files)
    {
        areWhole = DumpFile(path, options.m_isJson ? g_json : g_text, &symbolizer) && areWhole;
    }
    return areWhole ? 0 : ZORV_STATUS_DAMAGED;
}

} // namespace

void AddDumpCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<DumpOptions>();
    CLI::App* pDump = pApp->add_subcommand("dump", "Print every record of the agent's files, a line each");
    pDump->add_option("FILE", pOptions->m_files, ".umt, .ums and .meta files")->required()->type_name("");
    pDump->add_flag("--json", pOptions->m_isJson, "A JSON object a line, with every field by name");
    pDump->footer(
        "A file that cannot be read to its end is named with the byte offset of the damage; the status is 1.");
    pDump->callback([pOptions, pStatus] { *pStatus = Dump(*pOptions); });
}

} // namespace qelix
