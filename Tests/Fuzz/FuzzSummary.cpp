// A rank's summary, and the table that it comes into.
#include "FuzzFolder.h"

#include "Compare/Ranks.h"
#include "Report/Screen.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    WriteFuzzFile("summary.json", TextOf(pData, size));
    const std::vector<qelix::RankSummary> ranks = qelix::ReadRanks({FuzzSessionPath(), FuzzSessionPath()});
    const qelix::RankTable table = qelix::TableOf(ranks);
    if (qelix::RanksText(table, 1, {}).empty() || qelix::RanksJson(table, 0).empty() ||
        qelix::RanksCsv(table, 0).empty())
    {
        abort();
    }
    return 0;
}
