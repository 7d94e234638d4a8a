#include "BTree.h"

#include <Ravelo/NetHandler.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>

#include "Log.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::int64_t UNUSED_KEY = std::numeric_limits<std::int64_t>::max();

/// Keeps an entry alive for its finder; runs while the table is still locked. The record's mutex stays locked
/// for the caller and only for keys of one sign, which the lock analysis cannot express.
void holdEntry(std::int64_t key, SKeyedEntry* entry) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    if (key >= 0) {
        static_cast<SEvent*>(entry)->mutex.lock();
    } else {
        static_cast<SObjectEntry*>(entry)->handler->AddRef();
    }
}

}  // namespace

// Nodes.

CBTree::SNode::SNode(bool is_leaf) : leaf(is_leaf) {
    std::fill(std::begin(keys), std::end(keys), UNUSED_KEY);
}

/// The first item whose key is not below the given one. Reads every slot, so that no branch depends on data.
unsigned CBTree::SNode::lowerBound(std::int64_t key) const {
    unsigned index = 0;
    for (const std::int64_t slot : keys) index += slot < key ? 1U : 0U;
    return index;
}

/// The first item whose key is above the given one.
unsigned CBTree::SNode::upperBound(std::int64_t key) const {
    unsigned index = 0;
    while (index < count && keys[index] <= key) ++index;
    return index;
}

/// Puts an item before the one at index; its left child comes before the child that was there.
void CBTree::SNode::insertItem(unsigned index, std::int64_t key, SKeyedEntry* entry, SNode* left_child) {
    std::copy_backward(keys + index, keys + count, keys + count + 1);
    std::copy_backward(entries + index, entries + count, entries + count + 1);
    std::copy_backward(children + index, children + count + 1, children + count + 2);
    keys[index] = key;
    entries[index] = entry;
    children[index] = left_child;
    ++count;
}

/// Takes an item out together with its left child.
void CBTree::SNode::removeItem(unsigned index) {
    std::copy(keys + index + 1, keys + count, keys + index);
    std::copy(entries + index + 1, entries + count, entries + index);
    std::copy(children + index + 1, children + count + 1, children + index);
    dropTail(count - 1U);
}

/// Puts another node's key and entry in the place of the item at index; children stay.
void CBTree::SNode::copyItem(unsigned index, const SNode& from, unsigned from_index) {
    keys[index] = from.keys[from_index];
    entries[index] = from.entries[from_index];
}

/// Cuts the items from new_count on, and the children behind them.
void CBTree::SNode::dropTail(unsigned new_count) {
    std::fill(keys + new_count, keys + count, UNUSED_KEY);
    std::fill(entries + new_count, entries + count, nullptr);
    std::fill(children + new_count + 1, children + count + 1, nullptr);
    count = static_cast<std::uint8_t>(new_count);
}

// Life.

CBTree::CBTree(unsigned order, EntryDeleter deleter)
    : m_root(new (std::nothrow) SNode(true)), m_order(static_cast<std::uint16_t>(order)), m_deleter(deleter) {
    RAVELO_ASSERT(order >= 4 && order <= MAX_ORDER);
}

CBTree::~CBTree() {
    if (m_root) destroy(m_root);
}

void CBTree::destroy(SNode* node) {
    for (unsigned i = 0; i < node->count; ++i) {
        if (node->keys[i] > 0 && m_deleter) m_deleter(node->entries[i]);
    }
    for (SNode* child : node->children) {
        if (child) destroy(child);
    }
    delete node;
}

// Lookup.

SKeyedEntry* CBTree::peekLocked(std::int64_t key) const {
    const SNode* node = m_root;
    while (node) {
        const unsigned index = node->lowerBound(key);
        if (index < node->count && node->keys[index] == key) return node->entries[index];
        node = node->children[index];
    }
    return nullptr;
}

SKeyedEntry* CBTree::findLocked(std::int64_t key) {
    SKeyedEntry* entry = peekLocked(key);
    if (entry) holdEntry(key, entry);
    return entry;
}

SKeyedEntry* CBTree::find(std::int64_t key) {
    Plinth::CReadGuard guard(m_lock);
    return findLocked(key);
}

SEvent* CBTree::findSockLocked(std::int64_t fd) {
    RAVELO_ASSERT(fd >= 0);
    return static_cast<SEvent*>(findLocked(fd));
}

SEvent* CBTree::findSock(std::int64_t fd) {
    Plinth::CReadGuard guard(m_lock);
    return findSockLocked(fd);
}

CNetHandler* CBTree::findObject(std::int64_t id) {
    RAVELO_ASSERT(id < 0);
    const auto* entry = static_cast<SObjectEntry*>(find(id));
    // The reference taken keeps the handler, and with it the entry inside its state record.
    return entry ? entry->handler : nullptr;
}

// Insertion: full nodes are split on the way down, so that the leaf's parent always has room.

bool CBTree::insert(SKeyedEntry* entry) {
    Plinth::CWriteGuard guard(m_lock);
    return insertLocked(entry);
}

bool CBTree::insertLocked(SKeyedEntry* entry) {
    const std::int64_t key = entry->key;
    if (!m_root) m_root = new (std::nothrow) SNode(true);
    if (!m_root) return false;
    if (isFull(*m_root) && !splitRoot()) return false;

    SNode* node = m_root;
    while (!node->leaf) {
        unsigned index = node->upperBound(key);
        if (isFull(*node->children[index])) {
            if (!splitChild(*node, index)) return false;
            if (node->keys[index] <= key) ++index;
        }
        node = node->children[index];
    }
    node->insertItem(node->lowerBound(key), key, entry, nullptr);
    ++m_size;
    return true;
}

bool CBTree::splitRoot() {
    std::unique_ptr<SNode> new_root(new (std::nothrow) SNode(false));
    if (!new_root) return false;
    new_root->children[0] = m_root;
    if (!splitChild(*new_root, 0)) return false;
    m_root = new_root.release();
    return true;
}

bool CBTree::splitChild(SNode& parent, unsigned index) {
    auto* new_node = new (std::nothrow) SNode(parent.children[index]->leaf);
    if (!new_node) return false;
    splitInto(parent, index, *new_node);
    return true;
}

/// The new node takes the lower items, the middle one goes up, and the old node keeps the upper ones, so that
/// links to it stay right.
void CBTree::splitInto(SNode& parent, unsigned index, SNode& new_node) {
    SNode& old_node = *parent.children[index];
    const unsigned middle = (old_node.count + 1U) / 2U - 1U;
    for (unsigned i = 0; i < middle; ++i) {
        new_node.insertItem(i, old_node.keys[i], old_node.entries[i], old_node.children[i]);
    }
    new_node.children[middle] = old_node.children[middle];
    parent.insertItem(index, old_node.keys[middle], old_node.entries[middle], &new_node);
    for (unsigned i = 0; i <= middle; ++i) old_node.removeItem(0);
}

// Erasure: a child with the fewest keys allowed is given one more before it is entered.

SKeyedEntry* CBTree::erase(std::int64_t key) {
    Plinth::CWriteGuard guard(m_lock);
    return eraseLocked(key);
}

SKeyedEntry* CBTree::eraseLocked(std::int64_t key) {
    SNode* node = m_root;
    while (node) {
        const unsigned index = node->lowerBound(key);
        if (index < node->count && node->keys[index] == key) return eraseItem(node, index);
        node = node->leaf ? nullptr : enterForErase(*node, index);
    }
    return nullptr;
}

/// Takes the item at index out of node, which has keys to spare or is the root.
SKeyedEntry* CBTree::eraseItem(SNode* node, unsigned index) {
    SKeyedEntry* const erased = node->entries[index];
    while (!node->leaf) {
        const SRefill refill = refillChild(*node, index);
        if (!refill.item_moved_down) {
            // The greatest item below takes the erased one's place.
            SNode* below = refill.child;
            while (!below->leaf) below = enterForErase(*below, below->count);
            node->copyItem(refill.item_index, *below, below->count - 1U);
            below->dropTail(below->count - 1U);
            --m_size;
            return erased;
        }
        node = refill.child;
        index = refill.item_index;
    }
    node->removeItem(index);
    --m_size;
    return erased;
}

CBTree::SNode* CBTree::enterForErase(SNode& parent, unsigned index) {
    return refillChild(parent, index).child;
}

/// Sees to it that the child at index has more keys than the minimum. The parent is freed if it was a root
/// with a single key and its children had to be merged.
CBTree::SRefill CBTree::refillChild(SNode& parent, unsigned index) {
    SNode* const child = parent.children[index];
    const unsigned minimum = minimumKeys();
    if (child->count > minimum) return {child, false, index};
    if (index > 0 && parent.children[index - 1]->count > minimum) {
        rotateFromLeft(parent, index);
        return {child, false, index};
    }
    if (index < parent.count && parent.children[index + 1]->count > minimum) {
        rotateFromRight(parent, index);
        return {child, true, child->count - 1U};
    }
    if (index > 0) return {mergeChildren(&parent, index - 1), false, index - 1};
    return {mergeChildren(&parent, index), true, minimum};
}

/// The left sibling's last item goes up, the one between them comes down as the child's first.
void CBTree::rotateFromLeft(SNode& parent, unsigned index) {
    SNode& child = *parent.children[index];
    SNode& left = *parent.children[index - 1];
    child.insertItem(0, parent.keys[index - 1], parent.entries[index - 1], left.children[left.count]);
    parent.copyItem(index - 1, left, left.count - 1U);
    left.dropTail(left.count - 1U);
}

/// The right sibling's first item goes up, the one between them comes down as the child's last.
void CBTree::rotateFromRight(SNode& parent, unsigned index) {
    SNode& child = *parent.children[index];
    SNode& right = *parent.children[index + 1];
    SNode* const rightmost = child.children[child.count];
    child.insertItem(child.count, parent.keys[index], parent.entries[index], rightmost);
    child.children[child.count] = right.children[0];
    parent.copyItem(index, right, 0);
    right.removeItem(0);
}

/// Makes one node of the children around the item at index and the item itself; the right one stays.
CBTree::SNode* CBTree::mergeChildren(SNode* parent, unsigned index) {
    SNode* const left = parent->children[index];
    SNode* const merged = parent->children[index + 1];
    merged->insertItem(0, parent->keys[index], parent->entries[index], left->children[left->count]);
    for (unsigned i = left->count; i-- > 0;) {
        merged->insertItem(0, left->keys[i], left->entries[i], left->children[i]);
    }
    delete left;
    parent->removeItem(index);
    if (parent->count == 0) {
        RAVELO_ASSERT(m_root == parent);
        m_root = merged;
        delete parent;
    }
    return merged;
}

}  // namespace Veltro::Ravelo
