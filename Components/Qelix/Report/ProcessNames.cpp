#include "Report/ProcessNames.h"

#include "Reader/RecordFile.h"
#include "Reader/RecordNames.h"
#include "Report/LifeSpan.h"
#include "Report/ThreadNames.h"
#include "Session/ProcessWatch.h"

#include <vector>

namespace qelix
{
namespace
{

struct NameTaker
{
    NamesOfProcess* m_pNames;
    std::vector<NameFact>* m_pFacts;

    void operator()(const TraceProcRecord& proc) const
    {
        Take(proc);
    }

    void operator()(const SampleProcRecord& proc) const
    {
        Take(proc);
    }

    template <typename T> void Take(const T& proc) const
    {
        m_pFacts->push_back({proc.m_hdr.m_tid, proc.m_body.m_pthreadId, proc.m_hdr.m_startTime,
                             std::string(RecordName(proc.m_body))});
    }

    template <typename T> void operator()(const T& record) const
    {
        if constexpr (requires { record.m_hdr.m_tid; })
        {
            m_pNames->m_names.try_emplace(record.m_hdr.m_tid); // threads without a name have records too
        }
    }
};

struct TimeTaker
{
    LifeSpan* m_pSpan;
    int64_t m_shift;

    template <typename T> void operator()(const T& record) const
    {
        if constexpr (requires { record.m_hdr.m_startTime; })
        {
            SeeAt(m_pSpan, Shifted(record.m_hdr.m_startTime, m_shift));
        }
    }
};

} // namespace

std::string NamesOfProcess::NameOf(int64_t tid) const
{
    const auto found = m_names.find(static_cast<int32_t>(tid));
    return found == m_names.end() ? "" : found->second;
}

NamesOfProcess ReadNames(const ProcessFiles& files)
{
    NamesOfProcess names;
    for (const std::string& path : {files.m_trace, files.m_sample})
    {
        if (path.empty())
        {
            continue;
        }
        std::vector<NameFact> facts;
        const auto pFile = OpenRecordFile(path);
        Record record;
        while (NextRecord(pFile.get(), &record))
        {
            std::visit(NameTaker{&names, &facts}, record.m_body);
        }
        names.m_pid = pFile->m_header.m_isPresent ? pFile->m_header.m_pid
                      : names.m_pid != 0          ? names.m_pid
                                                  : PidInFileName(path);
        for (auto& [tid, name] : LastNames(std::move(facts)))
        {
            names.m_names[tid] = name;
        }
    }
    return names;
}

uint64_t FirstTime(const std::map<std::string, ProcessFiles>& filesOf, const ClockShifts& shifts)
{
    constexpr int fewRecords = 64; // the first one of a thread tells when it began, and blocks follow in order
    LifeSpan span;
    for (const auto& [name, files] : filesOf)
    {
        for (const std::string& path : {files.m_trace, files.m_sample})
        {
            const auto pFile = path.empty() ? nullptr : OpenRecordFile(path);
            Record record;
            for (int i = 0; pFile != nullptr && i < fewRecords && NextRecord(pFile.get(), &record); ++i)
            {
                std::visit(TimeTaker{&span, ShiftOf(shifts, path)}, record.m_body);
            }
        }
    }
    return span.m_last == 0 ? 0 : span.m_first;
}

} // namespace qelix
