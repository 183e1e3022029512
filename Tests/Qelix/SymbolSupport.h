// What the tests of names for addresses have in common: the subject that the build makes of SymbolSubject.cpp,
// as if it were mapped in a process.
#pragma once

#include "Symbols/Symbolizer.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

// The address that the file's own symbol has, read without the library under test.
uint64_t AddressOf(const std::string& path, const std::string& name);

qelix::ModuleMap MapOf(std::vector<qelix::Mapping> mappings);

// Where the subject is mapped.
constexpr uint64_t BASE = 0x7f0000000000;

struct SymbolsTest : testing::Test
{
    std::string m_subject = SYMBOL_SUBJECT;
    qelix::Symbolizer m_symbolizer;
    qelix::ProcessSymbols m_process;

    void SetUp() override;
    void Use(const std::string& path); // instead of the subject
    std::vector<std::string> NamesAt(uint64_t address);
    std::vector<std::string> LinesAt(uint64_t address); // "SymbolSubject.cpp:12"
};
