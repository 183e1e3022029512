// What tells one build of a file from another.
#pragma once

#include <map>
#include <string>

namespace qelix
{

// The GNU build-id of an ELF file in hex digits; empty when it has none or cannot be read.
std::string BuildIdOf(const std::string& path);

// Of all files that the metadata files of a session name, by path, as those files are now.
std::map<std::string, std::string> BuildIdsOfModules(const std::string& metadataFolder);

} // namespace qelix
