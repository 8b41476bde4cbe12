// libpkx: AVL trees over nodes embedded in the caller's entries.
//
// The three words of pkx_avl_node_t hold the left child, the right child, and
// the parent with the balance factor folded into its two low bits (nodes hold
// pointers, so they are at least 4-byte aligned and those bits are free). The
// balance factor is height(right) - height(left), stored as balance + 1.
//
// Entries are only ever added (no single removal exists); pkx_avl_teardown
// takes a tree apart leaf by leaf without rebalancing, which is all a table
// being destroyed needs.

#include "pkx.h"

#include <cstdlib>
#include <cstring>
#include <new>

// All a tree needs of its pool; the entry size only serves to check node_offset
// at creation, and the name is not kept.
struct pkx_avl_pool {
    size_t node_offset;
    pkx_avl_compare_fn compare;
};

struct pkx_avl_walk {
    pkx_avl_t* tree;
    pkx_avl_node_t* next;  // node whose entry the next pkx_avl_walk_next returns
    // Links in the tree's list of live walks, so that the tree can release
    // walks its users never ended.
    pkx_avl_walk* prev_walk;
    pkx_avl_walk* next_walk;
};

struct pkx_avl {
    pkx_avl_pool_t* pool;
    void* priv;
    pkx_avl_node_t* root;
    size_t numnodes;
    pkx_avl_walk_t* walks;  // head of the list of live walks
};

namespace {

using node_t = pkx_avl_node_t;

constexpr uintptr_t BALANCE_MASK = 3;
// The balance rides in the parent pointer's two low bits, and an insertion
// index in bit 0 of its parent's address: nodes must leave those bits free.
static_assert(alignof(pkx_avl_node_t) > BALANCE_MASK, "node addresses must leave two bits free");

node_t* left_of(const node_t* n) { return static_cast<node_t*>(n->pkx_private[0]); }
node_t* right_of(const node_t* n) { return static_cast<node_t*>(n->pkx_private[1]); }
node_t* child_of(const node_t* n, int dir) { return static_cast<node_t*>(n->pkx_private[dir]); }
void set_child(node_t* n, int dir, node_t* c) { n->pkx_private[dir] = c; }

node_t* parent_of(const node_t* n) {
    return reinterpret_cast<node_t*>(reinterpret_cast<uintptr_t>(n->pkx_private[2]) &
                                     ~BALANCE_MASK);
}
int balance_of(const node_t* n) {
    return static_cast<int>(reinterpret_cast<uintptr_t>(n->pkx_private[2]) & BALANCE_MASK) - 1;
}
void set_parent_balance(node_t* n, node_t* parent, int balance) {
    n->pkx_private[2] = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(parent) |
                                                static_cast<uintptr_t>(balance + 1));
}
void set_parent(node_t* n, node_t* parent) { set_parent_balance(n, parent, balance_of(n)); }
void set_balance(node_t* n, int balance) { set_parent_balance(n, parent_of(n), balance); }

void* entry_of(const pkx_avl_t* tree, node_t* n) {
    return n == nullptr ? nullptr : reinterpret_cast<char*>(n) - tree->pool->node_offset;
}
node_t* node_of(const pkx_avl_t* tree, void* entry) {
    return reinterpret_cast<node_t*>(static_cast<char*>(entry) + tree->pool->node_offset);
}

node_t* leftmost(node_t* n) {
    while (n != nullptr && left_of(n) != nullptr) n = left_of(n);
    return n;
}

node_t* successor(node_t* n) {
    if (right_of(n) != nullptr) return leftmost(right_of(n));
    node_t* p = parent_of(n);
    while (p != nullptr && n == right_of(p)) {
        n = p;
        p = parent_of(p);
    }
    return p;
}

// Puts `to` where `from` hung below its parent (or at the root).
void replace_in_parent(pkx_avl_t* tree, node_t* from, node_t* to) {
    node_t* p = parent_of(from);
    if (p == nullptr)
        tree->root = to;
    else if (left_of(p) == from)
        set_child(p, 0, to);
    else
        set_child(p, 1, to);
    if (to != nullptr) set_parent(to, p);
}

// Rotates x down to the `dir` side of its child on the other side, which
// rises in its place (dir 1: right rotation, x's left child rises; dir 0:
// left rotation, x's right child rises). Returns the risen child. Balance
// factors are the caller's business.
node_t* rotate(pkx_avl_t* tree, node_t* x, int dir) {
    int other = 1 - dir;
    node_t* y = child_of(x, other);
    node_t* inner = child_of(y, dir);
    set_child(x, other, inner);
    if (inner != nullptr) set_parent(inner, x);
    replace_in_parent(tree, x, y);
    set_child(y, dir, x);
    set_parent(x, y);
    return y;
}

// Restores the AVL property after node n was linked in as a leaf.
void rebalance_after_insert(pkx_avl_t* tree, node_t* n) {
    for (node_t* p = parent_of(n); p != nullptr; n = p, p = parent_of(p)) {
        int bal = balance_of(p) + (n == left_of(p) ? -1 : 1);
        if (bal == 0) {
            set_balance(p, 0);
            return;
        }
        if (bal == -1 || bal == 1) {
            set_balance(p, bal);
            continue;
        }
        // |bal| == 2: n is the heavy child of p.
        int heavy = bal < 0 ? -1 : 1;
        if (balance_of(n) == heavy) {
            // Outer case: one rotation makes both level.
            rotate(tree, p, bal < 0 ? 1 : 0);
            set_balance(p, 0);
            set_balance(n, 0);
        } else {
            // Inner case: n's inner child c rises two levels.
            node_t* c = heavy < 0 ? right_of(n) : left_of(n);
            int cb = balance_of(c);
            if (heavy < 0) {
                rotate(tree, n, 0);
                rotate(tree, p, 1);
            } else {
                rotate(tree, n, 1);
                rotate(tree, p, 0);
            }
            // After the double rotation n and p are c's children; whichever
            // side c leaned to keeps its subtree, the other loses a level.
            set_balance(n, cb == -heavy ? heavy : 0);
            set_balance(p, cb == heavy ? -heavy : 0);
            set_balance(c, 0);
        }
        return;
    }
}

// Descends from n to a leaf, preferring left children: the first node of a
// post-order walk of n's subtree.
node_t* first_leaf(node_t* n) {
    for (;;) {
        if (left_of(n) != nullptr)
            n = left_of(n);
        else if (right_of(n) != nullptr)
            n = right_of(n);
        else
            return n;
    }
}

}  // namespace

pkx_avl_pool_t* pkx_avl_pool_create(const char* /*name*/, size_t entry_size, size_t node_offset,
                                    pkx_avl_compare_fn compare, uint32_t /*flags*/) {
    if (compare == nullptr || node_offset + sizeof(pkx_avl_node_t) > entry_size) return nullptr;
    return new (std::nothrow) pkx_avl_pool{node_offset, compare};
}

void pkx_avl_pool_destroy(pkx_avl_pool_t* pool) { delete pool; }

pkx_avl_t* pkx_avl_create(pkx_avl_pool_t* pool, void* priv, uint32_t /*flags*/) {
    if (pool == nullptr) return nullptr;
    auto* tree = new (std::nothrow) pkx_avl;
    if (tree == nullptr) return nullptr;
    *tree = pkx_avl{pool, priv, nullptr, 0, nullptr};
    return tree;
}

void pkx_avl_destroy(pkx_avl_t* tree) {
    if (tree == nullptr) return;
    // Walks their users dropped without ending them die with the tree.
    while (tree->walks != nullptr) {
        pkx_avl_walk_t* w = tree->walks;
        tree->walks = w->next_walk;
        delete w;
    }
    delete tree;
}

void pkx_avl_node_init(void* /*entry*/, void* node, pkx_avl_pool_t* /*pool*/) {
    std::memset(node, 0, sizeof(pkx_avl_node_t));
    set_parent_balance(static_cast<node_t*>(node), nullptr, 0);
}

void pkx_avl_node_fini(void* /*entry*/, void* node, pkx_avl_pool_t* /*pool*/) {
    if (node != nullptr) std::memset(node, 0, sizeof(pkx_avl_node_t));
}

// The index names the parent of the missing entry's place with the side in
// bit 0 (parents are aligned, so the bit is free); 0 means "the root of an
// empty tree".
void* pkx_avl_find(pkx_avl_t* tree, const void* key, void* priv, pkx_avl_index_t* where) {
    node_t* parent = nullptr;
    int dir = 0;
    for (node_t* n = tree->root; n != nullptr; n = child_of(n, dir)) {
        int c = tree->pool->compare(key, entry_of(tree, n), priv);
        if (c == 0) return entry_of(tree, n);
        parent = n;
        dir = c < 0 ? 0 : 1;
    }
    if (where != nullptr)
        *where = reinterpret_cast<uintptr_t>(parent) | static_cast<uintptr_t>(dir);
    return nullptr;
}

void* pkx_avl_find_below_first(pkx_avl_t* tree, const void* key, void* priv,
                               pkx_avl_index_t* where) {
    node_t* first = leftmost(tree->root);
    if (first == nullptr || tree->pool->compare(key, entry_of(tree, first), priv) >= 0)
        return pkx_avl_find(tree, key, priv, where);
    // The first entry has no left child: that is the place.
    if (where != nullptr) *where = reinterpret_cast<uintptr_t>(first);
    return nullptr;
}

void pkx_avl_insert(pkx_avl_t* tree, void* entry, pkx_avl_index_t where) {
    node_t* n = node_of(tree, entry);
    set_child(n, 0, nullptr);
    set_child(n, 1, nullptr);
    if (where == 0 && tree->root != nullptr) {
        // No index from a find: look the place up with the tree's own
        // private pointer. An equal entry already present is left alone.
        if (pkx_avl_find(tree, entry, tree->priv, &where) != nullptr) return;
    }
    auto* parent = reinterpret_cast<node_t*>(where & ~static_cast<uintptr_t>(1));
    int dir = static_cast<int>(where & 1);
    set_parent_balance(n, parent, 0);
    if (parent == nullptr)
        tree->root = n;
    else
        set_child(parent, dir, n);
    tree->numnodes++;
    rebalance_after_insert(tree, n);
}

void* pkx_avl_first(pkx_avl_t* tree) { return entry_of(tree, leftmost(tree->root)); }

void* pkx_avl_next(pkx_avl_t* tree, void* entry) {
    if (entry == nullptr) return nullptr;
    return entry_of(tree, successor(node_of(tree, entry)));
}

size_t pkx_avl_numnodes(pkx_avl_t* tree) { return tree->numnodes; }

// The cookie holds the next leaf to take out; each removal only unlinks a
// leaf, so the remaining structure stays a valid (if unbalanced) tree and
// first_leaf of the parent finds the next post-order node.
void* pkx_avl_teardown(pkx_avl_t* tree, void** cookie) {
    node_t* n = static_cast<node_t*>(*cookie);
    if (n == nullptr) {
        if (tree->root == nullptr) return nullptr;
        n = first_leaf(tree->root);
    }
    node_t* parent = parent_of(n);
    if (parent == nullptr)
        tree->root = nullptr;
    else if (left_of(parent) == n)
        set_child(parent, 0, nullptr);
    else
        set_child(parent, 1, nullptr);
    tree->numnodes--;
    *cookie = parent == nullptr ? nullptr : first_leaf(parent);
    return entry_of(tree, n);
}

pkx_avl_walk_t* pkx_avl_walk_start(pkx_avl_t* tree, uint32_t /*flags*/) {
    if (tree == nullptr) return nullptr;
    auto* walk = new (std::nothrow) pkx_avl_walk;
    if (walk == nullptr) return nullptr;
    *walk = pkx_avl_walk{tree, leftmost(tree->root), nullptr, tree->walks};
    if (tree->walks != nullptr) tree->walks->prev_walk = walk;
    tree->walks = walk;
    return walk;
}

void* pkx_avl_walk_next(pkx_avl_walk_t* walk) {
    node_t* n = walk->next;
    if (n == nullptr) return nullptr;
    walk->next = successor(n);
    return entry_of(walk->tree, n);
}

void pkx_avl_walk_end(pkx_avl_walk_t* walk) {
    if (walk == nullptr) return;
    if (walk->prev_walk != nullptr)
        walk->prev_walk->next_walk = walk->next_walk;
    else
        walk->tree->walks = walk->next_walk;
    if (walk->next_walk != nullptr) walk->next_walk->prev_walk = walk->prev_walk;
    delete walk;
}

void* pkx_zalloc(size_t size) { return std::calloc(1, size); }
