#include "Session/Failure.h"

#include <nlohmann/json.hpp>

namespace qelix
{
namespace
{

const char* CodeOf(int status)
{
    switch (status)
    {
    case ZORV_STATUS_DAMAGED:
        return "damaged";
    case ZORV_STATUS_NOT_STARTED:
        return "cannot-trace";
    case ZORV_STATUS_NOT_FOUND:
        return "not-found";
    default:
        return "failed";
    }
}

} // namespace

std::string FailureJson(const Failure& failure)
{
    using Json = nlohmann::ordered_json;
    const std::string text = failure.what();
    const std::size_t end = text.find("; ");
    Json json = {{"code", CodeOf(failure.m_status)}, {"status", failure.m_status}};
    json["message"] = text.substr(0, end);
    json["hint"] = end == std::string::npos ? Json(nullptr) : Json(text.substr(end + 2));
    json["path"] = failure.m_path.empty() ? Json(nullptr) : Json(failure.m_path);
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace qelix
