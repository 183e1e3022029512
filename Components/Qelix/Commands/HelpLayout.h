// Help that fits a terminal of 80 columns.
#pragma once

#include <memory>

namespace CLI
{
class FormatterBase;
}

namespace qelix
{

std::shared_ptr<CLI::FormatterBase> HelpLayout();

} // namespace qelix
