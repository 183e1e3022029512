// Private to the reader: what it must know of each record type. One table a file kind; RecordFile.cpp walks
// the file, a row's function takes one whole record apart.
#pragma once

#include "Reader/Records.h"

#include <cstddef>
#include <cstring>
#include <span>
#include <string>

namespace qelix
{

using Bytes = std::span<const std::byte>;

// Fills pRecord's body from the bytes of one record; returns why it cannot, or an empty text.
using ParseFunction = std::string (*)(Bytes bytes, Record* pRecord);

struct RecordRule
{
    uint16_t m_type;
    std::size_t m_fixedSize; // the least that a record of this type can measure
    ParseFunction m_parse;
};

struct FileRules
{
    std::size_t m_headerSize; // of a record
    std::size_t m_typeAt;     // in a record's header
    std::size_t m_sizeAt;     // in a record's header
    bool m_hasEndMark;        // a record of type 0 ends the data
    std::span<const RecordRule> m_rules;
};

FileRules TraceFileRules();
FileRules SampleFileRules();
FileRules MetadataFileRules();

// Records follow each other unaligned, so nothing is ever read in place.
template <typename T> T CopyFrom(Bytes bytes, std::size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

template <typename T>
void CopyArray(Bytes bytes, std::size_t offset, std::size_t count, std::vector<T>* pValues)
{
    pValues->resize(count);
    if (count != 0)
    {
        std::memcpy(pValues->data(), bytes.data() + offset, count * sizeof(T));
    }
}

// Records of one type follow each other: the next one is read into the memory of the last.
template <typename T> T* BodyOf(Record* pRecord)
{
    T* pBody = std::get_if<T>(&pRecord->m_body);
    return pBody != nullptr ? pBody : &pRecord->m_body.emplace<T>();
}

} // namespace qelix
