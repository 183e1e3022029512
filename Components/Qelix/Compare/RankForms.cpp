#include "Compare/Ranks.h"
#include "Report/Csv.h"
#include "Report/Report.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <iterator>
#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

using Json = nlohmann::ordered_json;
using Lines = std::back_insert_iterator<std::string>;

std::vector<RankSummary> ShownRanks(const RankTable& table, std::size_t most)
{
    std::vector<RankSummary> ranks = table.m_ranks;
    if (most == 0 || most >= ranks.size())
    {
        return ranks;
    }
    std::stable_sort(ranks.begin(), ranks.end(),
                     [](const RankSummary& a, const RankSummary& b) { return a.m_wallNs > b.m_wallNs; });
    ranks.resize(most);
    return ranks;
}

double Imbalance(const RankColumn& column)
{
    return column.m_meanNs > 0 ? static_cast<double>(column.m_mostNs) / column.m_meanNs : 1;
}

std::string TimeText(double nanoseconds)
{
    return DurationText(static_cast<uint64_t>(std::llround(nanoseconds)));
}

template <typename F> void WriteRow(Lines out, const std::string& label, const RankTable& table, F cell)
{
    fmt::format_to(out, "  {:<11}", label);
    for (std::size_t column = 0; column < table.m_columns.size(); ++column)
    {
        fmt::format_to(out, " {:>7}", cell(column));
    }
    fmt::format_to(out, "\n");
}

const RankSummary* FindRank(const RankTable& table, int64_t rank)
{
    const auto found = std::find_if(table.m_ranks.begin(), table.m_ranks.end(),
                                    [rank](const RankSummary& summary) { return summary.m_rank == rank; });
    return found == table.m_ranks.end() ? nullptr : &*found;
}

// What a rank's own records name for this kind of time; empty where they name nothing.
std::string CulpritText(const RankSummary& rank, int kind)
{
    const std::vector<RankedTime>& named = kind == ZORV_TIME_CPU ? rank.m_functions : rank.m_locks;
    const bool isTold = kind == ZORV_TIME_CPU || kind == ZORV_TIME_LOCK || kind == ZORV_TIME_CONDITION;
    return isTold && !named.empty()
               ? fmt::format(", most of it in {} ({})", PrintableText(named.front().m_name),
                             DurationText(named.front().m_ns))
               : "";
}

std::string ExplanationText(const RankTable& table)
{
    const RankColumn& wall = table.m_columns.front();
    std::string text =
        table.m_isBalanced
            ? fmt::format("All ranks take as long: the longest {:.2f} times the mean", Imbalance(wall))
            : fmt::format("Rank {} is the slowest: wall {}, {:.2f} times the mean", table.m_slowestRank,
                          DurationText(wall.m_mostNs), Imbalance(wall));
    const RankSummary* pRank = FindRank(table, table.m_explainedRank);
    if (table.m_explaining < 0 || pRank == nullptr)
    {
        return text + '.';
    }
    const char* pTitle = FormOf(static_cast<TimeKind>(table.m_explaining)).m_pTitle;
    text += table.m_isBalanced ? fmt::format("; most unequal is {}", pTitle)
                               : fmt::format(". {} explains it", pTitle);
    return text + fmt::format(": rank {} has {}, {} over the mean{}.", pRank->m_rank,
                              DurationText(pRank->m_timeNs[table.m_explaining]), TimeText(table.m_overMeanNs),
                              CulpritText(*pRank, table.m_explaining));
}

Json RankedJson(const std::vector<RankedTime>& times)
{
    Json list = Json::array();
    for (const RankedTime& time : times)
    {
        list.push_back({{"name", time.m_name}, {"ns", time.m_ns}});
    }
    return list;
}

Json RankJson(const RankTable& table, const RankSummary& rank)
{
    Json json = {{"rank", rank.m_rank}, {"host", rank.m_host}, {"processes", rank.m_processes}};
    json["threads"] = rank.m_threads;
    json["threadNs"] = rank.m_threadNs;
    for (std::size_t column = 0; column < table.m_columns.size(); ++column)
    {
        json[table.m_columns[column].m_name + "Ns"] = TimeOf(rank, column);
    }
    json["locks"] = RankedJson(rank.m_locks);
    json["functions"] = RankedJson(rank.m_functions);
    json["damaged"] = rank.m_isDamaged;
    return json;
}

} // namespace

std::string RanksText(const RankTable& table, std::size_t most, const Screen& screen)
{
    std::string text;
    const Lines out(text);
    WriteRow(out, "rank", table, [&](std::size_t column) { return table.m_columns[column].m_title; });
    for (const RankSummary& rank : ShownRanks(table, most))
    {
        WriteRow(out, fmt::format("{}{}", rank.m_rank, rank.m_isDamaged ? " cut off" : ""), table,
                 [&](std::size_t column) { return DurationText(TimeOf(rank, column)); });
    }
    if (most != 0 && most < table.m_ranks.size())
    {
        fmt::format_to(out, "  and {} more, shorter ones; -n 0 shows all\n", table.m_ranks.size() - most);
    }
    WriteRow(out, "mean", table,
             [&](std::size_t column) { return TimeText(table.m_columns[column].m_meanNs); });
    WriteRow(out, "max/mean", table,
             [&](std::size_t column) { return fmt::format("{:.2f}", Imbalance(table.m_columns[column])); });
    WriteRow(out, "max is rank", table,
             [&](std::size_t column)
             {
                 const RankColumn& times = table.m_columns[column];
                 return times.m_mostNs == 0 ? "-" : fmt::format("{}", times.m_mostRank);
             });
    constexpr const char* pMeaning =
        "wall: from the rank's first record to its last; the others: of all its threads together";
    fmt::format_to(out, "\n{}\n{}\n", Wrapped(ExplanationText(table), screen.m_width, "  "),
                   Wrapped(pMeaning, screen.m_width, "  "));
    return text;
}

std::string RanksJson(const RankTable& table, std::size_t most)
{
    Json ranks = Json::array();
    for (const RankSummary& rank : ShownRanks(table, most))
    {
        ranks.push_back(RankJson(table, rank));
    }
    Json columns = Json::array();
    for (const RankColumn& column : table.m_columns)
    {
        columns.push_back({{"name", column.m_name},
                           {"meanNs", column.m_meanNs},
                           {"maxNs", column.m_mostNs},
                           {"maxRank", column.m_mostRank},
                           {"imbalance", Imbalance(column)}});
    }
    Json json = {{"count", table.m_ranks.size()}, {"slowestRank", table.m_slowestRank}};
    json["isBalanced"] = table.m_isBalanced;
    json["explainedBy"] = table.m_explaining < 0
                              ? Json(nullptr)
                              : Json(FormOf(static_cast<TimeKind>(table.m_explaining)).m_pName);
    json["explainedRank"] = table.m_explainedRank;
    json["overMeanNs"] = table.m_overMeanNs;
    json["columns"] = std::move(columns);
    json["ranks"] = std::move(ranks);
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string RanksCsv(const RankTable& table, std::size_t most)
{
    std::string text = "rank,host,processes,threads,thread_ns";
    for (const RankColumn& column : table.m_columns)
    {
        text += fmt::format(",{}_ns", column.m_name);
    }
    text += ",damaged\n";
    for (const RankSummary& rank : ShownRanks(table, most))
    {
        text += fmt::format("{},{},{},{},{}", rank.m_rank, CsvText(rank.m_host), rank.m_processes,
                            rank.m_threads, rank.m_threadNs);
        for (std::size_t column = 0; column < table.m_columns.size(); ++column)
        {
            text += fmt::format(",{}", TimeOf(rank, column));
        }
        text += rank.m_isDamaged ? ",1\n" : ",0\n";
    }
    return text;
}

} // namespace qelix
