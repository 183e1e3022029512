#include "Pages/ReportData.h"

#include "Report/Report.h"

namespace qelix
{
namespace
{

void CutList(PageJson* pOwner, const char* pName, std::size_t most, PageJson* pCut)
{
    const auto list = pOwner->find(pName);
    if (list != pOwner->end() && list->is_array() && list->size() > most)
    {
        (*pCut)[pName] = list->size();
        list->erase(list->begin() + static_cast<std::ptrdiff_t>(most), list->end());
    }
}

} // namespace

PageJson ReportData(const SessionFacts& session, std::size_t most)
{
    PageJson report = PageJson::parse(ReportJson(session));
    PageJson cut = PageJson::object();
    for (const char* pName : {"processes", "times", "locks", "neverReturned", "unrecorded"})
    {
        CutList(&report, pName, most, &cut);
    }
    for (PageJson& process : report["processes"])
    {
        CutList(&process, "threads", most, &cut);
    }
    PageJson& cpu = report["cpu"];
    for (const char* pName : {"processes", "threads"}) // the flame graph has them
    {
        cpu.erase(pName);
    }
    CutList(&cpu, "functions", most, &cut);
    CutList(&cpu, "modules", most, &cut);
    report["cut"] = std::move(cut);
    return report;
}

} // namespace qelix
