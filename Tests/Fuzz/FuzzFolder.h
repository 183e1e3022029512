// A session directory of the fuzzer's own, in memory: the readers take paths, and a disk would be slow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The same one for the whole run of the process; removed at its end.
const std::string& FuzzSessionPath();

// Replaces a file of the session.
void WriteFuzzFile(const std::string& name, std::string_view bytes);

// All of its files: sections of the input, each behind its length in four bytes. The order is fuzz.py's.
void WriteFuzzSession(std::string_view input);

std::string_view TextOf(const uint8_t* pData, std::size_t size);
