#include "Pages/Pages.h"

#include "Pages/FlameData.h"
#include "Pages/PageFile.h"
#include "Pages/ReportData.h"
#include "Pages/TimelineData.h"
#include "Pages/TimelineReader.h"
#include "Report/Report.h"

#include <functional>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_FLAME_NODES = 150000;
constexpr std::size_t ZORV_REPORT_ROWS = 1000;
constexpr int ZORV_MOST_HALVINGS = 12;

PageJson SessionData(const SessionFacts& session)
{
    PageJson json = {{"path", session.m_path}, {"damaged", IsDamaged(session)}};
    return json;
}

// Names can be long and threads many: what does not fit is made coarser until it does.
std::string FittingPage(const std::function<PageJson(unsigned halvings)>& make)
{
    std::string page;
    for (unsigned halvings = 0; halvings <= ZORV_MOST_HALVINGS; ++halvings)
    {
        page = PageText(make(halvings));
        if (page.size() <= ZORV_LARGEST_PAGE)
        {
            break;
        }
    }
    return page;
}

PageJson TimelineOf(Timeline* pTimeline, unsigned halvings)
{
    const TimelineBudget full;
    Shrink(pTimeline, {full.m_calls >> halvings, full.m_cells >> halvings, full.m_runs >> halvings,
                       full.m_threads >> halvings});
    return TimelineData(*pTimeline);
}

} // namespace

std::string FlamePage(const SessionFacts& session)
{
    return FittingPage(
        [&](unsigned halvings) -> PageJson {
            return {{"session", SessionData(session)},
                    {"flame", FlameData(session, ZORV_FLAME_NODES >> halvings)}};
        });
}

std::string TimelinePage(const SessionFacts& session)
{
    Timeline timeline = ReadTimeline(session);
    return FittingPage(
        [&](unsigned halvings) -> PageJson {
            return {{"session", SessionData(session)}, {"timeline", TimelineOf(&timeline, halvings)}};
        });
}

std::string ReportPage(const SessionFacts& session)
{
    Timeline timeline = ReadTimeline(session);
    return FittingPage(
        [&](unsigned halvings) -> PageJson
        {
            return {{"session", SessionData(session)},
                    {"report", ReportData(session, ZORV_REPORT_ROWS >> halvings)},
                    {"timeline", TimelineOf(&timeline, halvings)},
                    {"flame", FlameData(session, ZORV_FLAME_NODES >> halvings)}};
        });
}

} // namespace qelix
