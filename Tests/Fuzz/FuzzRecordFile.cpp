// One file of the agent, of the kind that FUZZ_FILE's name says, walked to its end.
#include "FuzzFolder.h"

#include "Reader/RecordFile.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    WriteFuzzFile(FUZZ_FILE, TextOf(pData, size));
    const auto pFile = qelix::OpenRecordFile(FuzzSessionPath() + "/" + FUZZ_FILE);
    qelix::Record record;
    uint64_t end = pFile->m_header.m_size;
    while (qelix::NextRecord(pFile.get(), &record))
    {
        // What is handed out lies in the file, one record behind the other.
        if (record.m_size == 0 || record.m_offset != end || record.m_offset + record.m_size > size)
        {
            abort();
        }
        end = record.m_offset + record.m_size;
    }
    if (pFile->m_damage && DamageMessage(*pFile->m_damage).empty())
    {
        abort();
    }
    // Nothing is passed over in silence.
    if (!pFile->m_damage && pFile->m_header.m_isPresent && end + pFile->m_unreadBytes != size)
    {
        abort();
    }
    return 0;
}
