// Names as they are written, from names as they are linked.
#include "Symbols/FunctionNames.h"
#include "Symbols/RustNames.h"

#include <gtest/gtest.h>

using namespace qelix;

TEST(FunctionNames, PartsAndCopiesOfAFunctionGoByItsName)
{
    EXPECT_EQ(Demangled("copy.constprop.0"), "copy");
    EXPECT_EQ(Demangled("copy.part.3.isra.0.cold"), "copy");
    EXPECT_EQ(Demangled("_ZN7subject7OverlayEiPKc.cold"), "subject::Overlay(int, char const*)");
    EXPECT_EQ(Demangled("runtime.main"), "runtime.main");
    EXPECT_EQ(Demangled("copy.constprop.main"), "copy.constprop.main");
    EXPECT_EQ(Demangled(".cold"), ".cold");
}

TEST(FunctionNames, OlderRustNamesLoseTheirHashAndEscapes)
{
    EXPECT_EQ(Demangled("_ZN3foo3bar17h05af221e174051e9E"), "foo::bar");
    EXPECT_EQ(
        Demangled("_ZN4core3ptr79drop_in_place$LT$alloc..vec..Vec$LT$$RF$str$GT$$GT$17h0123456789abcdefE"),
        "_ZN4core3ptr79drop_in_place$LT$alloc..vec..Vec$LT$$RF$str$GT$$GT$17h0123456789abcdefE")
        << "a length that leads out of the name";
    EXPECT_EQ(
        Demangled("_ZN4core3ptr51drop_in_place$LT$alloc..vec..Vec$LT$$RF$str$GT$$GT$17h0123456789abcdefE"),
        "core::ptr::drop_in_place<alloc::vec::Vec<&str>>");
    EXPECT_EQ(Demangled("_ZN40_$LT$A$u20$as$u20$b..C$u5b$$u5d$$GT$$SP$3fmt17h0123456789abcdefE"),
              "<A as b::C[]>@::fmt");
    EXPECT_EQ(Demangled("_ZN3foo17h05af221e174051e9Ev"), "foo::h05af221e174051e9()") << "a function of C++";
}

TEST(FunctionNames, YoungerRustNamesAreRead)
{
    EXPECT_EQ(Demangled("_RNvCs15kBYyAo9fc_7mycrate7example"), "mycrate::example");
    EXPECT_EQ(Demangled("_RNvNtCs1234_7mycrate3foo3bar"), "mycrate::foo::bar");
    EXPECT_EQ(Demangled("_RNCNvCs1_4main3runs_0"), "main::run::{closure#1}");
    EXPECT_EQ(Demangled("_RINvCs1_1a3genTnxAuj2_EEB2_"), "a::gen::<(i128, i64, [(); 2])>");
    EXPECT_EQ(Demangled("_RINvCs1_1a3genFG_QL0_hEzEB2_"), "a::gen::<for<'a> fn(&'a mut u8) -> !>");
    EXPECT_EQ(Demangled("_RNvXs_Cs1_1aINtB4_2SqfKj3_ENtB4_5Shape4area"), "<a::Sq<f32, 3> as a::Shape>::area");
    EXPECT_EQ(Demangled("_RNvMs0_Cs1_1aINtB5_1BKb1_Kc71_E2go"), "<a::B<true, 'q'>>::go");
    EXPECT_EQ(Demangled("_RINvCs1_1a1fDNtB2_5ShapeNtB2_4SendEL_EB2_"), "a::f::<dyn a::Shape + a::Send>");
    EXPECT_EQ(Demangled("_RINvCs1_1a1fFUKCPhOlEuEB2_"), "a::f::<unsafe extern \"C\" fn(*const u8, *mut i32)>");
}

TEST(FunctionNames, WhatOnlyLooksLikeRustStaysAsItIs)
{
    for (const char* pName :
         {"_R", "_RNv", "_RNvC", "_Rx", "_RNvCs_", "_RB_", "_RNvB_3foo", "_RNvC3foo9b", "_ZN", "_ZN3"})
    {
        EXPECT_EQ(DemangledRust(pName), "") << pName;
        EXPECT_FALSE(Demangled(pName).empty());
    }
}

TEST(FunctionNames, NamesMadeToHarmComeToAnEnd)
{
    // Each of these tuples is two of the one before it.
    std::string doubling = "_RINvC1a1fT";
    std::size_t last = doubling.size() - 3;
    doubling += "uuE";
    for (int i = 0; i < 60; ++i)
    {
        const std::string back = "B" + std::string(1, "0123456789abcdefghijklmnopqrstuvwxyz"[last - 1]) + "_";
        last = std::min<std::size_t>(doubling.size() - 2, 36);
        doubling += "T" + back + back + "E";
    }
    EXPECT_EQ(DemangledRust(doubling + "E"), "");
    EXPECT_EQ(DemangledRust("_R" + std::string(100000, 'P')), "");
    EXPECT_EQ(DemangledRust("_RINvC1a1f" + std::string(100000, 'R') + "uE"), "");
}
