// Where an export goes: standard output, or a file that appears under its name only when it is whole.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace qelix
{

enum Compression
{
    ZORV_COMPRESS_NONE,
    ZORV_COMPRESS_GZIP,
    ZORV_COMPRESS_ZSTD,
};

// A path beside the wanted one, under which a file or folder is made. What was not kept is removed.
struct UnfinishedPath
{
    explicit UnfinishedPath(const std::string& path);
    UnfinishedPath(const UnfinishedPath&) = delete;
    UnfinishedPath& operator=(const UnfinishedPath&) = delete;
    ~UnfinishedPath();

    std::string m_path;    // as wanted
    std::string m_newPath; // until it is kept
    bool m_isKept = false;
};

// Takes the wanted name, in place of a file that had it.
void KeepPath(UnfinishedPath* pPath);

struct Compressor;

struct Output
{
    Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output();

    int m_fd = -1;
    std::string m_shownPath;                       // in messages
    std::unique_ptr<UnfinishedPath> m_pUnfinished; // of a file
    std::unique_ptr<Compressor> m_pCompressor;
    std::string m_buffer;
};

// An empty path is standard output. Devices and pipes are written as they are. Each of these fails when the
// bytes cannot be written.
std::unique_ptr<Output> OpenOutput(const std::string& path, Compression compression);
void Put(Output* pOutput, std::string_view bytes);
void CloseOutput(Output* pOutput);

} // namespace qelix
