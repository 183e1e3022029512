// Names as they are written, from names as they are linked.
#pragma once

#include <string>
#include <string_view>

namespace qelix
{

// Of C++ and Rust; any other name stays as it is. The parts into which compilers split a function, and its
// copies made for some arguments, go by the function's own name.
std::string Demangled(std::string_view name);

} // namespace qelix
