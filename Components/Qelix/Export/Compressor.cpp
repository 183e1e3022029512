#include "Export/Compressor.h"

#include "Session/Failure.h"

#include <array>
#include <zlib.h>
#include <zstd.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_PIECE = 65536;
constexpr int ZORV_GZIP_WINDOW = 15 + 16; // the largest, with a gzip header

struct GzipCompressor : Compressor
{
    GzipCompressor()
    {
        if (deflateInit2(&m_stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, ZORV_GZIP_WINDOW, 8,
                         Z_DEFAULT_STRATEGY) != Z_OK)
        {
            throw Failure(ZORV_FAILURE_OTHER, "there is no memory to compress with");
        }
    }

    ~GzipCompressor() override
    {
        deflateEnd(&m_stream);
    }

    void Add(std::string_view bytes, bool isEnd, std::string* pResult) override
    {
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
        m_stream.avail_in = static_cast<uInt>(bytes.size());
        do
        {
            m_stream.next_out = reinterpret_cast<Bytef*>(m_piece.data());
            m_stream.avail_out = static_cast<uInt>(m_piece.size());
            deflate(&m_stream, isEnd ? Z_FINISH : Z_NO_FLUSH);
            pResult->append(m_piece.data(), m_piece.size() - m_stream.avail_out);
        } while (m_stream.avail_out == 0);
    }

    z_stream m_stream{};
    std::array<char, ZORV_PIECE> m_piece;
};

struct ZstdCompressor : Compressor
{
    ZstdCompressor() : m_pStream(ZSTD_createCCtx())
    {
        if (m_pStream == nullptr)
        {
            throw Failure(ZORV_FAILURE_OTHER, "there is no memory to compress with");
        }
        ZSTD_CCtx_setParameter(m_pStream, ZSTD_c_checksumFlag, 1);
    }

    ~ZstdCompressor() override
    {
        ZSTD_freeCCtx(m_pStream);
    }

    void Add(std::string_view bytes, bool isEnd, std::string* pResult) override
    {
        ZSTD_inBuffer in{bytes.data(), bytes.size(), 0};
        bool isMore = true;
        while (isMore)
        {
            ZSTD_outBuffer out{m_piece.data(), m_piece.size(), 0};
            const std::size_t left =
                ZSTD_compressStream2(m_pStream, &out, &in, isEnd ? ZSTD_e_end : ZSTD_e_continue);
            if (ZSTD_isError(left))
            {
                throw Failure(ZORV_FAILURE_OTHER, "cannot compress: {}", ZSTD_getErrorName(left));
            }
            pResult->append(m_piece.data(), out.pos);
            isMore = isEnd ? left != 0 : in.pos < in.size;
        }
    }

    ZSTD_CCtx* m_pStream;
    std::array<char, ZORV_PIECE> m_piece;
};

} // namespace

std::unique_ptr<Compressor> MakeCompressor(Compression compression)
{
    switch (compression)
    {
    case ZORV_COMPRESS_GZIP:
        return std::make_unique<GzipCompressor>();
    case ZORV_COMPRESS_ZSTD:
        return std::make_unique<ZstdCompressor>();
    case ZORV_COMPRESS_NONE:
        break;
    }
    return nullptr;
}

} // namespace qelix
