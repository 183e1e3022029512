// Tables of comma-separated values. Every row names its process and thread, so that a file can be read without
// the others.
#include "Report/Csv.h"
#include "Export/Folded.h"
#include "Export/Formats.h"

#include <filesystem>
#include <fmt/format.h>
#include <functional>
#include <map>

namespace qelix
{
namespace
{

struct TableWriter
{
    SessionStream* m_pStream;
    Output* m_pOutput;
    std::map<int32_t, std::string> m_heads; // the columns that say which thread it was
};

struct Table
{
    const char* m_pName;
    const char* m_pColumns; // behind those of the thread
    void (*m_write)(TableWriter* pWriter, const SurveyedProcess& process);
};

// Names come from the program: no byte of them may end a line.
std::string NameAsCsv(const std::string& name)
{
    return CsvText(PrintableText(name));
}

std::map<int32_t, std::string> HeadsOfThreads(const SurveyedProcess& process)
{
    std::map<int32_t, std::string> heads;
    for (const auto& [tid, thread] : process.m_threads)
    {
        heads[tid] =
            fmt::format("{},{},{},{}", process.m_pid, NameAsCsv(process.m_name), tid, NameAsCsv(thread.m_name));
    }
    return heads;
}

void WriteThreads(TableWriter* pWriter, const SurveyedProcess& process)
{
    for (const auto& [tid, thread] : process.m_threads)
    {
        Put(pWriter->m_pOutput, fmt::format("{},{}\n", pWriter->m_heads[tid], tid == process.m_pid ? 1 : 0));
    }
}

void WriteCalls(TableWriter* pWriter, const SurveyedProcess& process)
{
    SessionStream* pStream = pWriter->m_pStream;
    std::vector<std::string> names;
    const auto write = [&](const StreamedCall& call)
    {
        while (names.size() < pStream->m_names.m_names.size())
        {
            names.push_back(NameAsCsv(pStream->m_names.m_names[names.size()]));
        }
        Put(pWriter->m_pOutput,
            fmt::format("{},{},{},{},{},{},{},{},{},{},{}\n", pWriter->m_heads[call.m_tid],
                        TraceClassName(call.m_class), call.m_pKind->m_pName, names[call.m_name], call.m_start,
                        HasReturned(call) ? std::to_string(call.m_end) : "",
                        IsTimed(call) ? std::to_string(call.m_end - call.m_start) : "",
                        call.m_object == 0 ? "" : fmt::format("{:#x}", call.m_object), call.m_result,
                        call.m_region, call.m_objectName == ZORV_NO_NAME ? "" : names[call.m_objectName]));
    };
    StreamRecords(pStream, process, {write, nullptr});
}

// Functions of a stack in one field, outermost first.
std::string StackAsCsv(const SessionStream& stream, uint32_t stack)
{
    std::string text;
    for (const uint32_t function : FunctionsOfStack(stream.m_stacks, stack))
    {
        text += (text.empty() ? "" : ";") + FoldedFrame(stream.m_symbolizer.m_functions[function].m_name);
    }
    return NameAsCsv(text);
}

// Where the sample fell: function, module, source file and line.
std::string InnermostAsCsv(const SessionStream& stream, uint32_t stack)
{
    if (stack == 0)
    {
        return ",,,";
    }
    const PlacedFrame& frame = stream.m_stacks.m_frames[stack];
    const CodePlace& place = *stream.m_stacks.m_places[frame.m_place].m_pPlace;
    const CodeLine& line = stream.m_symbolizer.m_lines[place.m_lines.front()];
    const Function& function = stream.m_symbolizer.m_functions[line.m_function];
    return fmt::format("{},{},{},{}", NameAsCsv(function.m_name), NameAsCsv(function.m_module),
                       NameAsCsv(stream.m_symbolizer.m_sources[line.m_source]),
                       line.m_line == 0 ? "" : std::to_string(line.m_line));
}

void WriteSamples(TableWriter* pWriter, const SurveyedProcess& process)
{
    SessionStream* pStream = pWriter->m_pStream;
    const auto write = [&](const StreamedSample& sample)
    {
        Put(pWriter->m_pOutput,
            fmt::format("{},{},{},{},{}\n", pWriter->m_heads[sample.m_tid], sample.m_time, sample.m_core,
                        InnermostAsCsv(*pStream, sample.m_stack), StackAsCsv(*pStream, sample.m_stack)));
    };
    StreamRecords(pStream, process, {nullptr, write});
}

constexpr const char* ZORV_THREAD_COLUMNS = "pid,process,tid,thread";
constexpr Table g_tables[] = {
    {"calls", "class,kind,function,start_ns,end_ns,duration_ns,object,result,region,object_name", WriteCalls},
    {"samples", "time_ns,core,function,module,source,line,stack", WriteSamples},
    {"threads", "is_main", WriteThreads},
};

void WriteRows(const Table& table, SessionStream* pStream, const SurveyedProcess& process, Output* pOutput)
{
    TableWriter writer{pStream, pOutput, HeadsOfThreads(process)};
    table.m_write(&writer, process);
}

std::string Columns(const Table& table)
{
    return fmt::format("{},{}\n", ZORV_THREAD_COLUMNS, table.m_pColumns);
}

const char* EndingOf(Compression compression)
{
    return compression == ZORV_COMPRESS_GZIP   ? ".csv.gz"
           : compression == ZORV_COMPRESS_ZSTD ? ".csv.zst"
                                               : ".csv";
}

} // namespace

std::vector<std::string> CsvTables()
{
    std::vector<std::string> names;
    for (const Table& table : g_tables)
    {
        names.emplace_back(table.m_pName);
    }
    return names;
}

void WriteCsvTable(SessionStream* pStream, const std::string& name, Output* pOutput)
{
    for (const Table& table : g_tables)
    {
        if (name == table.m_pName)
        {
            Put(pOutput, Columns(table));
            for (const SurveyedProcess& process : pStream->m_survey.m_processes)
            {
                WriteRows(table, pStream, process, pOutput);
            }
        }
    }
}

void WriteCsvPartitions(SessionStream* pStream, const std::string& path, Compression compression)
{
    for (const SurveyedProcess& process : pStream->m_survey.m_processes)
    {
        for (const Table& table : g_tables)
        {
            const std::string folder = fmt::format("{}/{}/rank={}", path, table.m_pName, process.m_rank);
            std::filesystem::create_directories(folder);
            const auto pOutput = OpenOutput(folder + '/' + process.m_key + EndingOf(compression), compression);
            Put(pOutput.get(), Columns(table));
            WriteRows(table, pStream, process, pOutput.get());
            CloseOutput(pOutput.get());
        }
    }
}

} // namespace qelix
