#include "Commands/Commands.h"
#include "Commands/DumpForms.h"
#include "Commands/Pager.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <vector>

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

// How the reading of a file ended.
struct FileEnd
{
    std::string m_path;
    uint64_t m_offset;
    uint64_t m_unreadBytes;
    std::optional<Damage> m_damage;
};

// What went before is seen before these, also where there is a pager, or one common stream.
void TellEnds(std::vector<FileEnd>* pEnds)
{
    fflush(stdout);
    for (const FileEnd& end : *pEnds)
    {
        if (end.m_unreadBytes != 0)
        {
            PrintNote(fmt::format("{}: byte offset {}: an end mark; {} bytes from here on are not read",
                                  end.m_path, end.m_offset, end.m_unreadBytes));
        }
        if (end.m_damage)
        {
            PrintDamage(*end.m_damage);
        }
    }
    pEnds->clear();
}

// False when nobody looks any more.
bool DumpRecords(RecordFile* pFile, const DumpForm& form, Symbolizer* pSymbolizer, const std::string& path,
                 PagedText* pText)
{
    ProcessSymbols symbols = SymbolsOf(pSymbolizer, ReadModuleMap(MetadataBeside(path)));
    bool isSeen = !pFile->m_header.m_isPresent || PutPaged(pText, form.m_header(*pFile));
    Record record;
    while (isSeen && NextRecord(pFile, &record))
    {
        isSeen = PutPaged(pText, form.m_record(*pFile, record, &symbols));
    }
    return isSeen;
}

int Dump(const DumpOptions& options)
{
    std::vector<FileEnd> ends;
    bool areWhole = true;
    bool isSeen = true;
    Symbolizer symbolizer;
    auto pText = std::make_unique<PagedText>();
    for (auto path = options.m_files.begin(); isSeen && path != options.m_files.end(); ++path)
    {
        const auto pFile = OpenRecordFile(*path);
        isSeen = DumpRecords(pFile.get(), options.m_isJson ? g_json : g_text, &symbolizer, *path, pText.get());
        areWhole = areWhole && !pFile->m_damage;
        ends.push_back({*path, pFile->m_offset, pFile->m_unreadBytes, pFile->m_damage});
        if (pText->m_rows == 0) // no pager that they would disturb
        {
            TellEnds(&ends);
        }
    }
    pText.reset();
    TellEnds(&ends);
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
