// Random operations, held against a plain map.

#include <map>
#include <memory>
#include <random>

#include "platform/base.h"
#include "registry_support.h"
#include "support/child.h"

namespace {

using namespace zr::test;

struct NoCase {
    bool operator()(const std::u16string& left, const std::u16string& right) const {
        return _wcsicmp(left.c_str(), right.c_str()) < 0;
    }
};

struct ModelKey {
    std::map<std::u16string, std::pair<DWORD, std::string>, NoCase> values;
    std::map<std::u16string, std::shared_ptr<ModelKey>, NoCase> keys;
    bool deleted = false;

    void remove() {
        deleted = true;
        for (auto& [name, key] : keys) {
            key->remove();
        }
    }
};

class Actor {
public:
    explicit Actor(unsigned seed) : random_(seed), root_(std::make_shared<ModelKey>()) {
        handles_.push_back({create(HKEY_CURRENT_USER, u"model"), root_});
    }

    void step() {
        switch (pick(10)) {
            case 0:
            case 1:
                make();
                break;
            case 2:
                remove_key();
                break;
            case 3:
                remove_value();
                break;
            case 4:
                close();
                break;
            default:
                set_value();
                break;
        }
        look(pick(handles_.size()));
    }

    void compare_all() {
        const Key top = create(HKEY_CURRENT_USER, u"model");
        compare(top, *root_);
        for (std::size_t i = 0; i < handles_.size(); ++i) {
            look(i);
        }
    }

private:
    struct Handle {
        Key key;
        std::shared_ptr<ModelKey> model;
    };

    std::size_t pick(std::size_t count) { return random_() % count; }
    std::u16string name() {
        static const char16_t* const names[] = {u"a", u"B", u"c", u"Ä", u"longer name", u"\xD800", u"e"};
        std::u16string text = names[pick(std::size(names))];
        if (pick(2) == 0) CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
        return text;
    }

    void make() {
        if (handles_.size() > 40) return;
        const std::size_t from = pick(handles_.size());
        const std::u16string one = name();
        const std::u16string two = name();
        Key made;
        DWORD disposition = 0;
        const LONG result = RegCreateKeyExW(handles_[from].key, (one + u"\\" + two).c_str(), 0, nullptr, 0, 0, nullptr,
                                            made.out(), &disposition);
        const auto model = handles_[from].model;
        if (model->deleted) {
            EXPECT_EQ(result, code(ERROR_KEY_DELETED));
            return;
        }
        ASSERT_EQ(result, kOk);
        auto& middle = model->keys[one];
        if (!middle) middle = std::make_shared<ModelKey>();
        auto& last = middle->keys[two];
        EXPECT_EQ(disposition, last ? REG_OPENED_EXISTING_KEY : REG_CREATED_NEW_KEY);
        if (!last) last = std::make_shared<ModelKey>();
        handles_.push_back({std::move(made), last});
    }

    void remove_key() {
        Handle& handle = handles_[pick(handles_.size())];
        const std::u16string which = name();
        const LONG result = RegDeleteKeyW(handle.key, which.c_str());
        const auto found = handle.model->keys.find(which);
        if (handle.model->deleted) {
            EXPECT_EQ(result, code(ERROR_KEY_DELETED));
        } else if (found == handle.model->keys.end()) {
            EXPECT_EQ(result, code(ERROR_FILE_NOT_FOUND));
        } else {
            EXPECT_EQ(result, kOk);
            found->second->remove();
            handle.model->keys.erase(found);
        }
    }

    void set_value() {
        Handle& handle = handles_[pick(handles_.size())];
        const std::u16string which = name();
        const auto type = static_cast<DWORD>(pick(12));
        const std::string data(pick(40), static_cast<char>(pick(256)));
        const LONG result = set(handle.key, which, type, data);
        EXPECT_EQ(result, handle.model->deleted ? code(ERROR_KEY_DELETED) : kOk);
        if (!handle.model->deleted) handle.model->values[which] = {type, data};
    }

    void remove_value() {
        Handle& handle = handles_[pick(handles_.size())];
        const std::u16string which = name();
        const LONG result = RegDeleteValueW(handle.key, which.c_str());
        const bool there = handle.model->values.erase(which) != 0;
        EXPECT_EQ(result, handle.model->deleted ? code(ERROR_KEY_DELETED) : there ? kOk : code(ERROR_FILE_NOT_FOUND));
    }

    void close() {
        if (handles_.size() < 10) return;
        const std::size_t which = 1 + pick(handles_.size() - 1);
        std::swap(handles_[which], handles_.back());
        handles_.pop_back();
    }

    void look(std::size_t which) {
        const Handle& handle = handles_[which];
        const std::u16string wanted = name();
        const Data data = get(handle.key, wanted);
        const auto found = handle.model->values.find(wanted);
        if (handle.model->deleted) {
            EXPECT_EQ(data.result, code(ERROR_KEY_DELETED));
        } else if (found == handle.model->values.end()) {
            EXPECT_EQ(data.result, code(ERROR_FILE_NOT_FOUND));
        } else {
            EXPECT_EQ(data.result, kOk);
            EXPECT_EQ(data.type, found->second.first);
            EXPECT_EQ(data.bytes, found->second.second);
        }
    }

    void compare(HKEY key, const ModelKey& model) {
        std::vector<std::u16string> values;
        for (const auto& [value_name, value] : model.values) {
            values.push_back(value_name);
            EXPECT_EQ(get(key, value_name).bytes, value.second);
        }
        EXPECT_EQ(value_names(key), values);
        std::vector<std::u16string> keys;
        for (const auto& [key_name, lower] : model.keys) {
            keys.push_back(key_name);
            compare(create(key, key_name), *lower);
        }
        EXPECT_EQ(sub_keys(key), keys);
    }

    std::mt19937 random_;
    std::shared_ptr<ModelKey> root_;
    std::vector<Handle> handles_;
};

TEST(Model, AgreesOverRandomOperations) {
    for (unsigned seed = 0; seed < 4; ++seed) {
        RegDeleteKeyW(HKEY_CURRENT_USER, u"model");
        Actor actor(seed);
        for (int i = 0; i < 1500 && !testing::Test::HasFailure(); ++i) {
            actor.step();
        }
        actor.compare_all();
        ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed;
    }
}

// Another process compares what it finds with what it is told, line by line.
ZR_CHILD(model_reader) {
    const Key top = create(HKEY_LOCAL_MACHINE, u"shared");
    say("ready");
    for (std::string line = hear(); !line.empty(); line = hear()) {
        const auto number = static_cast<DWORD>(std::stoul(line));
        const std::u16string name(1 + number % 5, u'n');
        const Key lower = create(top, u"k" + std::u16string(1 + number % 3, u'k'));
        say(get_dword(lower, name) == number ? "yes" : "no");
    }
    return 0;
}

TEST(Model, EveryProcessSeesEachWriteAtOnce) {
    Child one("model_reader");
    Child two("model_reader");
    ASSERT_EQ(one.hear(), "ready");
    ASSERT_EQ(two.hear(), "ready");
    const Key top = create(HKEY_LOCAL_MACHINE, u"shared");
    for (DWORD i = 1; i < 400; ++i) {
        const Key lower = create(top, u"K" + std::u16string(1 + i % 3, u'k'));
        ASSERT_EQ(set_dword(lower, std::u16string(1 + i % 5, u'N'), i), kOk);
        if (i % 50 == 0) {
            ASSERT_EQ(RegDeleteKeyW(top, u"kk"), kOk);
            continue;
        }
        one.say(std::to_string(i));
        two.say(std::to_string(i));
        ASSERT_EQ(one.hear(), "yes") << i;
        ASSERT_EQ(two.hear(), "yes") << i;
    }
}

}  // namespace
