#include "Commands/Commands.h"
#include "Commands/ViewOptions.h"
#include "Pages/PageFile.h"
#include "Pages/Pages.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace qelix
{
namespace
{

struct PageForm
{
    const char* m_pName;
    const char* m_pDescription;
    std::string (*m_make)(const SessionFacts& session);
};

constexpr PageForm g_pages[] = {
    {"flame", "Write a page with the flame graph of a session's samples", FlamePage},
    {"timeline", "Write a page with the time line of a session's threads", TimelinePage},
    {"html", "Write the whole report of a session as one page, with both pictures", ReportPage},
};

struct PageOptions
{
    std::string m_session;
    std::string m_output;
    bool m_withAgentFrames = false;
};

int WriteOnePage(const PageForm& form, const PageOptions& options)
{
    const std::string directory = SessionOr(options.m_session);
    const SessionFacts session =
        ReadSessionFacts(directory, {.m_withStacks = true, .m_withAgentFrames = options.m_withAgentFrames},
                         {.m_locksKept = ZORV_PAGE_LOCKS});
    const std::string path =
        options.m_output.empty() ? fmt::format("{}/qelix-{}.html", directory, form.m_pName) : options.m_output;
    WritePage(path, form.m_make(session));
    PrintOut(path + "\n");
    return IsDamaged(session) ? ZORV_STATUS_DAMAGED : 0;
}

void AddPageCommand(CLI::App* pApp, const PageForm& form, int* pStatus)
{
    const auto pOptions = std::make_shared<PageOptions>();
    CLI::App* pPage = pApp->add_subcommand(form.m_pName, form.m_pDescription);
    pPage->add_option("DIR", pOptions->m_session, "Session directory (qelix-last)")->type_name("");
    pPage
        ->add_option("-o,--output", pOptions->m_output,
                     fmt::format("Where the page goes; qelix-{}.html in DIR without", form.m_pName))
        ->type_name("FILE");
    pPage->add_flag("--agent-frames", pOptions->m_withAgentFrames,
                    "Show the frames of the agent's signal handler too");
    pPage->callback([pOptions, &form, pStatus] { *pStatus = WriteOnePage(form, *pOptions); });
}

} // namespace

void AddPageCommands(CLI::App* pApp, int* pStatus)
{
    for (const PageForm& form : g_pages)
    {
        AddPageCommand(pApp, form, pStatus);
    }
}

} // namespace qelix
