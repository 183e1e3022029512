// Puts any number of items in order within a fixed amount of memory. The agent's files are in the order in
// which buffers were written, and a thread that seldom calls hands in its buffer late: no window bounds the
// disorder, so what does not fit into memory is sorted in pieces, kept in a spill file, and merged on the way
// out.
//
//     TimeOrder<Item> order;
//     order.m_isBefore = ...;
//     AddItem(&order, item); ...              any number of times
//     SettleOrder(&order);                    once
//     while (const Item* pItem = PeekItem(&order)) { ...; DropItem(&order); }
//
// Items are copied as bytes. Those that m_isBefore holds equal come in no order that can be told.
#pragma once

#include "Export/SpillFile.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace qelix
{

constexpr std::size_t ZORV_ORDER_BYTES = std::size_t{32} << 20; // in memory, of each order
constexpr std::size_t ZORV_LEAST_RUN_ITEMS = 64;                // read at once of each sorted piece

// A sorted piece of the spill file, of which a part has been read.
template <typename Item> struct SortedRun
{
    uint64_t m_offset = 0; // of what was not read yet
    uint64_t m_left = 0;   // items that were not read yet
    std::vector<Item> m_items;
    std::size_t m_next = 0;
};

template <typename Item> struct TimeOrder
{
    static_assert(std::is_trivially_copyable_v<Item>);

    bool (*m_isBefore)(const Item& a, const Item& b) = nullptr;
    std::size_t m_capacity = ZORV_ORDER_BYTES / sizeof(Item);

    // Of the sorting alone.
    std::vector<Item> m_items; // the piece that is being gathered; without a spill, all
    std::size_t m_next = 0;
    SpillFile m_spill;
    std::vector<SortedRun<Item>> m_runs;
    std::vector<std::size_t> m_heap; // of runs that have an item, the first item's on top
};

template <typename Item> void SpillRun(TimeOrder<Item>* pOrder)
{
    std::vector<Item>& items = pOrder->m_items;
    std::sort(items.begin(), items.end(), pOrder->m_isBefore);
    SortedRun<Item> run;
    run.m_offset = pOrder->m_spill.m_size;
    run.m_left = items.size();
    AppendToSpill(&pOrder->m_spill, items.data(), items.size() * sizeof(Item));
    pOrder->m_runs.push_back(std::move(run));
    items.clear();
}

template <typename Item> void AddItem(TimeOrder<Item>* pOrder, const Item& item)
{
    pOrder->m_items.push_back(item);
    if (pOrder->m_items.size() >= pOrder->m_capacity)
    {
        SpillRun(pOrder);
    }
}

template <typename Item> void RefillRun(TimeOrder<Item>* pOrder, SortedRun<Item>* pRun)
{
    const std::size_t share = std::max(ZORV_LEAST_RUN_ITEMS, pOrder->m_capacity / pOrder->m_runs.size());
    const auto count = static_cast<std::size_t>(std::min<uint64_t>(share, pRun->m_left));
    pRun->m_items.resize(count);
    pRun->m_next = 0;
    if (count != 0)
    {
        ReadSpill(pOrder->m_spill, pRun->m_offset, pRun->m_items.data(), count * sizeof(Item));
        pRun->m_offset += count * sizeof(Item);
        pRun->m_left -= count;
    }
}

// Standard heaps have the greatest on top.
template <typename Item> auto IsLaterRun(const TimeOrder<Item>& order)
{
    return [&order](std::size_t a, std::size_t b)
    {
        const SortedRun<Item>& runA = order.m_runs[a];
        const SortedRun<Item>& runB = order.m_runs[b];
        return order.m_isBefore(runB.m_items[runB.m_next], runA.m_items[runA.m_next]);
    };
}

template <typename Item> void SettleOrder(TimeOrder<Item>* pOrder)
{
    if (pOrder->m_runs.empty())
    {
        std::sort(pOrder->m_items.begin(), pOrder->m_items.end(), pOrder->m_isBefore);
        return;
    }
    if (!pOrder->m_items.empty())
    {
        SpillRun(pOrder);
    }
    pOrder->m_items.shrink_to_fit();
    for (std::size_t i = 0; i < pOrder->m_runs.size(); ++i)
    {
        RefillRun(pOrder, &pOrder->m_runs[i]);
        pOrder->m_heap.push_back(i);
    }
    std::make_heap(pOrder->m_heap.begin(), pOrder->m_heap.end(), IsLaterRun(*pOrder));
}

// The first item that was not dropped; null behind the last one. Valid until the next drop.
template <typename Item> const Item* PeekItem(const TimeOrder<Item>* pOrder)
{
    if (pOrder->m_runs.empty())
    {
        return pOrder->m_next < pOrder->m_items.size() ? &pOrder->m_items[pOrder->m_next] : nullptr;
    }
    if (pOrder->m_heap.empty())
    {
        return nullptr;
    }
    const SortedRun<Item>& run = pOrder->m_runs[pOrder->m_heap.front()];
    return &run.m_items[run.m_next];
}

template <typename Item> void DropItem(TimeOrder<Item>* pOrder)
{
    if (pOrder->m_runs.empty())
    {
        ++pOrder->m_next;
        return;
    }
    std::vector<std::size_t>& heap = pOrder->m_heap;
    std::pop_heap(heap.begin(), heap.end(), IsLaterRun(*pOrder));
    SortedRun<Item>& run = pOrder->m_runs[heap.back()];
    if (++run.m_next == run.m_items.size())
    {
        RefillRun(pOrder, &run);
    }
    if (run.m_items.empty())
    {
        heap.pop_back();
        return;
    }
    std::push_heap(heap.begin(), heap.end(), IsLaterRun(*pOrder));
}

} // namespace qelix
