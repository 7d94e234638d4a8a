// The inside of a keyed table, for its tests.
#pragma once

#include <cstdint>
#include <string>

#include "Core/BTree.h"

namespace Veltro::Ravelo {

/// Shows a table's inside. For tests of one thread, so the lock is left alone.
class CBTreeTestAccess {
public:
    /// The tree as text, a node's keys before its children: "(4 (1 2 3) (5 6 7 8))".
    static std::string shape(const CBTree& tree) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
        return tree.m_root ? shape(*tree.m_root) : "";
    }
    static const void* root(const CBTree& tree) PLINTH_NO_THREAD_SAFETY_ANALYSIS { return tree.m_root; }
    static const void* lastChildOfRoot(const CBTree& tree) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
        return tree.m_root->children[tree.m_root->count];
    }
    /// What is wrong with the tree; empty if nothing.
    static std::string fault(const CBTree& tree) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
        std::string found;
        int leaf_depth = -1;
        std::size_t entries = 0;
        check(tree, *tree.m_root, 0, leaf_depth, entries, found);
        if (entries != tree.m_size) found += "size; ";
        return found;
    }

private:
    static std::string shape(const CBTree::SNode& node) {
        std::string text = "(";
        for (unsigned i = 0; i < node.count; ++i) {
            if (i > 0) text += " ";
            text += std::to_string(node.keys[i]);
        }
        for (unsigned i = 0; !node.leaf && i <= node.count; ++i) text += " " + shape(*node.children[i]);
        return text + ")";
    }

    static void check(const CBTree& tree, const CBTree::SNode& node, int depth, int& leaf_depth,
                      std::size_t& entries, std::string& found) {
        entries += node.count;
        if (node.count >= tree.m_order) found += "too many keys; ";
        if (depth > 0 && node.count < tree.minimumKeys()) found += "too few keys; ";
        if (!std::is_sorted(node.keys, node.keys + CBTree::MAX_KEYS)) found += "keys or unused slots; ";
        for (unsigned i = 0; i < CBTree::MAX_KEYS; ++i) {
            if ((node.entries[i] != nullptr) != (i < node.count)) found += "entries; ";
            if (i < node.count && node.entries[i]->key != node.keys[i]) found += "cached key; ";
        }
        for (unsigned i = 0; i < CBTree::MAX_ORDER; ++i) {
            const CBTree::SNode* child = node.children[i];
            if ((child != nullptr) != (!node.leaf && i <= node.count)) found += "children; ";
            if (!child) continue;
            if (i > 0 && child->keys[0] < node.keys[i - 1]) found += "child below its range; ";
            if (i < node.count && child->keys[child->count - 1] > node.keys[i])
                found += "child above its range; ";
            check(tree, *child, depth + 1, leaf_depth, entries, found);
        }
        if (!node.leaf) return;
        if (leaf_depth >= 0 && leaf_depth != depth) found += "leaves of different depth; ";
        leaf_depth = depth;
    }
};

}  // namespace Veltro::Ravelo
