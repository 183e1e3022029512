#include "Compare/Ranks.h"

#include <algorithm>

namespace qelix
{
namespace
{

constexpr double ZORV_BALANCED = 1.02; // longest by mean

RankColumn ColumnOf(const std::vector<RankSummary>& ranks, std::size_t column)
{
    RankColumn result;
    if (column == 0)
    {
        result.m_name = "wall";
        result.m_title = "wall";
    }
    else
    {
        const TimeKindForm& form = FormOf(static_cast<TimeKind>(column - 1));
        result.m_name = form.m_pName;
        result.m_title = form.m_pTitle;
    }
    for (const RankSummary& rank : ranks)
    {
        const uint64_t time = TimeOf(rank, column);
        result.m_meanNs += static_cast<double>(time) / static_cast<double>(ranks.size());
        if (time > result.m_mostNs || &rank == &ranks.front())
        {
            result.m_mostNs = time;
            result.m_mostRank = rank.m_rank;
        }
    }
    return result;
}

// What the slowest rank has more of than the others. Where all take as long, waiting for each other, what any
// rank has most of beyond the mean, but for waiting and rest: they are how others see it.
void Explain(RankTable* pTable)
{
    const auto slowest =
        std::find_if(pTable->m_ranks.begin(), pTable->m_ranks.end(),
                     [pTable](const RankSummary& rank) { return rank.m_rank == pTable->m_slowestRank; });
    for (int kind = 0; kind < ZORV_TIME_KIND_COUNT; ++kind)
    {
        const RankColumn& column = pTable->m_columns[static_cast<std::size_t>(kind) + 1];
        const bool isConsequence =
            kind == ZORV_TIME_CONDITION || kind == ZORV_TIME_WAIT || kind == ZORV_TIME_REST;
        if (pTable->m_isBalanced && isConsequence)
        {
            continue;
        }
        const uint64_t time = pTable->m_isBalanced ? column.m_mostNs : slowest->m_timeNs[kind];
        const double over = static_cast<double>(time) - column.m_meanNs;
        if (over > pTable->m_overMeanNs)
        {
            pTable->m_overMeanNs = over;
            pTable->m_explaining = kind;
            pTable->m_explainedRank = pTable->m_isBalanced ? column.m_mostRank : pTable->m_slowestRank;
        }
    }
}

} // namespace

uint64_t TimeOf(const RankSummary& rank, std::size_t column)
{
    return column == 0 ? rank.m_wallNs : rank.m_timeNs[column - 1];
}

std::vector<RankSummary> ReadRanks(const std::vector<std::string>& sessions)
{
    std::vector<RankSummary> ranks;
    for (const std::string& session : sessions)
    {
        const std::optional<RankSummary> known = ReadRankSummary(session);
        ranks.push_back(known ? *known : SummaryOf(ReadSessionFacts(session)));
    }
    return ranks;
}

RankTable TableOf(std::vector<RankSummary> ranks)
{
    RankTable table;
    std::stable_sort(ranks.begin(), ranks.end(),
                     [](const RankSummary& a, const RankSummary& b) { return a.m_rank < b.m_rank; });
    table.m_ranks = std::move(ranks);
    for (std::size_t column = 0; column <= ZORV_TIME_KIND_COUNT; ++column)
    {
        table.m_columns.push_back(ColumnOf(table.m_ranks, column));
    }
    const RankColumn& wall = table.m_columns.front();
    table.m_slowestRank = wall.m_mostRank;
    table.m_isBalanced = static_cast<double>(wall.m_mostNs) <= wall.m_meanNs * ZORV_BALANCED;
    if (!table.m_ranks.empty())
    {
        Explain(&table);
    }
    return table;
}

} // namespace qelix
