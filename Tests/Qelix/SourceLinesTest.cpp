// Source lines of addresses, and names that the symbols do not tell.
#include "SymbolSupport.h"

#include <fmt/format.h>
#include <fstream>

using namespace qelix;

namespace
{

// The line of the subject that holds the text.
std::string LineWith(const std::string& text)
{
    std::ifstream file(SYMBOL_SUBJECT_SOURCE);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number)
    {
        if (line.find(text) != line.npos)
        {
            return fmt::format("SymbolSubject.cpp:{}", number);
        }
    }
    ADD_FAILURE() << SYMBOL_SUBJECT_SOURCE << " has no line with " << text;
    return "";
}

} // namespace

TEST_F(SymbolsTest, EachInlinedFunctionHasTheLineItIsAt)
{
    const std::vector<std::string> lines = LinesAt(BASE + AddressOf(m_subject, "subject_inlined_here"));
    EXPECT_EQ(lines, (std::vector<std::string>{LineWith("subject_inlined_here: .rept"),
                                               LineWith("Inner(value) +"), LineWith("Outer(value) +")}));
}

TEST_F(SymbolsTest, AFunctionKnowsWhereItIsWritten)
{
    const CodePlace& place = PlaceOf(&m_process, BASE + AddressOf(m_subject, "subject_inlined_here"), 1);
    const Function& inner = m_symbolizer.m_functions[place.m_functions.front()];
    EXPECT_TRUE(inner.m_source.starts_with('/') && inner.m_source.ends_with("/Tests/Qelix/SymbolSubject.cpp"))
        << inner.m_source;
    EXPECT_EQ(fmt::format("SymbolSubject.cpp:{}", inner.m_line), LineWith("int Inner(int value)"));
    const Function& real = m_symbolizer.m_functions[place.m_functions.back()];
    EXPECT_EQ(fmt::format("SymbolSubject.cpp:{}", real.m_line), LineWith("int SubjectInlining(int value)"));
}

TEST_F(SymbolsTest, AFunctionIsOneWhetherItIsInlinedOrNot)
{
    const CodePlace& inlined = PlaceOf(&m_process, BASE + AddressOf(m_subject, "subject_inlined_here"), 1);
    const CodePlace& plain = PlaceOf(&m_process, BASE + AddressOf(m_subject, "SubjectInlining"), 1);
    EXPECT_EQ(plain.m_functions.back(), inlined.m_functions.back());
}

TEST_F(SymbolsTest, WithoutDebugInformationThereIsNoLine)
{
    Use(SYMBOL_SUBJECT_STRIPPED);
    EXPECT_EQ(LinesAt(BASE + AddressOf(m_subject, "SubjectPlain")), std::vector<std::string>{":0"});
}

TEST_F(SymbolsTest, LinesComeFromTheSeparateDebugFileToo)
{
    Use(SYMBOL_SUBJECT_LINKED);
    EXPECT_EQ(LinesAt(BASE + AddressOf(m_subject, "subject_inlined_here")).back(), LineWith("Outer(value) +"));
}

TEST_F(SymbolsTest, ALambdaGoesByTheFunctionItIsWrittenIn)
{
    const std::string name = NamesAt(BASE + AddressOf(m_subject, "subject_in_lambda")).front();
    EXPECT_TRUE(name.starts_with("subject::Lambda")) << name;
    EXPECT_TRUE(name.ends_with("::operator()")) << name;
}
