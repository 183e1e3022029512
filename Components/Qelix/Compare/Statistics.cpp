#include "Compare/Statistics.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace qelix
{
namespace
{

// Continued fraction of the incomplete beta function, by Lentz's method.
double BetaFraction(double a, double b, double x)
{
    constexpr double tiny = 1e-300;
    const auto guarded = [](double value) { return std::abs(value) < tiny ? tiny : value; };
    double c = 1;
    double d = 1 / guarded(1 - (a + b) * x / (a + 1));
    double result = d;
    for (int m = 1; m <= 300; ++m)
    {
        const double even = m * (b - m) * x / ((a + 2 * m - 1) * (a + 2 * m));
        d = 1 / guarded(1 + even * d);
        c = guarded(1 + even / c);
        result *= d * c;
        const double odd = -(a + m) * (a + b + m) * x / ((a + 2 * m) * (a + 2 * m + 1));
        d = 1 / guarded(1 + odd * d);
        c = guarded(1 + odd / c);
        result *= d * c;
        if (std::abs(d * c - 1) < 1e-12)
        {
            break;
        }
    }
    return result;
}

double IncompleteBeta(double a, double b, double x)
{
    if (x <= 0 || x >= 1)
    {
        return x <= 0 ? 0 : 1;
    }
    const double front =
        std::exp(std::lgamma(a + b) - std::lgamma(a) - std::lgamma(b) + a * std::log(x) + b * std::log1p(-x));
    return x < (a + 1) / (a + b + 2) ? front * BetaFraction(a, b, x) / a
                                     : 1 - front * BetaFraction(b, a, 1 - x) / b;
}

// Two-sided tail of Student's distribution; of the normal one without degrees of freedom.
double Tail(double t, double freedom)
{
    return freedom == 0 ? std::erfc(std::abs(t) / std::sqrt(2.0))
                        : IncompleteBeta(freedom / 2, 0.5, freedom / (freedom + t * t));
}

} // namespace

Estimate EstimateOf(std::span<const double> values, std::span<const double> variances)
{
    Estimate estimate;
    const auto count = static_cast<double>(values.size());
    if (values.empty())
    {
        return estimate;
    }
    estimate.m_mean = std::accumulate(values.begin(), values.end(), 0.0) / count;
    estimate.m_errorSquared = std::accumulate(variances.begin(), variances.end(), 0.0) / (count * count);
    double spread = 0;
    for (const double value : values)
    {
        spread += (value - estimate.m_mean) * (value - estimate.m_mean);
    }
    const double ofSpread = values.size() < 2 ? 0 : spread / (count - 1) / count;
    if (ofSpread > estimate.m_errorSquared)
    {
        estimate.m_errorSquared = ofSpread;
        estimate.m_freedom = count - 1;
    }
    return estimate;
}

double Likelihood(const Estimate& a, const Estimate& b)
{
    const double squared = a.m_errorSquared + b.m_errorSquared;
    const double difference = b.m_mean - a.m_mean;
    if (squared <= 0)
    {
        return difference == 0 ? 1 : 0;
    }
    double uncertainty = 0;
    for (const Estimate* pSide : {&a, &b})
    {
        if (pSide->m_freedom > 0)
        {
            uncertainty += pSide->m_errorSquared * pSide->m_errorSquared / pSide->m_freedom;
        }
    }
    return Tail(difference / std::sqrt(squared), uncertainty == 0 ? 0 : squared * squared / uncertainty);
}

std::vector<bool> Significant(const std::vector<double>& likelihoods, double falsePart)
{
    std::vector<std::size_t> order(likelihoods.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(),
              [&](std::size_t a, std::size_t b) { return likelihoods[a] < likelihoods[b]; });
    std::size_t told = 0;
    for (std::size_t i = 0; i < order.size(); ++i)
    {
        const double limit = falsePart * static_cast<double>(i + 1) / static_cast<double>(order.size());
        told = likelihoods[order[i]] <= limit ? i + 1 : told;
    }
    std::vector<bool> significant(likelihoods.size());
    for (std::size_t i = 0; i < told; ++i)
    {
        significant[order[i]] = true;
    }
    return significant;
}

} // namespace qelix
