#include "Compare/Difference.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace qelix
{
namespace
{

constexpr double ZORV_FALSE_PART = 0.05; // of the changes that are told

// One run's value of a key; what a run does not have at all is nothing, with the noise of a single event.
Measure MeasureOf(const Measures& run, const MeasureKey& key, double eventVariance)
{
    const auto found = run.find(key);
    return found != run.end() ? found->second : Measure{0, eventVariance, eventVariance, 0};
}

double EventVariance(const std::vector<Measures>& runs, const MeasureKey& key)
{
    double variance = 0;
    for (const Measures& run : runs)
    {
        if (const auto found = run.find(key); found != run.end())
        {
            variance = std::max(variance, found->second.m_longestVariance);
        }
    }
    return variance;
}

Estimate EstimateSide(const std::vector<Measures>& runs, const MeasureKey& key, double eventVariance,
                      double* pCount)
{
    std::vector<double> values;
    std::vector<double> variances;
    for (const Measures& run : runs)
    {
        const Measure measure = MeasureOf(run, key, eventVariance);
        values.push_back(measure.m_ns);
        variances.push_back(std::max(measure.m_variance, measure.m_longestVariance));
        *pCount += static_cast<double>(measure.m_count) / static_cast<double>(runs.size());
    }
    return EstimateOf(values, variances);
}

std::set<MeasureKey> KeysOf(const std::vector<Measures>& a, const std::vector<Measures>& b)
{
    std::set<MeasureKey> keys;
    for (const std::vector<Measures>* pRuns : {&a, &b})
    {
        for (const Measures& run : *pRuns)
        {
            for (const auto& [key, measure] : run)
            {
                keys.insert(key);
            }
        }
    }
    return keys;
}

void Judge(std::vector<DifferenceRow>* pRows)
{
    std::vector<double> likelihoods;
    for (const DifferenceRow& row : *pRows)
    {
        likelihoods.push_back(row.m_likelihood);
    }
    const std::vector<bool> significant = Significant(likelihoods, ZORV_FALSE_PART);
    for (std::size_t i = 0; i < pRows->size(); ++i)
    {
        if (significant[i])
        {
            (*pRows)[i].m_verdict = ChangeOf((*pRows)[i]) < 0 ? ZORV_VERDICT_BETTER : ZORV_VERDICT_WORSE;
        }
    }
}

bool IsMoreTelling(const DifferenceRow& a, const DifferenceRow& b)
{
    const bool isTold = a.m_verdict != ZORV_VERDICT_SAME;
    const bool isOtherTold = b.m_verdict != ZORV_VERDICT_SAME;
    return isTold != isOtherTold ? isTold : std::abs(ChangeOf(a)) > std::abs(ChangeOf(b));
}

} // namespace

const char* VerdictName(Verdict verdict)
{
    constexpr const char* names[] = {"same", "better", "worse"};
    return names[verdict];
}

double ChangeOf(const DifferenceRow& row)
{
    return row.m_b.m_mean - row.m_a.m_mean;
}

double NoiseOf(const DifferenceRow& row)
{
    return std::sqrt(row.m_a.m_errorSquared + row.m_b.m_errorSquared);
}

Difference Compare(const std::vector<Measures>& a, const std::vector<Measures>& b, bool areShares)
{
    Difference difference{a.size(), b.size(), areShares, {}};
    for (const MeasureKey& key : KeysOf(a, b))
    {
        DifferenceRow row;
        row.m_key = key;
        const double eventVariance = std::max(EventVariance(a, key), EventVariance(b, key));
        row.m_a = EstimateSide(a, key, eventVariance, &row.m_countA);
        row.m_b = EstimateSide(b, key, eventVariance, &row.m_countB);
        row.m_likelihood = Likelihood(row.m_a, row.m_b);
        difference.m_rows.push_back(std::move(row));
    }
    Judge(&difference.m_rows);
    std::stable_sort(difference.m_rows.begin(), difference.m_rows.end(), IsMoreTelling);
    return difference;
}

} // namespace qelix
