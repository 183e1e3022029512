// The code that the kernel puts into every process, which is no file.
#pragma once

namespace qelix
{

// A file without a name that holds this process's own; -1 when it cannot be had. The caller owns it.
int OpenVdsoImage();

} // namespace qelix
