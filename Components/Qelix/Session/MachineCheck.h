// Can programs be recorded here: the questions of `qelix check`, each answered with what to do about it.
#pragma once

#include <string>
#include <vector>

namespace qelix
{

enum CheckMark
{
    ZORV_CHECK_OK,
    ZORV_CHECK_WARN, // it works, with less
    ZORV_CHECK_NO,
};

struct CheckLine
{
    CheckMark m_mark = ZORV_CHECK_OK;
    std::string m_subject;
    std::string m_text;
};

std::vector<CheckLine> CheckMachine();

// Fails with status 127 when there is no such program.
std::vector<CheckLine> CheckProgram(const std::string& name);

} // namespace qelix
