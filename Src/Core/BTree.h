// The keyed table: a B-tree from signed 64-bit keys to records that begin with their key.
#pragma once

#include <Plinth/ReadWriteMutex.h>

#include <cstddef>
#include <cstdint>

#include "Event.h"

namespace Veltro::Ravelo {

/// A B-tree with a built-in reader/writer lock; each pool has one of handlers and one of sockets.
///
/// It holds pointers only: entries stay their makers'. The sign of a key tells what a lookup does, before the
/// lock is given back, so that the entry cannot go away under its finder: a socket record (key 0 or more) is
/// returned with its mutex locked, a handler's entry (negative key) with a reference taken on the handler.
///
/// Operations whose names end in Locked are for a caller that holds lock(); all others take it themselves.
/// Lock order: the table before a record's mutex.
class CBTree {
public:
    /// The order that nodes have room for: at most 7 keys and 8 children each.
    static constexpr unsigned MAX_ORDER = 8;
    /// Takes a socket record back when the table goes.
    using EntryDeleter = void (*)(SKeyedEntry* entry);

    /// @param order 4 to MAX_ORDER; a node holds at most order - 1 keys and, except the root, at least
    /// order / 2 - 1.
    /// @param deleter called at destruction for each entry with a key above 0; may be null.
    explicit CBTree(unsigned order = MAX_ORDER, EntryDeleter deleter = nullptr);
    /// Frees the nodes and hands entries with keys above 0 to the deleter. Nobody may use the table any more.
    ~CBTree();
    CBTree(const CBTree&) = delete;
    CBTree& operator=(const CBTree&) = delete;

    /// The table's lock, for CReadGuard and CWriteGuard.
    Plinth::CReadWriteMutex& lock() const PLINTH_RETURN_CAPABILITY(m_lock) { return m_lock; }
    void enterWrite() PLINTH_ACQUIRE(m_lock) { m_lock.enterWrite(); }
    void leaveWrite() PLINTH_RELEASE(m_lock) { m_lock.leaveWrite(); }
    void enterRead() PLINTH_ACQUIRE_SHARED(m_lock) { m_lock.enterRead(); }
    void leaveRead() PLINTH_RELEASE_SHARED(m_lock) { m_lock.leaveRead(); }

    /// Enters a record under its key, which must not change while it is here. Equal keys are not rejected:
    /// look up first.
    /// @param entry must outlive its stay; not null.
    /// @return false if there is no memory for a node; then the entry is not in the table.
    bool insert(SKeyedEntry* entry) PLINTH_EXCLUDES(m_lock);
    bool insertLocked(SKeyedEntry* entry) PLINTH_REQUIRES(m_lock);

    /// Takes a record out. @return the record, which is not freed; null if there was none.
    SKeyedEntry* erase(std::int64_t key) PLINTH_EXCLUDES(m_lock);
    SKeyedEntry* eraseLocked(std::int64_t key) PLINTH_REQUIRES(m_lock);

    /// Looks a record up and keeps it for the caller: with its mutex locked (key 0 or more: unlock it), or
    /// with a reference on its handler (negative key: DecRef() it). May wait for a record's mutex.
    /// @return null if there is none.
    SKeyedEntry* find(std::int64_t key) PLINTH_EXCLUDES(m_lock);
    SKeyedEntry* findLocked(std::int64_t key) PLINTH_REQUIRES_SHARED(m_lock);

    /// find() in a table of sockets. @param fd 0 or more. @return the record with its mutex locked, or null.
    SEvent* findSock(std::int64_t fd) PLINTH_EXCLUDES(m_lock);
    SEvent* findSockLocked(std::int64_t fd) PLINTH_REQUIRES_SHARED(m_lock);
    /// find() in a table of handlers. @param id negative. @return the handler with a reference taken, or
    /// null.
    CNetHandler* findObject(std::int64_t id) PLINTH_EXCLUDES(m_lock);

    /// Looks a record up without locking it or taking a reference; it is safe only as long as the caller
    /// holds the table's lock.
    SKeyedEntry* peekLocked(std::int64_t key) const PLINTH_REQUIRES_SHARED(m_lock);

    /// How many entries the table holds.
    std::size_t size() const PLINTH_REQUIRES_SHARED(m_lock) { return m_size; }

    /// Calls visitor(SKeyedEntry*) -> bool for each entry in key order until it returns false. The visitor
    /// must not change the table.
    /// @return false if the visitor ended the walk.
    template <typename Visitor>
    bool visit(Visitor&& visitor) const PLINTH_REQUIRES_SHARED(m_lock) {
        return !m_root || walk(*m_root, visitor);
    }

    /// A walk in key order that leaves out what stands behind a closed gate: an entry for which
    /// gate(SKeyedEntry*) -> bool is false is not visited, and neither is the subtree to its left, which the
    /// walk enters only after the gate has opened. visitor(SKeyedEntry*) is called for the others.
    template <typename Gate, typename Visitor>
    void visitGated(Gate&& gate, Visitor&& visitor) const PLINTH_REQUIRES_SHARED(m_lock) {
        if (m_root) walkGated(*m_root, gate, visitor);
    }

private:
    friend class CBTreeTestAccess;

    static constexpr unsigned MAX_KEYS = MAX_ORDER - 1;

    /// Keys, count and kind share the first cache line, which is all that a lookup reads on its way.
    struct alignas(64) SNode {
        std::int64_t keys[MAX_KEYS];  ///< ascending; unused slots hold the greatest key
        std::uint8_t count = 0;
        bool leaf;
        SKeyedEntry* entries[MAX_KEYS] = {};
        SNode* children[MAX_ORDER] = {};  ///< children[i] is left of keys[i]; all null in a leaf

        explicit SNode(bool is_leaf);
        unsigned lowerBound(std::int64_t key) const;
        unsigned upperBound(std::int64_t key) const;
        void insertItem(unsigned index, std::int64_t key, SKeyedEntry* entry, SNode* left_child);
        void removeItem(unsigned index);
        void copyItem(unsigned index, const SNode& from, unsigned from_index);
        void dropTail(unsigned new_count);
    };

    /// What became of a child, and of the item to its right, when the child was given keys to spare.
    struct SRefill {
        SNode* child;          ///< where the child's keys are now
        bool item_moved_down;  ///< the item is in the child now, no longer in the parent
        unsigned item_index;   ///< the item's place in the child or in the parent
    };

    bool isFull(const SNode& node) const { return node.count + 1U == m_order; }
    unsigned minimumKeys() const { return m_order / 2U - 1U; }

    bool splitRoot() PLINTH_REQUIRES(m_lock);
    bool splitChild(SNode& parent, unsigned index) PLINTH_REQUIRES(m_lock);
    static void splitInto(SNode& parent, unsigned index, SNode& new_node);

    SKeyedEntry* eraseItem(SNode* node, unsigned index) PLINTH_REQUIRES(m_lock);
    SNode* enterForErase(SNode& parent, unsigned index) PLINTH_REQUIRES(m_lock);
    SRefill refillChild(SNode& parent, unsigned index) PLINTH_REQUIRES(m_lock);
    static void rotateFromLeft(SNode& parent, unsigned index);
    static void rotateFromRight(SNode& parent, unsigned index);
    SNode* mergeChildren(SNode* parent, unsigned index) PLINTH_REQUIRES(m_lock);

    void destroy(SNode* node);

    template <typename Visitor>
    static bool walk(const SNode& node, Visitor& visitor) {
        for (unsigned i = 0; i < node.count; ++i) {
            if (!node.leaf && !walk(*node.children[i], visitor)) return false;
            if (!visitor(node.entries[i])) return false;
        }
        return node.leaf || walk(*node.children[node.count], visitor);
    }

    template <typename Gate, typename Visitor>
    static void walkGated(const SNode& node, Gate& gate, Visitor& visitor) {
        for (unsigned i = 0; i < node.count; ++i) {
            if (!gate(node.entries[i])) continue;
            if (!node.leaf) walkGated(*node.children[i], gate, visitor);
            visitor(node.entries[i]);
        }
        if (!node.leaf) walkGated(*node.children[node.count], gate, visitor);
    }

    mutable Plinth::CReadWriteMutex m_lock;  ///< guards the tree, not the entries' contents
    SNode* m_root PLINTH_GUARDED_BY(m_lock);
    std::size_t m_size PLINTH_GUARDED_BY(m_lock) = 0;
    const std::uint16_t m_order;
    const EntryDeleter m_deleter;
};

}  // namespace Veltro::Ravelo
