#include "Session/Ranks.h"

#include "Session/Failure.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

namespace qelix
{
namespace
{

constexpr int64_t ZORV_LARGEST_RANK = INT32_MAX;

// A launcher's variable, and the one that must stand beside it for a process to be one of several.
struct RankVariable
{
    const char* m_pName;
    const char* m_pBeside; // null: none
};

// Slurm also sets its rank in the job's own script, which is no part of the parallel job: only a step has an
// id.
constexpr RankVariable g_rankVariables[] = {{"OMPI_COMM_WORLD_RANK", nullptr},
                                            {"PMIX_RANK", nullptr},
                                            {"PMI_RANK", nullptr},
                                            {"SLURM_PROCID", "SLURM_STEP_ID"}};

std::optional<int64_t> RankIn(const char* pText)
{
    int64_t rank = -1;
    const char* pEnd = pText + strlen(pText);
    const auto [pRest, error] = std::from_chars(pText, pEnd, rank);
    const bool isRank = error == std::errc() && pRest == pEnd && rank >= 0 && rank <= ZORV_LARGEST_RANK;
    return isRank ? std::optional(rank) : std::nullopt;
}

} // namespace

std::optional<int64_t> RankFromEnvironment()
{
    for (const RankVariable& variable : g_rankVariables)
    {
        const char* pRank = getenv(variable.m_pName);
        if (pRank != nullptr && (variable.m_pBeside == nullptr || getenv(variable.m_pBeside) != nullptr))
        {
            if (const auto rank = RankIn(pRank))
            {
                return rank;
            }
        }
    }
    return std::nullopt;
}

std::optional<int64_t> ParseRank(const std::string& text)
{
    if (text == "auto" || text == "none")
    {
        return text == "auto" ? RankFromEnvironment() : std::nullopt;
    }
    const auto rank = RankIn(text.c_str());
    if (!rank)
    {
        throw Failure(ZORV_FAILURE_USAGE, "--rank {}: that is no rank; say a number from 0 to {}, auto or none",
                      text, ZORV_LARGEST_RANK);
    }
    return rank;
}

} // namespace qelix
