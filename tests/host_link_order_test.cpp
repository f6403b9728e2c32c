// Link order (platform/host/link_order.h) against a plain vector of the live
// children: appends, erases from the front, the back and anywhere, and packs,
// with the child at every order compared after each step.
#include <map>
#include <vector>

#include <gtest/gtest.h>

#include "link_order.h"

namespace {

using namespace tevhost::detail;

// One list's node storage, kept as simply as possible.
struct list {
    order_state st;
    std::vector<unsigned int> ids;  // the child in slot i at i - 1; 0: a hole
    std::map<unsigned long long, unsigned long long> nodes;
    unsigned long long holes(unsigned long long node) const {
        return nodes.count(node) ? nodes.at(node) : 0;
    }
    void add_holes(unsigned long long node, unsigned long long n) { nodes[node] += n; }
    unsigned long long next_child(unsigned long long slot) const {
        while (ids.at(slot) == 0) ++slot;
        return slot + 1;
    }
};

TEST(LinkOrder, MatchesAListOfTheLiveChildren) {
    for (unsigned int pattern = 0; pattern < 4; ++pattern) {  // erase front, back, any, mixed
        list l;
        std::vector<unsigned int> model;
        std::map<unsigned int, unsigned long long> slot_of;
        unsigned int seed = 11 + pattern, next_id = 1, packs = 0;
        auto rnd = [&](unsigned int n) { return (seed = seed * 1103515245u + 12345u) / 65536 % n; };
        for (int step = 0; step < 3000; ++step) {
            if (model.empty() || rnd(10) < (step / 400 % 2 ? 3u : 7u)) {  // grow, then shrink
                const unsigned long long slot = order_append(l.st, l);
                l.ids.resize(slot, 0);
                l.ids[slot - 1] = next_id;
                slot_of[next_id] = slot;
                model.push_back(next_id++);
            } else {
                const unsigned int kind = pattern == 3 ? rnd(3) : pattern;
                const size_t at = kind == 0 ? 0 : kind == 1 ? model.size() - 1 : rnd(model.size());
                const unsigned int id = model[at];
                model.erase(model.begin() + at);
                l.ids[slot_of[id] - 1] = 0;
                if (model.empty()) {
                    l = list();
                } else if (order_erase(l.st, slot_of[id], l)) {  // packed as a backend does
                    ++packs;
                    l.ids = model;
                    l.nodes.clear();
                    l.st = packed_order(model.size());
                    for (size_t i = 0; i < model.size(); ++i) slot_of[model[i]] = i + 1;
                } else {
                    l.ids.resize(l.st.used);
                }
            }
            ASSERT_EQ(model.size(), l.st.live) << step;
            for (size_t order = 0; order < model.size(); ++order) {
                ASSERT_EQ(model[order], l.ids.at(order_slot(l.st, order, l) - 1))
                    << "pattern " << pattern << " step " << step << " order " << order;
            }
        }
        EXPECT_EQ(pattern != 1, packs > 0) << pattern;  // the last slot leaves no hole
    }
}

}  // namespace
