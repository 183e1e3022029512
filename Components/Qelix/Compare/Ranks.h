// The ranks of a job beside each other: who is slower than the others, and what with.
#pragma once

#include "Compare/RankSummary.h"
#include "Report/Screen.h"

#include <string>
#include <vector>

namespace qelix
{

// A column of the table: a rank's wall time, or what its threads spent in one kind.
struct RankColumn
{
    std::string m_name; // "wall", or a kind's
    std::string m_title;
    double m_meanNs = 0;
    uint64_t m_mostNs = 0;
    int64_t m_mostRank = 0; // who has most
};

struct RankTable
{
    std::vector<RankSummary> m_ranks;  // by rank
    std::vector<RankColumn> m_columns; // wall, then the kinds
    int64_t m_slowestRank = 0;
    bool m_isBalanced = true; // by wall time: ranks that wait for each other all end together
    int m_explaining = -1; // the kind that tells the slowest rank apart, or where ranks differ most; -1: none
    int64_t m_explainedRank = 0;
    double m_overMeanNs = 0; // what that rank has of it beyond the mean
};

uint64_t TimeOf(const RankSummary& rank, std::size_t column); // 0: wall

// Reads each rank's summary; makes it from the rank's files where there is none.
std::vector<RankSummary> ReadRanks(const std::vector<std::string>& sessions);

RankTable TableOf(std::vector<RankSummary> ranks);

// The forms; of the ranks the `most` longest ones, 0: all.
std::string RanksText(const RankTable& table, std::size_t most, const Screen& screen);
std::string RanksJson(const RankTable& table, std::size_t most);
std::string RanksCsv(const RankTable& table, std::size_t most);

} // namespace qelix
