# Turns FILES into OUTPUT, a C++ source that holds them as one table of names and contents (Assets.h).
set(arrays "")
set(rows "")
foreach(path IN LISTS FILES)
  cmake_path(GET path FILENAME name)
  string(MAKE_C_IDENTIFIER ${name} identifier)
  file(READ ${path} hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(............................................................)" "\\1\n" bytes "${bytes}")
  string(APPEND arrays "constexpr unsigned char ${identifier}[] = {\n${bytes}0};\n")
  string(APPEND rows "    {\"${name}\", {reinterpret_cast<const char*>(${identifier}), sizeof(${identifier}) - 1}},\n")
endforeach()
file(WRITE ${OUTPUT} "// Made from the folder assets; not to be edited.
#include \"Pages/Assets.h\"

namespace qelix
{
namespace
{

${arrays}
const Asset g_assets[] = {
${rows}};

} // namespace

std::span<const Asset> Assets()
{
    return g_assets;
}

} // namespace qelix
")
