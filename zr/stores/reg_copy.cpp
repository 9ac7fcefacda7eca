#include "zr/stores/reg_copy.h"

#include <platform/base.h>

#include <utility>
#include <vector>

#include "zr/base/input_file.h"
#include "zr/base/text.h"
#include "zr/regfile/reader.h"

namespace zr {
namespace {

constexpr int kMostTries = 5;

// The path of a key below another one; nothing when it is not there.
std::optional<std::u16string> path_below(const RegPath& key, const RegPath& top) {
    if (key.root != top.root) return std::nullopt;
    if (top.below.empty()) return key.below;
    const std::u16string head = key.below.substr(0, top.below.size());
    if (lstrcmpiW(head.c_str(), top.below.c_str()) != 0) return std::nullopt;
    if (key.below.size() == head.size()) return u"";
    if (key.below[head.size()] != u'\\') return std::nullopt;
    return key.below.substr(head.size() + 1);
}

// A key brings those above it along.
RegValues& key_at(RegContents& contents, const std::u16string& path) {
    for (std::size_t cut = path.find(u'\\'); cut != std::u16string::npos; cut = path.find(u'\\', cut + 1)) {
        contents[path.substr(0, cut)];
    }
    contents[u""];
    return contents[path];
}

void drop_key(RegContents& contents, const RegPath& gone, const RegPath& top) {
    for (auto each = contents.begin(); each != contents.end();) {
        RegPath path = top;
        if (!each->first.empty()) path = reg_child(top, each->first);
        each = path_below(path, gone) ? contents.erase(each) : std::next(each);
    }
}

void add_statement(const RegStatement& statement, const RegPath& top, RegPath& at, RegContents& contents) {
    using Kind = RegStatement::Kind;
    if (statement.kind == Kind::DeletedKey) return drop_key(contents, statement.key, top);
    if (statement.kind == Kind::Key) at = statement.key;
    const std::optional<std::u16string> below = path_below(at, top);
    if (!below) return;
    RegValues& values = key_at(contents, *below);
    if (statement.kind == Kind::Value) values.insert_or_assign(statement.name, statement.value);
    if (statement.kind == Kind::DeletedValue) values.erase(statement.name);
}

void add_changes(const RegContents& contents, const RegPath& to, std::vector<RegPath>& paths,
                 std::vector<ZrRegistryChange>& changes) {
    paths.reserve(contents.size());
    for (const auto& [below, values] : contents) {
        paths.push_back(below.empty() ? to : reg_child(to, below));
        const RegPath& path = paths.back();
        const HKEY root = root_handle(path.root);
        changes.push_back({ZrRegistryStep::CreateKey, root, path.below.c_str(), nullptr, 0, nullptr, 0});
        for (const auto& [name, value] : values) {
            changes.push_back({ZrRegistryStep::SetValue, root, path.below.c_str(), name.c_str(), value.type,
                               reinterpret_cast<const BYTE*>(value.data.data()),
                               static_cast<DWORD>(value.data.size())});
        }
    }
}

}  // namespace

bool RegNameLess::operator()(const std::u16string& a, const std::u16string& b) const {
    return lstrcmpiW(a.c_str(), b.c_str()) < 0;
}

RegContents contents_of(const RegKey& key) {
    RegContents contents;
    walk_reg_tree(key, [&](const RegPath& path, const std::vector<NamedRegValue>& values, int) {
        RegValues& all = contents[*path_below(path, key.path())];
        for (const NamedRegValue& each : values) {
            all.emplace(each.name, each.value);
        }
        return true;
    });
    return contents;
}

RegContents contents_in_file(const std::string& name, const RegPath& key) {
    InputFile file(name);
    LineReader lines(file.reader());
    RegReader reader(lines);
    RegStatement statement;
    RegPath at;
    RegContents contents;
    for (;;) {
        std::vector<Problem> problems;
        const RegReader::Result result = reader.next(statement, problems);
        if (result == RegReader::Result::End) break;
        if (result == RegReader::Result::LeftOut)
            throw Failure{Exit::BadRegFile,
                          file.name() + ":" + std::to_string(problems.back().line) + ": " + problems.back().reason};
        add_statement(statement, key, at, contents);
    }
    if (lines.error() != 0) throw file_failure(file.name(), lines.error());
    return contents;
}

void copy_key(const RegPath& from, const RegPath& to, bool move) {
    const std::string doing = (move ? "renaming " : "copying ") + shown(from);
    if (path_below(from, to) || path_below(to, from))
        throw Failure{Exit::Usage,
                      doing + ": " + shown(to) + (from == to ? " is the same key" : " is above or below it")};
    const RegKey key = RegKey::existing(from);
    if (RegKey::open(to)) throw Failure{Exit::Usage, doing + ": " + shown(to) + " is there already"};
    const RegChanges others(key, true);
    RegContents contents = contents_of(key);
    for (int tries = 1; others.came() && tries < kMostTries && others.rearm(); ++tries) {
        contents = contents_of(key);
    }
    std::vector<RegPath> paths;
    std::vector<ZrRegistryChange> changes;
    add_changes(contents, to, paths, changes);
    if (move)
        changes.push_back(
            {ZrRegistryStep::DeleteKey, root_handle(from.root), from.below.c_str(), nullptr, 0, nullptr, 0});
    const LONG result = ZrRegistryApply(changes.data(), static_cast<DWORD>(changes.size()), nullptr);
    if (result != ERROR_SUCCESS) throw reg_failure(result, doing);
    flush_registry();
}

}  // namespace zr
