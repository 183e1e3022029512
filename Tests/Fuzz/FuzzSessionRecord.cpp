// session.json: read, written and read again, it says the same.
#include "FuzzFolder.h"

#include "Session/SessionRecord.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    WriteFuzzFile("session.json", TextOf(pData, size));
    const qelix::SessionRecord first = qelix::ReadSessionRecord(FuzzSessionPath());
    if (!qelix::WriteSessionRecord(FuzzSessionPath(), first))
    {
        abort();
    }
    const qelix::SessionRecord again = qelix::ReadSessionRecord(FuzzSessionPath());
    if (again.m_command.size() != first.m_command.size() || again.m_programPid != first.m_programPid ||
        again.m_tickNs != first.m_tickNs || again.m_waitStatus != first.m_waitStatus ||
        again.m_parentOf != first.m_parentOf)
    {
        abort();
    }
    return 0;
}
