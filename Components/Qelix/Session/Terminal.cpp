#include "Session/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace qelix
{

std::size_t ColumnsOf(int fd)
{
    winsize size;
    return isatty(fd) == 1 && ioctl(fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string OneLineOn(int fd, const std::string& line)
{
    const std::size_t columns = ColumnsOf(fd);
    return columns == 0 ? line : line.substr(0, columns - 1);
}

} // namespace qelix
