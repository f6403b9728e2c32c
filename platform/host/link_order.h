// Children in link order, as both record store backends keep them: the child
// at an order, an append and an erase in O(log n), with no renumbering.
// Pure functions over a caller's state and node storage; the caller serialises
// access to them (the store's lock).
//
// Each child linked under a parent takes the parent's next slot (1, 2, ...); an
// unlinked child leaves a hole, except the last slot, which is handed out again.
// A Fenwick tree over the slots counts the holes: node i counts those in
// (i - lowbit(i), i], for i up to `top`, the smallest power of two that holds
// every slot used. The child at an order is then found in O(log n) reads of
// nodes, and a hole is made in O(log n) node updates. Holes left by unlinking
// the first child are only counted (`skipped`), and `head` moves to the next
// child (one index seek): a list emptied from the front, as a copy does, and a
// list without other holes find a child by order in one read. When top doubles,
// node 2 * top starts as a copy of node top (the slots above are unused). A list
// with more holes than children (or, as the backend chooses, some multiple of
// them) is packed again by the backend, which renumbers its children in one
// pass (amortised O(1) per hole).
#ifndef TEVASH_HOST_LINK_ORDER_H
#define TEVASH_HOST_LINK_ORDER_H

namespace tevhost {
namespace detail {

struct order_state {
    unsigned long long used = 0;     // slots handed out
    unsigned long long live = 0;     // children
    unsigned long long top = 0;      // Fenwick size; 0 while empty
    unsigned long long skipped = 0;  // holes before head that no node counts
    unsigned long long head = 0;     // the first child's slot
};

// Where a backend keeps the nodes. P provides:
//   unsigned long long holes(node)      the count in a node (0 when never set)
//   void add_holes(node, n)             adds n to a node
//   unsigned long long next_child(slot) the slot of the first child after `slot`

// The slot of the child at `order` (< live).
template <typename P>
unsigned long long order_slot(const order_state& st, unsigned long long order, const P& p) {
    const unsigned long long target = order + st.skipped;
    if (st.used == st.live + st.skipped) return target + 1;
    unsigned long long pos = 0, rest = target;  // rest: slots still to pass
    for (unsigned long long step = st.top; step != 0; step >>= 1) {
        const unsigned long long passed = step - p.holes(pos + step);
        if (passed <= rest) {
            pos += step;
            rest -= passed;
        }
    }
    return pos + 1;
}

// Returns the slot of a child appended to the list.
template <typename P>
unsigned long long order_append(order_state& st, P& p) {
    ++st.used;
    if (++st.live == 1) st.head = st.used;
    unsigned long long top = st.top == 0 ? 1 : st.top;
    while (top < st.used) top <<= 1;
    if (top != st.top && st.top != 0) {
        const unsigned long long below = p.holes(st.top);
        if (below != 0) p.add_holes(top, below);
    }
    st.top = top;
    return st.used;
}

// Takes the child at `slot` out of the list (the backend no longer lists it
// there). Returns true when the list should be packed. REQUIRES: live > 1 (the
// backend drops a list whose last child leaves).
template <typename P>
bool order_erase(order_state& st, unsigned long long slot, P& p) {
    --st.live;
    if (slot == st.used) {
        --st.used;
    } else if (slot == st.head) {
        ++st.skipped;
        st.head = p.next_child(slot);
    } else {
        for (unsigned long long i = slot; i <= st.top; i += i & (~i + 1)) p.add_holes(i, 1);
    }
    const unsigned long long holes = st.used - st.live;
    return holes > st.live && holes >= 16;
}

// The state of a list of `live` children packed into slots 1..live.
inline order_state packed_order(unsigned long long live) {
    order_state st;
    st.used = st.live = live;
    st.head = 1;
    st.top = 1;
    while (st.top < live) st.top <<= 1;
    return st;
}

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_LINK_ORDER_H
