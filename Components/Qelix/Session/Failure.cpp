#include "Session/Failure.h"

#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

struct CodeForm
{
    const char* m_pName;
    int m_status;
};

// By code. What concerns the session that was named is 1, what concerns the command itself is 125.
constexpr CodeForm g_codes[] = {
    {"failed", ZORV_STATUS_OWN_FAILURE},       {"usage", ZORV_STATUS_OWN_FAILURE},
    {"no-session", ZORV_STATUS_DAMAGED},       {"damaged", ZORV_STATUS_DAMAGED},
    {"no-data", ZORV_STATUS_DAMAGED},          {"not-running", ZORV_STATUS_DAMAGED},
    {"exists", ZORV_STATUS_OWN_FAILURE},       {"cannot-write", ZORV_STATUS_OWN_FAILURE},
    {"cannot-start", ZORV_STATUS_OWN_FAILURE}, {"cannot-trace", ZORV_STATUS_NOT_STARTED},
    {"cannot-run", ZORV_STATUS_NOT_STARTED},   {"not-found", ZORV_STATUS_NOT_FOUND},
};
static_assert(std::size(g_codes) == ZORV_FAILURE_NOT_FOUND + 1);

} // namespace

int StatusOf(FailureCode code)
{
    return g_codes[code].m_status;
}

std::string FailureJson(const Failure& failure)
{
    using Json = nlohmann::ordered_json;
    const std::string text = failure.what();
    const std::size_t end = text.find("; ");
    Json json = {{"code", g_codes[failure.m_code].m_pName}, {"status", StatusOf(failure.m_code)}};
    json["message"] = text.substr(0, end);
    json["hint"] = end == std::string::npos ? Json(nullptr) : Json(text.substr(end + 2));
    json["path"] = failure.m_path.empty() ? Json(nullptr) : Json(failure.m_path);
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace qelix
