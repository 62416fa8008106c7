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

// A walk's arena, its instance list and its index share one budget and grow until it says no:
// nothing placed before that is lost or moved, the ceiling is never passed, and the reason is the
// ceiling (from the first block on, below 2 MB).
TEST(HeapMemory, ArenaListAndIndexGrowUntilTheCeilingAndLoseNothing) {
    for (size_t ceiling : {size_t{1} << 10, size_t{300} << 10, size_t{2} << 20, size_t{8} << 20}) {
        WalkBudget budget(ceiling);
        Arena<Node> nodes(budget, TAG_ENTRY_BYTES);
        BudgetArray<Node*> list(budget);
        NodeIndex<Node> index(budget);
        std::vector<Node*> placed;
        // Keys alike in their low bits: the hash must spread them.
        for (Node* node = nodes.allocate(); node != nullptr; node = nodes.allocate()) {
            node->key = placed.size() << 20;
            ASSERT_EQ(nullptr, index.find(node->key, node->hash()));
            if (!list.push_back(node) || !index.add(node)) break;
            placed.push_back(node);
        }
        EXPECT_EQ(WalkBudget::OVER_CEILING, budget.failure()) << ceiling;
        EXPECT_LE(budget.used(), ceiling);
        EXPECT_EQ(ceiling < (size_t{2} << 20), placed.empty()) << ceiling;
        for (size_t k = 0; k < placed.size(); k++) {
            ASSERT_EQ(placed[k], list[k]);
            ASSERT_EQ(placed[k], index.find(placed[k]->key, placed[k]->hash()));
        }
        EXPECT_EQ(nullptr, index.find(uint64_t{1}, Node{1}.hash()));
    }
}
