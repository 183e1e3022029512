#include "Session/RunOverseer.h"

#include "Session/AgentReports.h"
#include "Session/ControlBlock.h"
#include "Session/Failure.h"
#include "Session/LauncherStandIn.h"
#include "Session/MachineFacts.h"
#include "Session/SessionProcesses.h"
#include "Session/Sizes.h"
#include "Session/Terminal.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <string_view>
#include <termios.h>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr uint64_t ZORV_NS_PER_SECOND = 1'000'000'000;
constexpr uint64_t ZORV_LINE_EVERY_NS = ZORV_NS_PER_SECOND;
constexpr uint64_t ZORV_SIZE_EVERY_NS = 50'000'000;
constexpr uint64_t ZORV_FIRST_WRITER_NS = 200'000'000; // short runs have a writer, too
constexpr uint64_t ZORV_WRITER_EVERY_NS = ZORV_NS_PER_SECOND;
// A session of thousands of processes takes its time to look through, and the program needs the CPU.
constexpr uint64_t ZORV_REST_FACTOR = 20;
constexpr std::string_view ZORV_ERASE_LINE = "\r\x1b[K";

void WriteToTerminal(std::string_view text)
{
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

bool IsTerminal()
{
    const char* pKind = getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && (pKind == nullptr || std::string_view(pKind) != "dumb");
}

// In the background a line would stop us, and a program that takes keys one by one draws the screen itself.
bool IsScreenFree()
{
    termios settings;
    return tcgetpgrp(STDERR_FILENO) == getpgrp() && tcgetattr(STDERR_FILENO, &settings) == 0 &&
           (settings.c_lflag & ICANON) != 0;
}

void EraseLine(RunOverseer* pOverseer)
{
    if (pOverseer->m_isLineShown)
    {
        pOverseer->m_isLineShown = false;
        WriteToTerminal(ZORV_ERASE_LINE);
    }
}

void Say(RunOverseer* pOverseer, const std::string& text)
{
    EraseLine(pOverseer);
    pOverseer->m_task.m_note(text);
}

void ShowLine(RunOverseer* pOverseer, uint64_t now)
{
    if (!IsScreenFree())
    {
        return;
    }
    const SessionProgress progress =
        ReadProgress(pOverseer->m_task.m_sessionPath, pOverseer->m_task.m_blockName);
    const uint64_t seconds = (now - pOverseer->m_startNs) / ZORV_NS_PER_SECOND;
    // What the program prints then begins at the line's start.
    const std::string line = fmt::format("qelix: {} s, {}", seconds, ProgressText(progress));
    WriteToTerminal(fmt::format("{}{}\r", ZORV_ERASE_LINE, OneLineOn(STDERR_FILENO, line)));
    pOverseer->m_isLineShown = true;
}

void StopAfterDuration(RunOverseer* pOverseer)
{
    pOverseer->m_isStopped = true;
    StopCollection(pOverseer->m_task.m_blockName);
    Say(pOverseer, "the time to record is over: the recording has stopped, the program runs on");
}

void PauseAtBudget(RunOverseer* pOverseer)
{
    const uint64_t size = SessionSize(pOverseer->m_task.m_sessionPath);
    if (size < *pOverseer->m_task.m_budgetBytes)
    {
        return;
    }
    pOverseer->m_isBudgetReached = true;
    PauseCollection(pOverseer->m_task.m_blockName);
    Say(pOverseer,
        fmt::format("the session has reached its budget ({} of {}): the recording is paused, the program "
                    "runs on; qelix resume {} goes on without a budget",
                    SizeText(size), SizeText(*pOverseer->m_task.m_budgetBytes),
                    pOverseer->m_task.m_sessionPath));
}

void ExplainStandInsDeath(RunOverseer* pOverseer)
{
    pOverseer->m_isStandInDead = true;
    const std::vector<AgentError> errors = ReadAgentErrors(pOverseer->m_task.m_sessionPath);
    for (const AgentError& error : errors)
    {
        Say(pOverseer, ExplainAgentError(error));
    }
    if (errors.empty())
    {
        Say(pOverseer, "the process that agents report to was killed from outside; the program runs on");
    }
}

// A block that somebody has removed cannot be steered: that is told once, and the program's run goes on.
template <typename Action> void Try(RunOverseer* pOverseer, const Action& action)
{
    try
    {
        action(pOverseer);
    }
    catch (const Failure& failure)
    {
        Say(pOverseer, failure.what());
    }
}

// Calls the action when its time has come; then and else the time until it comes again.
template <typename Action>
uint64_t Due(RunOverseer* pOverseer, uint64_t* pNext, uint64_t every, uint64_t now, const Action& action)
{
    if (now >= *pNext)
    {
        Try(pOverseer, action);
        const uint64_t cost = ReadClocks().m_monotonicNs - now;
        *pNext = now + std::max(every, cost * ZORV_REST_FACTOR);
    }
    return *pNext > now ? *pNext - now : 0;
}

} // namespace

RunOverseer::RunOverseer(OverseerTask task)
    : m_task(std::move(task)), m_startNs(ReadClocks().m_monotonicNs),
      m_nextLineNs(m_startNs + ZORV_LINE_EVERY_NS), m_nextSizeNs(m_startNs + ZORV_SIZE_EVERY_NS),
      m_nextWriterNs(m_startNs + ZORV_FIRST_WRITER_NS)
{
    m_task.m_isLive = m_task.m_isLive && IsTerminal();
}

RunOverseer::~RunOverseer()
{
    EraseLine(this);
}

std::optional<uint64_t> Oversee(RunOverseer* pOverseer)
{
    const OverseerTask& task = pOverseer->m_task;
    const uint64_t now = ReadClocks().m_monotonicNs;
    std::optional<uint64_t> wish;
    const auto atLatest = [&wish](uint64_t time) { wish = std::min(wish.value_or(time), time); };
    if (!pOverseer->m_isStandInDead && IsStandInDead(task.m_standIn))
    {
        ExplainStandInsDeath(pOverseer);
    }
    if (task.m_durationNs && !pOverseer->m_isStopped)
    {
        uint64_t end = pOverseer->m_startNs + std::min(*task.m_durationNs, UINT64_MAX - pOverseer->m_startNs);
        atLatest(Due(pOverseer, &end, 0, now, StopAfterDuration));
    }
    if (task.m_budgetBytes && !pOverseer->m_isBudgetReached)
    {
        atLatest(Due(pOverseer, &pOverseer->m_nextSizeNs, ZORV_SIZE_EVERY_NS, now, PauseAtBudget));
    }
    atLatest(Due(pOverseer, &pOverseer->m_nextWriterNs, ZORV_WRITER_EVERY_NS, now,
                 [&task](RunOverseer* pSeen)
                 { NoteWriters(&pSeen->m_writers, task.m_sessionPath, task.m_blockName); }));
    if (task.m_isLive)
    {
        atLatest(Due(pOverseer, &pOverseer->m_nextLineNs, ZORV_LINE_EVERY_NS, now,
                     [now](RunOverseer* pShown) { ShowLine(pShown, now); }));
    }
    return wish;
}

} // namespace qelix
