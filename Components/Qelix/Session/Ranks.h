// The rank of this process in a parallel job, as the job's launcher tells it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qelix
{

// From the variables of Open MPI, PMIx, MPICH and its relatives, and Slurm; nothing outside of a job.
std::optional<int64_t> RankFromEnvironment();

// "auto", "none" or a number; fails for anything else.
std::optional<int64_t> ParseRank(const std::string& text);

} // namespace qelix
