#include "Export/Output.h"

#include "Export/Compressor.h"
#include "Session/Failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace qelix
{
namespace
{

constexpr std::size_t ZORV_BUFFER_SIZE = 262144;
constexpr mode_t ZORV_FILE_MODE = 0666; // less the umask, as for every new file

[[noreturn]] void FailOutput(const std::string& path)
{
    throw Failure(ZORV_FAILURE_CANNOT_WRITE, "{} cannot be written: {}; choose another file with -o FILE", path,
                  strerror(errno))
        .At(path);
}

void WriteAll(const Output& output, std::string_view bytes)
{
    while (!bytes.empty())
    {
        const ssize_t count = write(output.m_fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count < 0)
        {
            FailOutput(output.m_shownPath);
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

void Flush(Output* pOutput, bool isEnd)
{
    if (pOutput->m_pCompressor == nullptr)
    {
        WriteAll(*pOutput, pOutput->m_buffer);
    }
    else
    {
        std::string compressed;
        pOutput->m_pCompressor->Add(pOutput->m_buffer, isEnd, &compressed);
        WriteAll(*pOutput, compressed);
    }
    pOutput->m_buffer.clear();
}

void OpenTarget(Output* pOutput, const std::string& path)
{
    if (path.empty())
    {
        pOutput->m_shownPath = "standard output";
        pOutput->m_fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
        return;
    }
    std::error_code error;
    const auto type = std::filesystem::status(path, error).type();
    const bool isNewOrFile =
        type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::regular;
    pOutput->m_shownPath = path;
    if (!isNewOrFile) // to rename over a device would take it away
    {
        pOutput->m_fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        return;
    }
    pOutput->m_pUnfinished = std::make_unique<UnfinishedPath>(path);
    pOutput->m_fd = open(pOutput->m_pUnfinished->m_newPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                         ZORV_FILE_MODE);
}

} // namespace

UnfinishedPath::UnfinishedPath(const std::string& path)
    : m_path(path), m_newPath(fmt::format("{}.new-{}", path, getpid()))
{
}

UnfinishedPath::~UnfinishedPath()
{
    if (!m_isKept)
    {
        std::error_code error;
        std::filesystem::remove_all(m_newPath, error);
    }
}

void KeepPath(UnfinishedPath* pPath)
{
    if (rename(pPath->m_newPath.c_str(), pPath->m_path.c_str()) != 0)
    {
        FailOutput(pPath->m_path);
    }
    pPath->m_isKept = true;
}

Output::Output() = default;

Output::~Output()
{
    if (m_fd >= 0)
    {
        close(m_fd);
    }
}

std::unique_ptr<Output> OpenOutput(const std::string& path, Compression compression)
{
    auto pOutput = std::make_unique<Output>();
    OpenTarget(pOutput.get(), path);
    if (pOutput->m_fd < 0)
    {
        FailOutput(pOutput->m_shownPath);
    }
    pOutput->m_pCompressor = MakeCompressor(compression);
    pOutput->m_buffer.reserve(ZORV_BUFFER_SIZE);
    return pOutput;
}

void Put(Output* pOutput, std::string_view bytes)
{
    pOutput->m_buffer += bytes;
    if (pOutput->m_buffer.size() >= ZORV_BUFFER_SIZE)
    {
        Flush(pOutput, false);
    }
}

void CloseOutput(Output* pOutput)
{
    Flush(pOutput, true);
    const int fd = pOutput->m_fd;
    pOutput->m_fd = -1;
    if (close(fd) != 0) // network file systems say only now that the disk is full
    {
        FailOutput(pOutput->m_shownPath);
    }
    if (pOutput->m_pUnfinished != nullptr)
    {
        KeepPath(pOutput->m_pUnfinished.get());
    }
}

} // namespace qelix
