// Is a difference more than noise?
#pragma once

#include <span>
#include <vector>

namespace qelix
{

// What is known of a quantity: its mean, and the square of the mean's standard error.
struct Estimate
{
    double m_mean = 0;
    double m_errorSquared = 0;
    double m_freedom = 0; // of the error's own estimate; 0: the error is not an estimate
};

// Of one run of the program that says what noise it has itself, or of several, whose spread counts where it is
// larger. Both lists have one entry a run.
Estimate EstimateOf(std::span<const double> values, std::span<const double> variances);

// How likely a difference as large as this would be if both were the same: two-sided, by Welch's test where an
// error is an estimate itself.
double Likelihood(const Estimate& a, const Estimate& b);

// Which of many likelihoods are too small to be chance, when of those that are told on average no more than
// this part may be wrong (Benjamini and Hochberg).
std::vector<bool> Significant(const std::vector<double>& likelihoods, double falsePart);

} // namespace qelix
