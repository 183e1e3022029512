// Names of functions in debug information.
#pragma once

#include <elfutils/libdw.h>
#include <string>

namespace qelix
{

// As linked; where nothing links to it as written, with what it is written in: "shop::Basket::Total",
// "Total::<lambda(int)>::operator()". Empty: it has none.
std::string NameOfFunction(Dwarf_Die* pFunction);

} // namespace qelix
