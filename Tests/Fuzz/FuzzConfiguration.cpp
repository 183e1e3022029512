// agent.conf, and each of its lines as the texts that the command line takes.
#include "FuzzFolder.h"

#include "Session/AgentConfiguration.h"
#include "Session/Durations.h"
#include "Session/Failure.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    const std::string_view text = TextOf(pData, size);
    WriteFuzzFile("agent.conf", text);
    qelix::ReadSettings(FuzzSessionPath());
    const std::string line(text.substr(0, text.find('\n')));
    qelix::ParseDuration(line);
    try
    {
        qelix::ApplyMinimums(qelix::DefaultThresholds(), {line});
    }
    catch (const qelix::Failure&)
    {
        // refused in words
    }
    return 0;
}
