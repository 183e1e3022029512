#include "Export/TimeOrder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

using namespace qelix;

namespace
{

struct Item
{
    uint64_t m_time;
    uint64_t m_payload;
};

bool IsEarlier(const Item& a, const Item& b)
{
    return a.m_time < b.m_time;
}

// Adds so many items at random times, and takes them out again.
void ExpectOrder(std::size_t count, std::size_t capacity)
{
    TimeOrder<Item> order;
    order.m_isBefore = IsEarlier;
    order.m_capacity = capacity;
    std::mt19937_64 random(count);
    uint64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i)
    {
        const uint64_t time = random() % (2 * count); // with equal ones
        sum += time;
        AddItem(&order, {time, ~time});
    }
    SettleOrder(&order);
    std::size_t seen = 0;
    uint64_t last = 0;
    for (const Item* pItem = nullptr; (pItem = PeekItem(&order)) != nullptr; DropItem(&order))
    {
        ASSERT_LE(last, pItem->m_time);
        ASSERT_EQ(pItem->m_payload, ~pItem->m_time);
        last = pItem->m_time;
        sum -= last;
        ++seen;
    }
    EXPECT_EQ(seen, count);
    EXPECT_EQ(sum, 0u);
    EXPECT_EQ(PeekItem(&order), nullptr);
}

} // namespace

TEST(TimeOrder, WithoutItemsThereAreNone)
{
    ExpectOrder(0, 4);
}

TEST(TimeOrder, WhatFitsIsSortedInMemory)
{
    ExpectOrder(1000, 1001);
}

TEST(TimeOrder, WhatDoesNotFitIsMergedFromPieces)
{
    ExpectOrder(1000, 1000); // one full piece and nothing behind it
    ExpectOrder(1000, 999);
    ExpectOrder(10000, 7);       // more pieces than items of one
    ExpectOrder(300000, 100000); // pieces that are read in parts
}

TEST(TimeOrder, ADiskThatDoesNotHoldThemIsNamed)
{
    const char* pBefore = getenv("TMPDIR");
    const std::string before = pBefore == nullptr ? "" : pBefore;
    setenv("TMPDIR", "/no/such/folder", 1);
    TimeOrder<Item> order;
    order.m_isBefore = IsEarlier;
    order.m_capacity = 2;
    AddItem(&order, {1, 1});
    try
    {
        AddItem(&order, {2, 2});
        FAIL() << "it was written";
    }
    catch (const std::exception& failure)
    {
        EXPECT_NE(std::string(failure.what()).find("/no/such/folder"), std::string::npos);
        EXPECT_NE(std::string(failure.what()).find("TMPDIR"), std::string::npos);
    }
    pBefore == nullptr ? unsetenv("TMPDIR") : setenv("TMPDIR", before.c_str(), 1);
}
