#include "Commands/Commands.h"
#include "Commands/ViewOptions.h"
#include "Export/Formats.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fmt/ranges.h>
#include <memory>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr const char* ZORV_SAMPLES_CLASS = "cpu";

struct ExportFormat
{
    const char* m_pName;
    const char* m_pWhat;
    bool m_isText;
    bool m_needsSamples;
    Compression m_compression;                                // of its own accord
    void (*m_write)(SessionStream* pStream, Output* pOutput); // null: it has a road of its own
};

constexpr ExportFormat g_formats[] = {
    {"folded", "stacks, a line each, for flame graph tools", true, true, ZORV_COMPRESS_NONE, WriteFolded},
    {"speedscope", "JSON for speedscope", true, false, ZORV_COMPRESS_NONE, WriteSpeedscope},
    {"pprof", "profile for pprof", false, false, ZORV_COMPRESS_GZIP, WritePprof},
    {"chrome", "trace events as JSON, for chrome://tracing and others", true, false, ZORV_COMPRESS_NONE,
     WriteChromeTrace},
    {"perfetto", "trace for Perfetto", false, false, ZORV_COMPRESS_NONE, WritePerfetto},
    {"firefox", "JSON for the Firefox profiler", true, false, ZORV_COMPRESS_NONE, WriteFirefox},
    {"sqlite", "SQLite database", false, false, ZORV_COMPRESS_NONE, nullptr},
    {"csv", "tables of comma-separated values", true, false, ZORV_COMPRESS_NONE, nullptr},
    {"json", "a JSON object a line", true, false, ZORV_COMPRESS_NONE, WriteJsonLines},
};

constexpr ExportFormat g_legacyPprof = {"pprof", "older profile",    false,
                                        true,    ZORV_COMPRESS_NONE, WritePprofLegacy};

struct ExportOptions
{
    std::string m_first;  // FORMAT, or DIR when the format was given by its option
    std::string m_second; // DIR
    std::string m_to;
    std::string m_file;
    std::string m_compress;
    std::string m_table = "calls";
    bool m_isPartitioned = false;
    bool m_isLegacy = false;
    bool m_withAgentFrames = false;
    FilterOptions m_filter;
};

const ExportFormat& FormatOf(const std::string& name)
{
    std::vector<std::string> known;
    for (const ExportFormat& format : g_formats)
    {
        if (name == format.m_pName)
        {
            return format;
        }
        known.emplace_back(format.m_pName);
    }
    throw Failure(ZORV_FAILURE_USAGE, "there is no format \"{}\"; the formats are {}", name,
                  fmt::join(known, ", "));
}

const ExportFormat& FormOf(const ExportFormat& format, const ExportOptions& options)
{
    if (options.m_isLegacy && format.m_write != WritePprof)
    {
        throw Failure(ZORV_FAILURE_USAGE, "--legacy is for pprof; leave it out");
    }
    return options.m_isLegacy ? g_legacyPprof : format;
}

Compression CompressionOf(const ExportOptions& options, const ExportFormat& format)
{
    if (options.m_compress == "gzip" || (options.m_compress.empty() && options.m_file.ends_with(".gz")))
    {
        return ZORV_COMPRESS_GZIP;
    }
    if (options.m_compress == "zstd" || (options.m_compress.empty() && options.m_file.ends_with(".zst")))
    {
        return ZORV_COMPRESS_ZSTD;
    }
    if (options.m_compress == "none")
    {
        return ZORV_COMPRESS_NONE;
    }
    return options.m_isPartitioned ? ZORV_COMPRESS_ZSTD : format.m_compression;
}

void RequireFile(const ExportOptions& options, const char* pWhat)
{
    if (options.m_file.empty())
    {
        throw Failure(ZORV_FAILURE_USAGE, "{} cannot go to standard output; add -o FILE", pWhat);
    }
}

// What can be seen to be wrong before the session is read.
void CheckOptions(const ExportOptions& options, const ExportFormat& format)
{
    const bool isCsv = options.m_isPartitioned && std::string(format.m_pName) == "csv";
    if (options.m_isPartitioned && !isCsv)
    {
        throw Failure(ZORV_FAILURE_USAGE, "only csv can be partitioned");
    }
    if (isCsv || std::string(format.m_pName) == "sqlite")
    {
        RequireFile(options, isCsv ? "a folder of partitions" : "a database");
    }
    std::error_code error;
    if (isCsv && std::filesystem::exists(options.m_file, error))
    {
        throw Failure(ZORV_FAILURE_EXISTS, "{} exists; name a folder that does not, in -o", options.m_file)
            .At(options.m_file);
    }
    const bool isText = format.m_isText && CompressionOf(options, format) == ZORV_COMPRESS_NONE;
    if (options.m_file.empty() && !isText && isatty(STDOUT_FILENO) != 0)
    {
        throw Failure(ZORV_FAILURE_USAGE, "{} is binary and would garble the terminal; add -o FILE",
                      format.m_pName);
    }
}

void RequireRecords(const SessionStream& stream, const ExportFormat& format)
{
    uint64_t samples = 0;
    uint64_t calls = 0;
    for (const SurveyedProcess& process : stream.m_survey.m_processes)
    {
        for (const auto& [tid, thread] : process.m_threads)
        {
            samples += thread.m_samples;
            calls += thread.m_calls;
        }
    }
    if (samples == 0 && format.m_needsSamples)
    {
        throw Failure(ZORV_FAILURE_NO_DATA, "{} has no samples to export; record with qelix run",
                      stream.m_survey.m_path)
            .At(stream.m_survey.m_path);
    }
    if (samples == 0 && calls == 0)
    {
        throw Failure(ZORV_FAILURE_NO_DATA,
                      "{} has no records of the processes and threads that were asked for",
                      stream.m_survey.m_path)
            .At(stream.m_survey.m_path);
    }
}

void Write(SessionStream* pStream, const ExportOptions& options, const ExportFormat& format)
{
    const Compression compression = CompressionOf(options, format);
    if (options.m_isPartitioned || std::string(format.m_pName) == "sqlite")
    {
        UnfinishedPath path(options.m_file);
        options.m_isPartitioned ? WriteCsvPartitions(pStream, path.m_newPath, compression)
                                : WriteSqlite(pStream, path.m_newPath);
        KeepPath(&path);
        return;
    }
    const auto pOutput = OpenOutput(options.m_file, compression);
    format.m_write != nullptr ? format.m_write(pStream, pOutput.get())
                              : WriteCsvTable(pStream, options.m_table, pOutput.get());
    CloseOutput(pOutput.get());
}

// Samples are a class of their own here.
ExportFilter ExportFilterOf(FilterOptions options)
{
    ExportFilter filter;
    if (!options.m_classes.empty())
    {
        filter.m_withSamples = std::erase(options.m_classes, ZORV_SAMPLES_CLASS) != 0;
        filter.m_withCalls = !options.m_classes.empty();
    }
    filter.m_records = FilterOf(options);
    return filter;
}

int Export(const ExportOptions& options)
{
    const bool isNamed = !options.m_to.empty();
    if ((options.m_first.empty() && !isNamed) || (isNamed && !options.m_second.empty()))
    {
        throw Failure(ZORV_FAILURE_USAGE, "no format to export to; say qelix export FORMAT DIR");
    }
    const std::string session = SessionOr(isNamed ? options.m_first : options.m_second);
    const ExportFormat& format = FormOf(FormatOf(isNamed ? options.m_to : options.m_first), options);
    CheckOptions(options, format);
    const auto pStream = OpenStream(session, ExportFilterOf(options.m_filter), options.m_withAgentFrames);
    RequireRecords(*pStream, format);
    Write(pStream.get(), options, format);
    for (const Damage& damage : pStream->m_survey.m_damages)
    {
        PrintDamage(damage);
    }
    return pStream->m_survey.m_damages.empty() ? 0 : ZORV_STATUS_DAMAGED;
}

std::string FormatsAsText()
{
    std::string text = "Formats:\n";
    for (const ExportFormat& format : g_formats)
    {
        text += fmt::format("  {:<12}{}\n", format.m_pName, format.m_pWhat);
    }
    return text;
}

} // namespace

void AddExportCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<ExportOptions>();
    CLI::App* pExport =
        pApp->add_subcommand("export", "Hand what a session holds to other tools, in a form that they read");
    pExport->add_option("FORMAT", pOptions->m_first, "One of those below")->type_name("");
    pExport->add_option("DIR", pOptions->m_second, "Session directory (qelix-last)")->type_name("");
    pExport->add_option("--to", pOptions->m_to, "The format, when it does not stand before DIR")
        ->type_name("FORMAT");
    pExport->add_option("-o,--output", pOptions->m_file, "Where to; standard output without it")
        ->type_name("FILE");
    pExport
        ->add_option("--compress", pOptions->m_compress,
                     "none, gzip or zstd; without it FILE's ending .gz or .zst decides")
        ->check(CLI::IsMember({"none", "gzip", "zstd"}))
        ->type_name("HOW");
    pExport->add_option("--table", pOptions->m_table, "Of csv: calls, samples or threads")
        ->check(CLI::IsMember(CsvTables()))
        ->type_name("NAME");
    pExport->add_flag("--partition", pOptions->m_isPartitioned,
                      "Of csv: a folder of all tables, compressed, a file for each process under rank=N");
    pExport->add_flag("--legacy", pOptions->m_isLegacy,
                      "Of pprof: the older form, which google-pprof reads; samples only");
    AddFilterOptions(pExport, &pOptions->m_filter);
    pExport->get_option("--class")->description("Classes of calls: pthread, sleep, ...; cpu are the samples");
    pExport->add_flag("--agent-frames", pOptions->m_withAgentFrames,
                      "Show the frames of the agent's signal handler too");
    pExport->footer(FormatsAsText());
    pExport->callback([pOptions, pStatus] { *pStatus = Export(*pOptions); });
}

} // namespace qelix
