#include "arena.h"
#include "heap_memory.h"

#include <gtest/gtest.h>

#include <vector>

namespace {
struct Node {
    uint64_t key;
    size_t hash() const { return mix_hash(key, 0, 0); }
    bool matches(uint64_t other) const { return key == other; }
};
}  // namespace

// A walk's numbered records, its tree's arena, its instance list and its index share one budget and
// grow until it says no: numbers are dense across blocks, nothing placed before that is lost or
// moved, the ceiling is never passed, and the reason is the ceiling (from the first block of
// records on, below 2 MB, with the tag-table entries they count).
TEST(HeapMemory, RecordsArenaListAndIndexGrowUntilTheCeilingAndLoseNothing) {
    for (size_t ceiling : {size_t{1} << 10, size_t{300} << 10, size_t{2} << 20, size_t{8} << 20}) {
        WalkBudget budget(ceiling);
        NumberedRecords<uint64_t> records(budget, TAG_ENTRY_BYTES);
        Arena<Node> nodes(budget, 0);
        BudgetArray<Node*> list(budget);
        NodeIndex<Node> index(budget);
        std::vector<Node*> placed;
        // Keys alike in their low bits: the hash must spread them.
        for (uint32_t number = 0; records.add(placed.size() << 20, &number);) {
            ASSERT_EQ(placed.size(), number);
            Node* node = nodes.allocate();
            if (node == nullptr) break;
            node->key = records[number];
            ASSERT_EQ(nullptr, index.find(node->key, node->hash()));
            if (!list.push_back(node) || !index.add(node)) break;
            placed.push_back(node);
        }
        EXPECT_EQ(WalkBudget::OVER_CEILING, budget.failure()) << ceiling;
        EXPECT_LE(budget.used(), ceiling);
        EXPECT_EQ(ceiling < (size_t{2} << 20), placed.empty()) << ceiling;
        for (uint32_t k = 0; k < placed.size(); k++) {
            ASSERT_EQ(uint64_t{k} << 20, records[k]);
            ASSERT_EQ(placed[k], list[k]);
            ASSERT_EQ(placed[k], index.find(placed[k]->key, placed[k]->hash()));
        }
        if (ceiling == size_t{8} << 20) {
            EXPECT_GT(placed.size(), 3 * NumberedRecords<uint64_t>::PER_BLOCK) << "numbers run across blocks";
        }
        EXPECT_EQ(nullptr, index.find(uint64_t{1}, Node{1}.hash()));
    }
}
