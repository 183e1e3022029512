// What the agents said of themselves: a log, and an error code for the launcher.
#include "FuzzFolder.h"

#include "Session/AgentReports.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    const std::string_view text = TextOf(pData, size);
    WriteFuzzFile(".log/log_host_42.txt", text);
    WriteFuzzFile(".error/error_host_42.err", text);
    qelix::ReadAgentLogs(FuzzSessionPath());
    for (const qelix::AgentError& error : qelix::ReadAgentErrors(FuzzSessionPath()))
    {
        qelix::ExplainAgentError(error);
    }
    return 0;
}
