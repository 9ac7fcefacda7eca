#include "tree.h"

#include <algorithm>

#include "last_error.h"

namespace zr::platform::registry {
namespace {

std::u16string folded(std::u16string_view name) {
    std::u16string text(name);
    CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

// Where an entry of a folded name is, or would be.
template <class Entries>
auto place_of(Entries& entries, std::u16string_view name) {
    return std::lower_bound(entries.begin(), entries.end(), name,
                            [](const auto& entry, std::u16string_view wanted) { return entry->folded < wanted; });
}

template <class Entries>
auto find(Entries& entries, std::u16string_view name) {
    const auto place = place_of(entries, name);
    return place != entries.end() && (*place)->folded == name ? place : entries.end();
}

template <class Entries>
void sort(Entries& entries) {
    std::sort(entries.begin(), entries.end(),
              [](const auto& left, const auto& right) { return left->folded < right->folded; });
}

std::unique_ptr<Value> read_value(const Statement& row) {
    auto value = std::make_unique<Value>();
    value->folded = row.text(0);
    value->name = row.text(1);
    value->type = static_cast<DWORD>(row.integer(2));
    const std::string_view data = row.blob(3);
    value->data.assign(data.begin(), data.end());
    return value;
}

std::size_t weight(const Value& value) {
    return sizeof(Value) + value.data.size() + (value.folded.size() + value.name.size()) * sizeof(WCHAR);
}

}  // namespace

Node::Node(KeyId number, std::vector<KeyId> above, std::u16string text)
    : Object(kKind), id(number), parents(std::move(above)), name(std::move(text)), folded(registry::folded(name)) {}

Tree::Tree(Connection& reader, Kind kind) : reader_(reader), kind_(kind) {
    for (int i = 0; i < kRoots; ++i) {
        roots_[static_cast<std::size_t>(i)] =
            Ref<Node>::adopt(new Node(kFirstRoot + i, std::vector<KeyId>(), std::u16string()));
    }
}

void Tree::start_anew() {
    forget();
    for (const auto& [id, node] : nodes_) {
        node->deleted_ = true;
        node->verified_ = true;
        node->awaited_ = false;
    }
    nodes_.clear();
}

void Tree::forget() noexcept {
    ++moves_;
    const auto empty = [](Node& node) {
        node.children_.clear();
        node.has_children_ = false;
        node.values_.clear();
        node.has_values_ = false;
        node.value_bytes_ = 0;
    };
    for (const auto& [id, node] : nodes_) {
        empty(*node);
        node->verified_ = false;
    }
    for (const auto& root : roots_) {
        empty(*root);
    }
    value_bytes_ = 0;
}

DWORD Tree::failed() {
    return fail(reader_);
}

Node* Tree::at_hand(KeyId id) const {
    if (id >= kFirstRoot && id < kFirstRoot + kRoots) return roots_[static_cast<std::size_t>(id - kFirstRoot)].get();
    const auto found = nodes_.find(id);
    return found == nodes_.end() ? nullptr : found->second.get();
}

// The node of a key that is in the store, new if need be.
Node& Tree::adopt(KeyId id, const std::vector<KeyId>& parents, std::u16string_view name) {
    Ref<Node>& node = nodes_[id];
    if (node && (node->parents != parents || node->name != name)) {
        // What a batch has made was taken back, and another key has got the number.
        node->deleted_ = true;
        node->verified_ = true;
        node->awaited_ = false;
        node = Ref<Node>();
    }
    if (!node) {
        try {
            node = Ref<Node>::adopt(new Node(id, parents, std::u16string(name)));
        } catch (...) {
            nodes_.erase(id);
            throw;
        }
    }
    node->verified_ = true;
    node->awaited_ = false;
    return *node;
}

Node& Tree::own_node(Node& named) {
    if (named.is_deleted()) {
        if (!gone_) {
            gone_ = Ref<Node>::adopt(new Node(named.id, named.parents, std::u16string()));
            gone_->deleted_ = true;
        }
        return *gone_;
    }
    if (Node* const node = at_hand(named.id)) return *node;
    Node& node = adopt(named.id, named.parents, named.name);
    node.verified_ = false;
    return node;
}

Ref<Node> Tree::lend(const Node& other, bool& made) {
    if (Node* const node = at_hand(other.id)) return Ref<Node>::retain(*node);
    Node& node = adopt(other.id, other.parents, other.name);
    node.verified_ = false;
    node.awaited_ = made = true;
    return Ref<Node>::retain(node);
}

void Tree::settle(Node& lent, bool kept) noexcept {
    if (!std::exchange(lent.awaited_, false) || kept) return;
    lent.deleted_ = true;
    lent.verified_ = true;
    nodes_.erase(lent.id);
}

bool Tree::has(KeyId id) const {
    const Node* const node = at_hand(id);
    return node != nullptr && node->verified_ && !node->is_deleted();
}

std::optional<KeyId> Tree::child(KeyId parent, std::u16string_view folded) const {
    const Node* const node = at_hand(parent);
    if (node == nullptr || !node->has_children_) return std::nullopt;
    const auto found = find(node->children_, folded);
    return found == node->children_.end() ? 0 : (*found)->id;
}

void Tree::note(const Change& change) {
    std::vector<Stale> none;
    apply(change, none);
    if (change.kind != ChangeKind::KeyAdded) return;
    // There is nothing in it yet.
    if (Node* const made = at_hand(change.key)) made->has_children_ = made->has_values_ = true;
}

DWORD Tree::changes(LONGLONG behind, int limit, std::vector<Change>& changes) {
    const Use rows =
        reader_.use("SELECT seq, kind, key, parents, name FROM change WHERE seq > ?1 ORDER BY seq LIMIT ?2");
    if (!rows) return failed();
    rows->bind(1, behind);
    rows->bind(2, static_cast<LONG>(limit));
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        Change change{rows->integer(0), static_cast<ChangeKind>(rows->integer(1)), rows->integer(2), {}, {}};
        const std::string_view parents = rows->blob(3);
        change.parents.resize(parents.size() / sizeof(KeyId));
        if (!parents.empty()) std::memcpy(change.parents.data(), parents.data(), change.parents.size() * sizeof(KeyId));
        change.name = rows->text(4);
        changes.push_back(std::move(change));
    }
    return code == SQLITE_DONE ? ERROR_SUCCESS : failed();
}

DWORD Tree::follow(LONGLONG position) {
    std::vector<Change> news;
    if (const DWORD error = changes(position, -1, news); error != ERROR_SUCCESS) return error;
    std::vector<Stale> stale;
    for (const Change& change : news) {
        apply(change, stale);
    }
    return renew(stale);
}

// Changes may already show in what was read since: each of them is made only where it is not there yet.
void Tree::apply(const Change& change, std::vector<Stale>& stale) {
    if (change.parents.empty() && change.kind <= ChangeKind::KeyRemoved) return;  // no root comes or goes
    Node* const node = at_hand(change.key);
    switch (change.kind) {
        case ChangeKind::KeyAdded:
            if (Node* const parent = at_hand(change.parents.back()); parent != nullptr && parent->has_children_)
                add(*parent, change);
            break;
        case ChangeKind::KeyRemoved:
            if (node != nullptr) remove(*node);
            break;
        case ChangeKind::ValueSet:
        case ChangeKind::ValueRemoved:
            if (node != nullptr && node->has_values_) stale.push_back({Ref<Node>::retain(*node), folded(change.name)});
            break;
        case ChangeKind::ValuesChanged:
            if (node != nullptr && node->has_values_) drop_values(*node);
            break;
    }
}

void Tree::add(Node& parent, const Change& change) {
    const std::u16string name = folded(change.name);
    const auto place = place_of(parent.children_, name);
    const bool taken = place != parent.children_.end() && (*place)->folded == name;
    if (taken && (*place)->id >= change.key) return;  // its like was removed, and made again
    ++moves_;
    Node& node = adopt(change.key, change.parents, change.name);
    const auto at = place_of(parent.children_, name);
    if (taken) {
        *at = &node;
    } else {
        parent.children_.insert(at, &node);
    }
}

void Tree::remove(Node& node) noexcept {
    ++moves_;
    if (Node* const parent = at_hand(node.parents.back()); parent != nullptr && parent->has_children_) {
        const auto at = find(parent->children_, node.folded);
        if (at != parent->children_.end() && *at == &node) parent->children_.erase(at);
    }
    drop_values(node);
    node.children_.clear();
    node.has_children_ = false;
    node.deleted_ = true;
    node.verified_ = true;
    nodes_.erase(node.id);
}

// Many changed values of one key are read with all of its values, when somebody asks for them.
DWORD Tree::renew(std::vector<Stale>& stale) {
    std::erase_if(stale, [](const Stale& each) { return !each.node->has_values_; });
    std::sort(stale.begin(), stale.end(), [](const Stale& left, const Stale& right) {
        return left.node->id != right.node->id ? left.node->id < right.node->id : left.folded < right.folded;
    });
    for (std::size_t i = 0; i < stale.size();) {
        Node& node = *stale[i].node;
        std::size_t end = i;
        while (end < stale.size() && stale[end].node.get() == &node) {
            ++end;
        }
        const std::size_t count = end - i;
        if (count > 32 && count > node.values_.size() / 4) {
            drop_values(node);
            i = end;
        }
        for (; i < end; ++i) {
            if (i + 1 < end && stale[i].folded == stale[i + 1].folded) continue;
            const DWORD error = renew(stale[i]);
            if (error != 0) return error;
        }
    }
    return ERROR_SUCCESS;
}

DWORD Tree::renew(const Stale& stale) {
    const Use row = reader_.use("SELECT folded, name, type, data FROM value WHERE key = ?1 AND folded = ?2");
    if (!row) return failed();
    row->bind(1, stale.node->id);
    row->bind_units(2, stale.folded);
    const int code = row->step();
    if (code != SQLITE_ROW && code != SQLITE_DONE) return failed();
    replace(*stale.node, stale.folded, code == SQLITE_ROW ? read_value(*row) : nullptr);
    return ERROR_SUCCESS;
}

// Puts a value into the place of the one of its name; none takes it away.
void Tree::replace(Node& node, std::u16string_view folded, std::unique_ptr<Value> value) {
    ++moves_;
    auto& values = node.values_;
    const auto place = place_of(values, folded);
    const bool present = place != values.end() && (*place)->folded == folded;
    const std::size_t before = present ? weight(**place) : 0;
    const std::size_t after = value ? weight(*value) : 0;
    if (present && value) {
        *place = std::move(value);
    } else if (present) {
        values.erase(place);
    } else if (value) {
        values.insert(place, std::move(value));
    }
    node.value_bytes_ += after - before;
    value_bytes_ += after - before;
}

void Tree::take_over(const OwnChange& change) {
    Node* const node = at_hand(change.key);
    if (node == nullptr || !node->has_values_) return;
    const std::u16string name = folded(change.name);
    std::unique_ptr<Value> value;
    if (change.kind == ChangeKind::ValueSet) {
        const auto old = find(node->values_, name);
        value = std::make_unique<Value>();
        value->folded = name;
        value->name = old != node->values_.end() ? (*old)->name : change.name;
        value->type = change.type;
        value->data.assign(change.data, change.data + change.size);
    }
    replace(*node, name, std::move(value));
}

DWORD Tree::verify(Node& node) {
    const Use row = reader_.use("SELECT 1 FROM key WHERE id = ?1");
    if (!row) return failed();
    row->bind(1, node.id);
    const int code = row->step();
    if (code == SQLITE_ROW) {
        node.verified_ = true;
        node.awaited_ = false;
        return ERROR_SUCCESS;
    }
    if (code != SQLITE_DONE) return failed();
    if (node.awaited_) return ERROR_KEY_DELETED;
    remove(node);  // its handles keep it
    return ERROR_KEY_DELETED;
}

DWORD Tree::load_children(Node& node) {
    const Use rows = reader_.use("SELECT id, name FROM key WHERE parent = ?1");
    if (!rows) return failed();
    std::vector<KeyId> parents = node.parents;
    parents.push_back(node.id);
    std::vector<Node*> children;
    rows->bind(1, node.id);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        const KeyId id = rows->integer(0);
        if (!can_be_below(id, node.id)) {
            reader_.met_wrong_rows();
            return failed();
        }
        children.push_back(&adopt(id, parents, rows->text(1)));
    }
    if (code != SQLITE_DONE) return failed();
    sort(children);
    ++moves_;
    node.children_ = std::move(children);
    node.has_children_ = true;
    return ERROR_SUCCESS;
}

DWORD Tree::load_values(Node& node) {
    if (value_bytes_ > kMostValueBytes) {
        for (const auto& [id, other] : nodes_) {
            drop_values(*other);
        }
    }
    const Use rows = reader_.use("SELECT folded, name, type, data FROM value WHERE key = ?1");
    if (!rows) return failed();
    rows->bind(1, node.id);
    std::vector<std::unique_ptr<Value>> values;
    std::size_t bytes = 0;
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        values.push_back(read_value(*rows));
        bytes += weight(*values.back());
    }
    if (code != SQLITE_DONE) return failed();
    sort(values);
    ++moves_;
    node.values_ = std::move(values);
    node.has_values_ = true;
    node.value_bytes_ = bytes;
    value_bytes_ += bytes;
    return ERROR_SUCCESS;
}

void Tree::drop_values(Node& node) noexcept {
    ++moves_;
    value_bytes_ -= node.value_bytes_;
    node.value_bytes_ = 0;
    node.values_.clear();
    node.has_values_ = false;
}

DWORD Tree::walk(Node& from, LPCWSTR path, Node*& found) {
    const DWORD error = check(from);
    if (error != ERROR_SUCCESS || path == nullptr) {
        found = &from;
        return error;
    }
    Recent<Node>& recent = recent_keys_[recent_place(from, path)];
    if (recent.answers(from, path, moves_)) {
        found = recent.found;
        return ERROR_SUCCESS;
    }
    const DWORD failure = search(from, path, found);
    if (failure == ERROR_SUCCESS) remember(recent, from, path, found);
    return failure;
}

DWORD Tree::search(Node& from, LPCWSTR path, Node*& found) {
    DWORD error = ERROR_SUCCESS;
    found = &from;
    PathParts parts(path);
    std::u16string_view part;
    while (error == ERROR_SUCCESS && parts.next(part)) {
        const FoldedName name(part);
        if (!name) return ERROR_FILE_NOT_FOUND;
        if (!found->has_children_) error = load_children(*found);
        if (error != ERROR_SUCCESS) return error;
        const auto child = find(found->children_, name.view());
        if (child == found->children_.end()) return ERROR_FILE_NOT_FOUND;
        found = *child;
    }
    return error;
}

DWORD Tree::value(Node& node, LPCWSTR name, const Value*& found) {
    if (name == nullptr) name = u"";
    Recent<const Value>& recent = recent_values_[recent_place(node, name)];
    if (recent.answers(node, name, moves_) && node.verified_ && !node.deleted_) {
        found = recent.found;
        return ERROR_SUCCESS;
    }
    const std::vector<std::unique_ptr<Value>>* all = nullptr;
    const DWORD error = values(node, all);
    if (error != ERROR_SUCCESS) return error;
    const FoldedName wanted(name);
    if (!wanted) return ERROR_FILE_NOT_FOUND;
    const auto value = find(*all, wanted.view());
    if (value == all->end()) return ERROR_FILE_NOT_FOUND;
    found = value->get();
    remember(recent, node, name, found);
    return ERROR_SUCCESS;
}

DWORD Tree::children(Node& node, const std::vector<Node*>*& children) {
    DWORD error = check(node);
    if (error == ERROR_SUCCESS && !node.has_children_) error = load_children(node);
    children = &node.children_;
    return error;
}

DWORD Tree::values(Node& node, const std::vector<std::unique_ptr<Value>>*& values) {
    DWORD error = check(node);
    if (error == ERROR_SUCCESS && !node.has_values_) error = load_values(node);
    values = &node.values_;
    return error;
}

DWORD Tree::class_of(Node& node, std::u16string_view& text) {
    if (const DWORD error = check(node); error != ERROR_SUCCESS) return error;
    if (!node.has_class_) {
        const Use row = reader_.use("SELECT class FROM key WHERE id = ?1");
        if (!row) return failed();
        row->bind(1, node.id);
        const int code = row->step();
        if (code != SQLITE_ROW && code != SQLITE_DONE) return failed();
        if (code == SQLITE_ROW) node.class_ = row->text(0);
        node.has_class_ = true;
    }
    text = node.class_;
    return ERROR_SUCCESS;
}

DWORD Tree::longest_class(Node& node, DWORD& length) {
    const Use row = reader_.use("SELECT max(length(class)) FROM key WHERE parent = ?1");
    if (!row) return failed();
    row->bind(1, node.id);
    if (row->step() != SQLITE_ROW) return failed();
    length = static_cast<DWORD>(static_cast<std::size_t>(row->integer(0)) / sizeof(WCHAR));
    return ERROR_SUCCESS;
}

}  // namespace zr::platform::registry
