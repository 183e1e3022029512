// A session as an SQLite database. Texts stand in one table each, records refer to them by number; the views
// put the names back in.
#include "Export/Database.h"
#include "Export/Formats.h"
#include "Report/SampleWeight.h"
#include "Symbols/ModuleMap.h"

#include <map>

namespace qelix
{
namespace
{

constexpr const char* ZORV_SCHEMA = R"(
create table session (key text primary key, value) without rowid;
create table processes (id integer primary key, pid integer, rank integer, name text, key text,
                        first_ns integer, last_ns integer, sample_ns integer);
create table threads (id integer primary key, process integer references processes, tid integer, name text,
                      is_main integer);
create table modules (id integer primary key, path text);
create table mappings (process integer references processes, module integer references modules,
                       start integer, end integer, time_ns integer);
create table names (id integer primary key, name text);
create table calls (id integer primary key, thread integer references threads, class text, kind text,
                    name integer references names, start_ns integer, end_ns integer, duration_ns integer,
                    object integer, result integer, region integer, object_name integer references names);
create table functions (id integer primary key, name text, module integer references modules, source text,
                        line integer);
create table frames (id integer, inlined integer, function integer references functions, source text,
                     line integer, primary key (id, inlined)) without rowid;
create table stacks (id integer primary key, parent integer references stacks, frame integer references frames);
create table samples (id integer primary key, thread integer references threads, time_ns integer, core integer,
                      stack integer references stacks, region integer);
create table counters (sample integer references samples, event integer, count integer, enabled integer,
                       running integer);
create view call_list as
  select c.id, p.rank, p.pid, p.name as process, t.tid, t.name as thread, c.class, c.kind, n.name as function,
         c.start_ns, c.end_ns, c.duration_ns, c.object, c.result, c.region,
         o.name as object_name
  from calls c join threads t on t.id = c.thread join processes p on p.id = t.process join names n on n.id = c.name
       left join names o on o.id = c.object_name;
create view sample_list as
  select s.id, p.rank, p.pid, p.name as process, t.tid, t.name as thread, s.time_ns, s.core, s.stack,
         f.name as function, m.path as module, r.source, r.line
  from samples s join threads t on t.id = s.thread join processes p on p.id = t.process
       left join stacks k on k.id = s.stack left join frames r on r.id = k.frame and r.inlined = 0
       left join functions f on f.id = r.function left join modules m on m.id = f.module;
)";

// When all rows are in: that is one sort, instead of a search for each row.
constexpr const char* ZORV_INDEXES = R"(
create index calls_by_thread on calls (thread, start_ns);
create index calls_by_time on calls (start_ns);
create index calls_by_object on calls (object) where object is not null;
create index samples_by_thread on samples (thread, time_ns);
create index samples_by_stack on samples (stack);
create index frames_by_function on frames (function);
)";

struct Inserts
{
    Statement m_session, m_processes, m_threads, m_modules, m_mappings, m_names, m_calls, m_functions, m_frames,
        m_stacks, m_samples, m_counters;
};

struct DatabaseWriter
{
    SessionStream* m_pStream;
    Inserts m_inserts;
    NameTable m_modules;
    std::map<int32_t, int64_t> m_threadIds; // of the process that is being written
    int64_t m_threads = 0;
    int64_t m_calls = 0;
    int64_t m_samples = 0;
};

Inserts PrepareInserts(sqlite3* pDatabase)
{
    const auto insert = [pDatabase](const char* pTable, std::size_t columns)
    { return PrepareInsert(pDatabase, pTable, columns); };
    return {insert("session", 2),  insert("processes", 8), insert("threads", 5), insert("modules", 2),
            insert("mappings", 5), insert("names", 2),     insert("calls", 12),  insert("functions", 5),
            insert("frames", 5),   insert("stacks", 3),    insert("samples", 6), insert("counters", 5)};
}

DatabaseValue NumberOrNull(bool isKnown, uint64_t value)
{
    return isKnown ? DatabaseValue(Number(value)) : DatabaseValue(Null{});
}

DatabaseValue TextOrNull(const std::string& text)
{
    return text.empty() ? DatabaseValue(Null{}) : DatabaseValue(PrintableText(text));
}

void WriteMappings(DatabaseWriter* pWriter, const SurveyedProcess& process, int64_t id)
{
    const ModuleMap map = ReadModuleMap(process.m_files.m_metadata);
    for (const Mapping& mapping : map.m_mappings)
    {
        Insert(pWriter->m_inserts.m_mappings.get(),
               {id, int64_t{NameId(&pWriter->m_modules, mapping.m_path)}, Number(mapping.m_start),
                Number(mapping.m_end), Number(mapping.m_time)});
    }
}

void WriteCall(DatabaseWriter* pWriter, const StreamedCall& call)
{
    Insert(pWriter->m_inserts.m_calls.get(),
           {++pWriter->m_calls, pWriter->m_threadIds[call.m_tid], std::string(TraceClassName(call.m_class)),
            std::string(call.m_pKind->m_pName), int64_t{call.m_name}, Number(call.m_start),
            NumberOrNull(HasReturned(call), call.m_end), NumberOrNull(IsTimed(call), call.m_end - call.m_start),
            NumberOrNull(call.m_object != 0, call.m_object), call.m_result, Number(call.m_region),
            NumberOrNull(call.m_objectName != ZORV_NO_NAME, call.m_objectName)});
}

void WriteSample(DatabaseWriter* pWriter, const StreamedSample& sample)
{
    const int64_t id = ++pWriter->m_samples;
    Insert(pWriter->m_inserts.m_samples.get(),
           {id, pWriter->m_threadIds[sample.m_tid], Number(sample.m_time), int64_t{sample.m_core},
            NumberOrNull(sample.m_stack != 0, sample.m_stack), Number(sample.m_region)});
    for (const ZorvUmsEventData& event : *sample.m_pEvents)
    {
        Insert(pWriter->m_inserts.m_counters.get(), {id, Number(event.m_id), Number(event.m_eventCount),
                                                     Number(event.m_timeEnabled), Number(event.m_timeRunning)});
    }
}

void WriteProcess(DatabaseWriter* pWriter, const SurveyedProcess& process, int64_t id)
{
    Insert(pWriter->m_inserts.m_processes.get(),
           {id, process.m_pid, int64_t{process.m_rank}, PrintableText(process.m_name), process.m_key,
            Number(process.m_span.m_first), Number(process.m_span.m_last),
            Number(WholeNs(process.m_nsPerSample))});
    pWriter->m_threadIds.clear();
    for (const auto& [tid, thread] : process.m_threads)
    {
        pWriter->m_threadIds[tid] = ++pWriter->m_threads;
        Insert(pWriter->m_inserts.m_threads.get(),
               {pWriter->m_threads, id, int64_t{tid}, PrintableText(thread.m_name),
                int64_t{tid == process.m_pid}});
    }
    WriteMappings(pWriter, process, id);
    StreamRecords(pWriter->m_pStream, process,
                  {[&](const StreamedCall& call) { WriteCall(pWriter, call); },
                   [&](const StreamedSample& sample) { WriteSample(pWriter, sample); }});
}

// A stack is its innermost frame and the stack of the frames around it. What is inlined at a frame's place
// comes first, the function that really stands there last.
void WriteStacks(DatabaseWriter* pWriter)
{
    const StackTable& stacks = pWriter->m_pStream->m_stacks;
    for (uint32_t stack = 1; stack < stacks.m_frames.size(); ++stack)
    {
        const PlacedFrame& frame = stacks.m_frames[stack];
        Insert(pWriter->m_inserts.m_stacks.get(),
               {int64_t{stack}, NumberOrNull(frame.m_parent != 0, frame.m_parent), int64_t{frame.m_place}});
    }
    const Symbolizer& symbolizer = pWriter->m_pStream->m_symbolizer;
    for (uint32_t place = 0; place < stacks.m_places.size(); ++place)
    {
        int64_t inlined = 0;
        for (const uint32_t id : stacks.m_places[place].m_pPlace->m_lines)
        {
            const CodeLine& line = symbolizer.m_lines[id];
            Insert(pWriter->m_inserts.m_frames.get(), {int64_t{place}, inlined++, int64_t{line.m_function},
                                                       TextOrNull(symbolizer.m_sources[line.m_source]),
                                                       NumberOrNull(line.m_line != 0, line.m_line)});
        }
    }
}

void WriteNames(DatabaseWriter* pWriter)
{
    const SessionStream& stream = *pWriter->m_pStream;
    int64_t id = 0;
    for (const std::string& name : stream.m_names.m_names)
    {
        Insert(pWriter->m_inserts.m_names.get(), {id++, PrintableText(name)});
    }
    for (const uint32_t used : UsedFunctions(stream.m_stacks))
    {
        const Function& function = stream.m_symbolizer.m_functions[used];
        Insert(pWriter->m_inserts.m_functions.get(),
               {int64_t{used}, PrintableText(function.m_name),
                int64_t{NameId(&pWriter->m_modules, function.m_module)}, TextOrNull(function.m_source),
                NumberOrNull(function.m_line != 0, function.m_line)});
    }
    id = 0;
    for (const std::string& path : pWriter->m_modules.m_names)
    {
        Insert(pWriter->m_inserts.m_modules.get(), {id++, PrintableText(path)});
    }
}

void WriteSessionFacts(DatabaseWriter* pWriter)
{
    const SessionSurvey& survey = pWriter->m_pStream->m_survey;
    sqlite3_stmt* pInsert = pWriter->m_inserts.m_session.get();
    Insert(pInsert, {std::string("path"), survey.m_path});
    Insert(pInsert, {std::string("period_ns"), Number(survey.m_periodNs)});
    Insert(pInsert, {std::string("first_ns"), Number(survey.m_span.m_first)});
    Insert(pInsert, {std::string("last_ns"), Number(survey.m_span.m_last)});
}

} // namespace

void WriteSqlite(SessionStream* pStream, const std::string& path)
{
    const Database pDatabase = MakeDatabase(path);
    Execute(pDatabase.get(), ZORV_SCHEMA);
    Execute(pDatabase.get(), "begin");
    {
        DatabaseWriter writer{pStream, PrepareInserts(pDatabase.get()), {}, {}};
        WriteSessionFacts(&writer);
        int64_t id = 0;
        for (const SurveyedProcess& process : pStream->m_survey.m_processes)
        {
            WriteProcess(&writer, process, ++id);
        }
        WriteStacks(&writer);
        WriteNames(&writer);
    }
    Execute(pDatabase.get(), "commit");
    Execute(pDatabase.get(), ZORV_INDEXES);
}

} // namespace qelix
