#include "Commands/Commands.h"
#include "Report/Screen.h"
#include "Session/Failure.h"
#include "Session/MachineCheck.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr const char* g_marks[] = {"ok", "warn", "no"};

struct CheckOptions
{
    std::string m_program;
    bool m_isJson = false;
};

std::string CheckText(const std::vector<CheckLine>& lines)
{
    std::string text;
    for (const CheckLine& line : lines)
    {
        const std::string head = fmt::format("{:<4}  {:<17}  ", g_marks[line.m_mark], line.m_subject);
        text +=
            Wrapped(head + line.m_text, ScreenOf(STDOUT_FILENO).m_width, std::string(head.size(), ' ')) + '\n';
    }
    return text;
}

std::string CheckJson(const std::vector<CheckLine>& lines)
{
    using Json = nlohmann::ordered_json;
    Json json = Json::array();
    for (const CheckLine& line : lines)
    {
        json.push_back({{"mark", g_marks[line.m_mark]}, {"subject", line.m_subject}, {"text", line.m_text}});
    }
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

int Check(const CheckOptions& options)
{
    std::vector<CheckLine> lines = CheckMachine();
    if (!options.m_program.empty())
    {
        const std::vector<CheckLine> more = CheckProgram(options.m_program);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    PrintOut(options.m_isJson ? CheckJson(lines) : CheckText(lines));
    const bool isRefused = std::any_of(lines.begin(), lines.end(),
                                       [](const CheckLine& line) { return line.m_mark == ZORV_CHECK_NO; });
    return isRefused ? ZORV_STATUS_NOT_STARTED : 0;
}

} // namespace

void AddCheckCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<CheckOptions>();
    CLI::App* pCheck = pApp->add_subcommand(
        "check", "Say whether programs can be recorded on this machine, and what to do where not");
    pCheck->add_option("PROGRAM", pOptions->m_program, "A program to look at as well")->type_name("");
    pCheck->add_flag("--json", pOptions->m_isJson, "The same lines as a JSON array");
    pCheck->footer("Leaves with 0, or with 126 when a line says no.");
    pCheck->callback([pOptions, pStatus] { *pStatus = Check(*pOptions); });
}

} // namespace qelix
