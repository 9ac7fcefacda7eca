#pragma once

// The registry as this process has it in memory: what was read of it, kept as new as the store.
//
// A key's sub-keys and its values are read whole when they are first asked for. After that only changes are read: the
// change log names them (changes.h), and follow() reads them: before anything is looked at the store brings all that is
// here up to the last commit of any process. What is read from the store after that may be newer; what is here is never
// older.
//
// Used with the store's reading lock held. May throw std::bad_alloc; then forget() must be called.

#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "changes.h"
#include "kernel/handle_table.h"
#include "names.h"
#include "schema.h"
#include "store/sqlite.h"

namespace zr::platform::registry {

struct Value {
    std::u16string folded;
    std::u16string name;
    DWORD type = 0;
    std::vector<BYTE> data;
};

// A key, and what its handles name. The tree has a reference, and so has every handle: a key that was deleted lives on
// as that.
class Node final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::RegistryKey;

    Node(KeyId id, std::vector<KeyId> parents, std::u16string name);

    // These never change, and may be read without a lock.
    const KeyId id;
    const std::vector<KeyId> parents;
    const std::u16string name;
    const std::u16string folded;
    bool is_root() const { return parents.empty(); }
    bool is_deleted() const { return deleted_.load(std::memory_order_relaxed); }

private:
    friend class Tree;
    ~Node() override = default;

    std::atomic<bool> deleted_{false};
    bool verified_ = true;  // known to be in the store
    bool awaited_ = false;  // made by a batch: it may come into the store yet
    bool has_children_ = false;
    bool has_values_ = false;
    bool has_class_ = false;
    std::size_t value_bytes_ = 0;
    std::vector<Node*> children_;                 // by folded name
    std::vector<std::unique_ptr<Value>> values_;  // by folded name
    std::u16string class_;
};

class Tree {
public:
    enum class Kind {
        Shared,  // its nodes are those that handles name
        Own,     // a batch's
    };
    explicit Tree(Connection& reader, Kind kind = Kind::Shared);
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    // The store is another one than before: no key is any more what it was.
    void start_anew();
    // Takes notice of the changes behind `position`.
    DWORD follow(LONGLONG position);
    // Drops all that was read but for which keys there are. Needs no memory.
    void forget() noexcept;
    // Takes over a change of a value that was read by nobody yet: that this process has committed, the only one since
    // what is here was read; or that the reader's own transaction has made.
    struct OwnChange {
        KeyId key;
        ChangeKind kind;
        std::u16string_view name;
        DWORD type;
        const BYTE* data;
        DWORD size;
    };
    void take_over(const OwnChange& change);
    // The same for a key that came or went by the reader's own transaction, or several of its values.
    void note(const Change& change);
    // Whether the key is known to be there.
    bool has(KeyId id) const;
    // The key of that folded name below a key, 0 where there is none; nothing when the sub-keys were not read.
    std::optional<KeyId> child(KeyId parent, std::u16string_view folded) const;
    // The name of a key that is known to be there; null for any other.
    const std::u16string* name_of(KeyId id) const { return has(id) ? &at_hand(id)->name : nullptr; }

    // This tree's node of a key that a handle names.
    Node& of(Node& named) { return kind_ == Kind::Shared ? named : own_node(named); }
    // The node, for a handle, of a key that another tree knows. `made`: there was none, and until the key is found in
    // the store, or disowned, it counts as deleted.
    Ref<Node> lend(const Node& other, bool& made);
    // What became of the batch that such a node came from.
    void settle(Node& lent, bool kept) noexcept;

    Node& root(std::size_t index) { return *roots_[index]; }
    // ERROR_KEY_DELETED, or nothing.
    DWORD check(Node& node) {
        return node.verified_ ? node.is_deleted() ? ERROR_KEY_DELETED : ERROR_SUCCESS : verify(node);
    }
    // ERROR_FILE_NOT_FOUND when the key or value is not there. What is found is good until the lock is given back.
    DWORD walk(Node& from, LPCWSTR path, Node*& found);
    DWORD value(Node& node, LPCWSTR name, const Value*& found);
    DWORD children(Node& node, const std::vector<Node*>*& children);
    DWORD values(Node& node, const std::vector<std::unique_ptr<Value>>*& values);
    DWORD class_of(Node& node, std::u16string_view& text);
    DWORD longest_class(Node& node, DWORD& length);

    DWORD changes(LONGLONG behind, int limit, std::vector<Change>& changes);

private:
    // A value of a key in memory that has to be read again.
    struct Stale {
        Ref<Node> node;
        std::u16string folded;
    };

    // What was found lately, by the text that was asked for and where it stood: callers ask with the same constants
    // over and over. Good while nothing in the tree has moved.
    template <class Found>
    struct Recent {
        const Node* from = nullptr;
        ULONGLONG moves = 0;
        std::u16string text;
        Found* found = nullptr;

        bool answers(const Node& asked, const WCHAR* name, ULONGLONG now) const {
            if (from != &asked || moves != now) return false;
            for (const WCHAR unit : text) {
                if (*name++ != unit) return false;
            }
            return *name == 0;
        }
    };
    static constexpr std::size_t kRecent = 256;
    static constexpr std::size_t kLongestRecent = 255;
    static std::size_t recent_place(const Node& from, const WCHAR* text) {
        const auto mixed =
            reinterpret_cast<std::uintptr_t>(&from) / 64 * 31 + reinterpret_cast<std::uintptr_t>(text) / 2;
        return (mixed ^ mixed >> 8) % kRecent;
    }
    template <class Found>
    void remember(Recent<Found>& recent, const Node& from, std::u16string_view text, Found* found) noexcept {
        if (text.size() > kLongestRecent) return;
        recent.from = nullptr;
        try {
            recent.text = text;
        } catch (const std::bad_alloc&) {
            return;  // then it is searched for again
        }
        recent.moves = moves_;
        recent.found = found;
        recent.from = &from;
    }

    DWORD search(Node& from, LPCWSTR path, Node*& found);
    void apply(const Change& change, std::vector<Stale>& stale);
    DWORD renew(std::vector<Stale>& stale);
    DWORD renew(const Stale& stale);
    void replace(Node& node, std::u16string_view folded, std::unique_ptr<Value> value);
    DWORD verify(Node& node);
    DWORD load_children(Node& node);
    DWORD load_values(Node& node);
    void drop_values(Node& node) noexcept;
    void add(Node& parent, const Change& change);
    void remove(Node& node) noexcept;
    Node* at_hand(KeyId id) const;
    Node& adopt(KeyId id, const std::vector<KeyId>& parents, std::u16string_view name);
    Node& own_node(Node& named);
    DWORD failed();

    static constexpr std::size_t kMostValueBytes = std::size_t{64} << 20;

    Connection& reader_;
    const Kind kind_;
    Ref<Node> gone_;       // what any deleted key is to a tree of a batch
    ULONGLONG moves_ = 0;  // counts what may have made an answer another one
    std::array<Recent<Node>, kRecent> recent_keys_;
    std::array<Recent<const Value>, kRecent> recent_values_;
    std::size_t value_bytes_ = 0;
    std::unordered_map<KeyId, Ref<Node>> nodes_;  // all but the roots
    std::array<Ref<Node>, kRoots> roots_;
};

}  // namespace zr::platform::registry
