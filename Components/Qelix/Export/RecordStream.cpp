#include "Export/RecordStream.h"

#include "Reader/RecordFile.h"
#include "Report/ClockShift.h"
#include "Report/TraceFacts.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace qelix
{
namespace
{

struct CalledFunction
{
    uint64_t m_function;
    const CallKind* m_pKind;
    bool m_isNumber;
    auto operator<=>(const CalledFunction&) const = default;
};

struct ProcessStream
{
    SessionStream* m_pStream;
    const RecordSink* m_pSink;
    ProcessSymbols m_symbols;
    const SurveyedProcess& m_process;
    ProcessFilter m_filter;
    std::map<CalledFunction, uint32_t> m_known;     // names of functions, only while the map is stable
    std::optional<std::vector<DataImage>> m_images; // once a lock has been met
    std::unordered_map<uint64_t, std::string> m_heapNames;
    std::unordered_map<uint64_t, uint32_t> m_objects; // names of locks
};

uint32_t NameOfFunction(ProcessStream* pProcess, const CalledFunction& called, uint64_t time)
{
    const bool isStable = pProcess->m_symbols.m_map.m_isStable;
    if (const auto found = pProcess->m_known.find(called); isStable && found != pProcess->m_known.end())
    {
        return found->second;
    }
    const std::string name =
        NameOfCall(&pProcess->m_symbols, *called.m_pKind, called.m_function, called.m_isNumber, time);
    return pProcess->m_known[called] = NameId(&pProcess->m_pStream->m_names, name);
}

uint32_t NameOfLock(ProcessStream* pProcess, const CallKind& kind, uint64_t address)
{
    if (!kind.m_isLock || address == 0)
    {
        return ZORV_NO_NAME;
    }
    const auto [at, isNew] = pProcess->m_objects.emplace(address, ZORV_NO_NAME);
    if (isNew)
    {
        SessionStream* pStream = pProcess->m_pStream;
        if (!pProcess->m_images)
        {
            pProcess->m_images = DataImagesOf(&pStream->m_dataFiles, pProcess->m_symbols.m_map);
            pProcess->m_heapNames = HeapNames(pProcess->m_process.m_lockUses, *pProcess->m_images);
        }
        const auto heap = pProcess->m_heapNames.find(address);
        const std::string name =
            heap != pProcess->m_heapNames.end() ? heap->second : DataName(*pProcess->m_images, address);
        at->second = name.empty() ? ZORV_NO_NAME : NameId(&pStream->m_names, name);
    }
    return at->second;
}

bool IsWanted(const ProcessStream& process, int32_t tid, uint64_t start, uint64_t end)
{
    return process.m_process.m_threads.contains(tid) && CutToTimes(process.m_filter, &start, &end);
}

bool IsWanted(const ProcessStream& process, TraceClass traceClass)
{
    const std::vector<TraceClass>& classes = process.m_filter.m_classes;
    return classes.empty() || std::find(classes.begin(), classes.end(), traceClass) != classes.end();
}

struct RecordTaker
{
    ProcessStream* m_pProcess;

    void Call(const ZorvUmtRecordHdr& hdr, uint64_t function, uint64_t object, int64_t result,
              uint64_t region) const
    {
        const CallKind* pKind = FindCallKind(hdr.m_recType, hdr.m_subType);
        const TraceClass traceClass = ClassOf(*pKind);
        const int64_t shift = m_pProcess->m_process.m_clockShiftNs;
        const uint64_t start = Shifted(hdr.m_startTime, shift);
        const uint64_t end = Shifted(hdr.m_endTime, shift);
        if (!IsWanted(*m_pProcess, traceClass) || !IsWanted(*m_pProcess, hdr.m_tid, start, end))
        {
            return;
        }
        const CalledFunction called{function, pKind, (hdr.m_flags & ZORV_UMT_FLAG_SYSCALL_ID) != 0};
        // The process's own clock tells what lay at an address.
        m_pProcess->m_pSink->m_onCall({pKind, traceClass, NameOfFunction(m_pProcess, called, hdr.m_startTime),
                                       hdr.m_tid, start, end, object, result, region,
                                       NameOfLock(m_pProcess, *pKind, object)});
    }

    void operator()(const PthreadRecord& call) const
    {
        Call(call.m_hdr, call.m_body.m_funcVa, call.m_body.m_lockAddress, call.m_body.m_retValue,
             call.m_body.m_parId);
    }

    void operator()(const SyscallRecord& call) const
    {
        Call(call.m_hdr, call.m_body.m_funcVa, 0, static_cast<int64_t>(call.m_body.m_sysValue),
             call.m_body.m_parId);
    }

    void operator()(const SampleRecord& sample) const
    {
        const ZorvUmsRecordHdr& hdr = sample.m_hdr;
        const uint64_t time = Shifted(hdr.m_startTime, m_pProcess->m_process.m_clockShiftNs);
        if (!IsWanted(*m_pProcess, hdr.m_tid, time, time))
        {
            return;
        }
        SessionStream* pStream = m_pProcess->m_pStream;
        const uint32_t stack = StackId(&pStream->m_stacks, &m_pProcess->m_symbols, sample.m_callStack,
                                       hdr.m_startTime, pStream->m_withAgentFrames);
        m_pProcess->m_pSink->m_onSample(
            {hdr.m_tid, stack, time, sample.m_body.m_parId, hdr.m_coreId, &sample.m_events});
    }

    template <typename T> void operator()(const T&) const {}
};

void StreamFile(ProcessStream* pProcess, const std::string& path)
{
    if (path.empty())
    {
        return;
    }
    const auto pFile = OpenRecordFile(path); // the survey has noted its damage
    Record record;
    while (NextRecord(pFile.get(), &record))
    {
        std::visit(RecordTaker{pProcess}, record.m_body);
    }
}

} // namespace

uint32_t NameId(NameTable* pTable, const std::string& name)
{
    const auto [at, isNew] = pTable->m_ids.emplace(name, static_cast<uint32_t>(pTable->m_names.size()));
    if (isNew)
    {
        pTable->m_names.push_back(name);
    }
    return at->second;
}

const std::string* NameOfObject(const SessionStream& stream, const StreamedCall& call)
{
    return call.m_objectName == ZORV_NO_NAME ? nullptr : &stream.m_names.m_names[call.m_objectName];
}

std::unique_ptr<SessionStream> OpenStream(const std::string& path, const ExportFilter& filter,
                                          bool withAgentFrames)
{
    auto pStream = std::make_unique<SessionStream>();
    pStream->m_survey = SurveySession(path);
    pStream->m_filter = filter;
    pStream->m_withAgentFrames = withAgentFrames;
    NarrowSurvey(filter.m_records, &pStream->m_survey);
    return pStream;
}

std::string LabelOf(const std::string& name, int64_t id)
{
    return fmt::format("{} ({})", name.empty() ? "-" : PrintableText(name), id);
}

void StreamRecords(SessionStream* pStream, const SurveyedProcess& process, const RecordSink& sink)
{
    const ExportFilter& filter = pStream->m_filter;
    ProcessStream stream{pStream,
                         &sink,
                         SymbolsOf(&pStream->m_symbolizer, ReadModuleMap(process.m_files.m_metadata)),
                         process,
                         FilterOfRecords(filter.m_records, pStream->m_survey),
                         {},
                         {},
                         {},
                         {}};
    if (filter.m_withSamples && sink.m_onSample)
    {
        StreamFile(&stream, process.m_files.m_sample);
    }
    if (filter.m_withCalls && sink.m_onCall)
    {
        StreamFile(&stream, process.m_files.m_trace);
    }
}

TimeSpan PlacedSpan(const StreamedCall& call, const SurveyedProcess& process)
{
    if (!HasReturned(call))
    {
        const uint64_t start = call.m_start != 0 ? call.m_start : process.m_span.m_last;
        return {start, std::max(start, process.m_span.m_last)};
    }
    if (IsTimed(call))
    {
        return {call.m_start, call.m_end};
    }
    const uint64_t known = std::max(call.m_start, call.m_end);
    const uint64_t time = known != 0 ? known : process.m_span.m_first;
    return {time, time};
}

} // namespace qelix
