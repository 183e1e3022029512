#include "Commands/Commands.h"
#include "Commands/Pager.h"
#include "Commands/WholeNumbers.h"
#include "Compare/Difference.h"
#include "Compare/Merge.h"
#include "Compare/Ranks.h"
#include "Report/TextParts.h"
#include "Session/Failure.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_COMPARED_LOCKS = 1000;

struct TableOptions
{
    std::size_t m_most = 0;
    bool m_isJson = false;
    bool m_isCsv = false;
};

struct DiffOptions
{
    std::string m_a; // "DIR,DIR,..."
    std::string m_b;
    bool m_areShares = false;
    TableOptions m_table;
};

struct MergeOptions
{
    std::string m_out;
    std::vector<std::string> m_sessions;
};

struct RanksOptions
{
    std::string m_job;
    TableOptions m_table;
};

void AddTableOptions(CLI::App* pCommand, TableOptions* pOptions, std::size_t most)
{
    pOptions->m_most = most;
    pCommand->add_option("-n", pOptions->m_most, fmt::format("Rows shown, 0 for all; {} without", most))
        ->type_name("COUNT")
        ->check(CheckWhole);
    CLI::Option* pJson = pCommand->add_flag("--json", pOptions->m_isJson, "The table as one JSON object");
    pCommand->add_flag("--csv", pOptions->m_isCsv, "The table as CSV, a line a row")->excludes(pJson);
}

std::vector<Measures> MeasureRuns(const std::string& list, bool areShares, bool* pIsDamaged)
{
    std::vector<Measures> runs;
    std::istringstream paths(list);
    for (std::string path; std::getline(paths, path, ',');)
    {
        const SessionFacts session = ReadSessionFacts(path, {}, {.m_locksKept = ZORV_COMPARED_LOCKS});
        *pIsDamaged = *pIsDamaged || IsDamaged(session);
        runs.push_back(MeasuresOf(session, areShares));
    }
    return runs;
}

int Diff(const DiffOptions& options)
{
    bool isDamaged = false;
    const std::vector<Measures> a = MeasureRuns(options.m_a, options.m_areShares, &isDamaged);
    const std::vector<Measures> b = MeasureRuns(options.m_b, options.m_areShares, &isDamaged);
    const Difference difference = Compare(a, b, options.m_areShares);
    const std::size_t most = options.m_table.m_most;
    PrintPaged(options.m_table.m_isJson  ? DifferenceJson(difference, most)
               : options.m_table.m_isCsv ? DifferenceCsv(difference, most)
                                         : DifferenceText(difference, most, ScreenOf(STDOUT_FILENO)));
    if (isDamaged)
    {
        PrintNote("a file is damaged and was compared as far as it can be read; qelix report says which");
    }
    return isDamaged ? ZORV_STATUS_DAMAGED : 0;
}

int Merge(const MergeOptions& options)
{
    std::vector<std::string> sessions;
    for (const std::string& path : options.m_sessions)
    {
        for (std::string& session : SessionsAt(path))
        {
            sessions.push_back(std::move(session));
        }
    }
    const MergeResult result = MergeSessions(options.m_out, sessions);
    for (const std::string& warning : result.m_warnings)
    {
        PrintNote(warning);
    }
    PrintNote(fmt::format("made of {} with {} files: qelix report {}",
                          Plural(result.m_sessions, "session", "sessions"), result.m_files, result.m_path));
    return 0;
}

int ShowRanks(const RanksOptions& options)
{
    const RankTable table = TableOf(ReadRanks(SessionsAt(options.m_job)));
    const std::size_t most = options.m_table.m_most;
    PrintPaged(options.m_table.m_isJson  ? RanksJson(table, most)
               : options.m_table.m_isCsv ? RanksCsv(table, most)
                                         : RanksText(table, most, ScreenOf(STDOUT_FILENO)));
    return 0;
}

void AddDiffCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<DiffOptions>();
    CLI::App* pDiff = pApp->add_subcommand(
        "diff", "Compare two recordings: what got better or worse, and what is only noise");
    pDiff->add_option("A", pOptions->m_a, "Session before; several runs: DIR,DIR,...")
        ->required()
        ->type_name("");
    pDiff->add_option("B", pOptions->m_b, "Session after; likewise")->required()->type_name("");
    pDiff->add_flag("--shares", pOptions->m_areShares,
                    "Compare parts of the run's time instead of times: for runs that are not equally long");
    AddTableOptions(pDiff, &pOptions->m_table, 20);
    pDiff->callback([pOptions, pStatus] { *pStatus = Diff(*pOptions); });
}

void AddMergeCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<MergeOptions>();
    CLI::App* pMerge =
        pApp->add_subcommand("merge", "Make one session of several: of processes, ranks or hosts");
    pMerge->add_option("OUT", pOptions->m_out, "Directory to make")->required()->type_name("");
    pMerge->add_option("DIR", pOptions->m_sessions, "Sessions, or jobs with a folder rank=N for each")
        ->required()
        ->type_name("");
    pMerge->callback([pOptions, pStatus] { *pStatus = Merge(*pOptions); });
}

void AddRanksCommand(CLI::App* pApp, int* pStatus)
{
    const auto pOptions = std::make_shared<RanksOptions>();
    CLI::App* pRanks =
        pApp->add_subcommand("ranks", "Put the ranks of a job beside each other: which is slow, and what with");
    pRanks->add_option("JOB", pOptions->m_job, "Directory with a folder rank=N for each")
        ->required()
        ->type_name("");
    AddTableOptions(pRanks, &pOptions->m_table, 0);
    pRanks->callback([pOptions, pStatus] { *pStatus = ShowRanks(*pOptions); });
}

} // namespace

void AddCompareCommands(CLI::App* pApp, int* pStatus)
{
    AddDiffCommand(pApp, pStatus);
    AddMergeCommand(pApp, pStatus);
    AddRanksCommand(pApp, pStatus);
}

} // namespace qelix
