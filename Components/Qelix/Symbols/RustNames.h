// Names of Rust functions as they are written, from both forms in which they are linked.
#pragma once

#include <string>
#include <string_view>

namespace qelix
{

// Empty when the name is none of them.
std::string DemangledRust(std::string_view name);

// The same for the younger form, from behind the "_R" that all of its names begin with.
std::string DemangledRustV0(std::string_view name);

} // namespace qelix
