// Text that fits: widths are columns, not bytes.
#include "Report/Screen.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace qelix;

TEST(Screen, WidthsAreColumns)
{
    EXPECT_EQ(WidthOf("µs ×"), 4u);
    EXPECT_EQ(Fitted("µs", 4), "µs  ");
    EXPECT_EQ(CutTo("µµµµµ", 4), "µµ..");
    EXPECT_EQ(CutTo("four", 4), "four");
    EXPECT_EQ(CutTo("anything", 1), ".");
    EXPECT_EQ(CutTo("anything", 0), "");
}

TEST(Screen, OfANameWithAnOffsetTheOffsetStays)
{
    EXPECT_EQ(CutName("libsqlite3.so.0.8.6+0x15eac8", 20), "libsqlite..+0x15eac8");
    EXPECT_EQ(CutName("libsqlite3.so.0.8.6+0x15eac8", 28), "libsqlite3.so.0.8.6+0x15eac8");
    EXPECT_EQ(CutName("libsqlite3.so.0.8.6+0x15eac8", 12), "libsqlite3..") << "no room for both";
    EXPECT_EQ(CutName("an_ordinary_name", 10), "an_ordin..");
}

TEST(Screen, LinesBreakAtBlanksAndKeepWordsWhole)
{
    EXPECT_EQ(Wrapped("one two three", 7, "  "), "one two\n  three");
    EXPECT_EQ(Wrapped("one incomprehensible two", 8, "  "), "one\n  incomprehensible\n  two");
    EXPECT_EQ(Wrapped("", 8, "  "), "");
}

TEST(Screen, WhatIsNoTerminalHasTheWidthThatTheEnvironmentSaysAndNoColour)
{
    const int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
    setenv("COLUMNS", "100", 1);
    EXPECT_EQ(ScreenOf(fd).m_width, 100u);
    EXPECT_FALSE(ScreenOf(fd).m_hasColour);
    setenv("COLUMNS", "3", 1);
    EXPECT_EQ(ScreenOf(fd).m_width, 60u);
    setenv("COLUMNS", "nonsense", 1);
    EXPECT_EQ(ScreenOf(fd).m_width, 80u);
    unsetenv("COLUMNS");
    EXPECT_EQ(ScreenOf(fd).m_width, 80u);
    close(fd);
}
