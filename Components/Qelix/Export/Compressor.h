// Streams of compressed bytes.
#pragma once

#include "Export/Output.h"

#include <string>
#include <string_view>

namespace qelix
{

struct Compressor
{
    virtual ~Compressor() = default;
    // Appends what comes out to pResult; the end of the data must be told once.
    virtual void Add(std::string_view bytes, bool isEnd, std::string* pResult) = 0;
};

// Null: bytes pass as they are.
std::unique_ptr<Compressor> MakeCompressor(Compression compression);

} // namespace qelix
