// Private to the report's JSON form: where CPU time went.
#pragma once

#include "Report/SessionFacts.h"

#include <nlohmann/json.hpp>

namespace qelix
{

nlohmann::ordered_json CpuJson(const SessionFacts& session);

} // namespace qelix
