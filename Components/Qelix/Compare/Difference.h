// Two recordings of a program, each of one run or of several: what got better or worse, and what is only noise.
#pragma once

#include "Compare/Statistics.h"
#include "Report/Screen.h"
#include "Report/SessionFacts.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qelix
{

// What is compared, by what it is called: addresses and ids differ from run to run.
struct MeasureKey
{
    std::string m_kind; // "cpu", "wait", "function", "call" or "lock"
    std::string m_name;
    std::string m_place; // module of a function, class of a call, kind of a lock
    auto operator<=>(const MeasureKey&) const = default;
};

// Of one run.
struct Measure
{
    double m_ns = 0;
    double m_variance = 0;        // that the same run would show again: samples and waits come by chance
    double m_longestVariance = 0; // of a single event, which stands in for the noise of none
    uint64_t m_count = 0;         // samples or calls
};

using Measures = std::map<MeasureKey, Measure>;

// CPU time of functions by samples; waits by class, by call and by lock. With shares every time becomes a part
// of the run's CPU time, or of its threads' time: for runs that are not equally long.
Measures MeasuresOf(const SessionFacts& session, bool asShares);

enum Verdict
{
    ZORV_VERDICT_SAME, // as far as the noise lets tell
    ZORV_VERDICT_BETTER,
    ZORV_VERDICT_WORSE,
};

const char* VerdictName(Verdict verdict);

struct DifferenceRow
{
    MeasureKey m_key;
    Estimate m_a;
    Estimate m_b;
    double m_countA = 0; // mean of the runs
    double m_countB = 0;
    double m_likelihood = 1;
    Verdict m_verdict = ZORV_VERDICT_SAME;
};

struct Difference
{
    std::size_t m_runsA = 0;
    std::size_t m_runsB = 0;
    bool m_isOfShares = false;
    std::vector<DifferenceRow> m_rows; // what changed for sure first, the largest change first
};

Difference Compare(const std::vector<Measures>& a, const std::vector<Measures>& b, bool areShares);

// Change by which a row is told, and its standard error.
double ChangeOf(const DifferenceRow& row);
double NoiseOf(const DifferenceRow& row);

// The forms; `most` rows, 0: all.
std::string DifferenceText(const Difference& difference, std::size_t most, const Screen& screen);
std::string DifferenceJson(const Difference& difference, std::size_t most);
std::string DifferenceCsv(const Difference& difference, std::size_t most);

} // namespace qelix
