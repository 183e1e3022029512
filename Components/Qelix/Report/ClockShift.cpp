#include "Report/ClockShift.h"

#include "Reader/Records.h"
#include "Session/SessionDirectory.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

namespace qelix
{

ClockShifts ReadClockShifts(const std::string& session)
{
    ClockShifts shifts;
    std::error_code error;
    if (!std::filesystem::is_regular_file(RecordFilePath(session), error)) // a pipe would never end
    {
        return shifts;
    }
    std::ifstream file(RecordFilePath(session));
    const auto record = nlohmann::json::parse(file, nullptr, false);
    const auto merged = record.is_object() ? record.find("merged") : record.end();
    if (!record.is_object() || merged == record.end() || !merged->is_array())
    {
        return shifts;
    }
    for (const auto& part : *merged)
    {
        const bool isWhole = part.is_object() && part.contains("mark") && part["mark"].is_string() &&
                             part.contains("clockShiftNs") && part["clockShiftNs"].is_number_integer();
        if (isWhole)
        {
            shifts.emplace_back(part["mark"].get<std::string>(), part["clockShiftNs"].get<int64_t>());
        }
    }
    return shifts;
}

int64_t ShiftOf(const ClockShifts& shifts, const std::string& file)
{
    const std::string name = std::filesystem::path(file).filename();
    const std::string behindKind = name.substr(name.find('_') + 1);
    for (const auto& [mark, shift] : shifts)
    {
        if (!mark.empty() && behindKind.starts_with(mark))
        {
            return shift;
        }
    }
    return 0;
}

uint64_t Shifted(uint64_t time, int64_t shift)
{
    if (time == 0 || time == ZORV_TIME_NOT_ENDED)
    {
        return time;
    }
    // A host that booted later is further back: its times must not fall under 1.
    const uint64_t moved = time + static_cast<uint64_t>(shift);
    const bool isUnder = shift < 0 && (moved >= time || moved == 0);
    const bool isOver = shift > 0 && (moved < time || moved == ZORV_TIME_NOT_ENDED);
    return isUnder ? 1 : isOver ? ZORV_TIME_NOT_ENDED - 1 : moved;
}

LifeSpan Shifted(const LifeSpan& span, int64_t shift)
{
    return {Shifted(span.m_first, shift), Shifted(span.m_last, shift), span.m_isEnded};
}

} // namespace qelix
