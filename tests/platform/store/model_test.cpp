// Random calls of three processes on the registry and the contacts, with kills and forks in between, held against a
// plain map. ZR_MODEL_STEPS says how many (250).

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>

#include "platform/pim/session_support.h"
#include "platform/registry/registry_support.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;

constexpr int kActors = 3;
constexpr int kNames = 12;
constexpr int kLongest = 6000;

std::string content_of(int number) {
    return std::to_string(number) + std::string(static_cast<std::size_t>(number * 37 % kLongest), 'x');
}

// The number whose content this is; "wrong" for any other text.
std::string number_in(const std::string& content) {
    const int number = std::atoi(content.c_str());
    return content == content_of(number) ? std::to_string(number) : "wrong";
}

std::u16string wide(const std::string& text) {
    return {text.begin(), text.end()};
}

// --- the stores, as one of the processes uses them. "ok" or what failed ---

class RegistryUser {
public:
    static std::string set(const std::string& name, int number) {
        const Key key = create(HKEY_CURRENT_USER, u"model of processes");
        return told(zr::test::set(key, wide(name), REG_BINARY, content_of(number)));
    }
    static std::string remove(const std::string& name) {
        const Key key = create(HKEY_CURRENT_USER, u"model of processes");
        return told(RegDeleteValueW(key, wide(name).c_str()));
    }
    static std::map<std::string, std::string> all() {
        const Key key = create(HKEY_CURRENT_USER, u"model of processes");
        std::map<std::string, std::string> found;
        for (const std::u16string& name : value_names(key)) {
            found[{name.begin(), name.end()}] = number_in(get(key, name).bytes);
        }
        return found;
    }

private:
    static std::string told(LONG result) { return result == kOk ? "ok" : "error " + std::to_string(result); }
};

class ContactsUser {
public:
    std::string set(const std::string& name, int number) {
        Ptr<IContact> contact = find(name);
        if (!contact) {
            contact = session_.fresh();
            contact->put_LastName(in(wide(name).c_str()));
        }
        contact->put_Body(in(wide(content_of(number)).c_str()));
        return told(contact->Save());
    }
    std::string remove(const std::string& name) {
        const Ptr<IContact> contact = find(name);
        return contact ? told(contact->Delete()) : "no contact";
    }
    std::map<std::string, std::string> all() {
        std::map<std::string, std::string> found;
        each([&](const std::string& name, Ptr<IContact>& contact) {
            const std::u16string body = text(*contact.get(), &IContact::get_Body);
            std::string& number = found[name];
            number = number.empty() ? number_in({body.begin(), body.end()}) : "twice";
        });
        return found;
    }

private:
    static std::string told(HRESULT result) { return result == S_OK ? "ok" : "error " + std::to_string(result); }

    template <class Visit>
    void each(const Visit& visit) {
        const auto items = session_.items();
        const INT number = count(*items.get());
        for (INT i = 1; i <= number; ++i) {
            Ptr<IContact> contact;
            if (items->Item(i, contact.dispatch()) != S_OK) continue;
            const std::u16string name = text(*contact.get(), &IContact::get_LastName);
            visit({name.begin(), name.end()}, contact);
        }
    }
    Ptr<IContact> find(const std::string& wanted) {
        Ptr<IContact> found;
        each([&](const std::string& name, Ptr<IContact>& contact) {
            if (name == wanted) found = std::move(contact);
        });
        return found;
    }

    TestSession session_;
};

// --- one of the processes ---

class User {
public:
    std::string carry_out(const std::string& line) {
        std::istringstream words(line);
        std::string what;
        std::string store;
        words >> what >> store;
        const bool registry = store == "registry";
        if (what == "all") return list(registry ? RegistryUser::all() : contacts_.all());
        std::string name;
        int number = 0;
        words >> name >> number;
        if (what == "remove") return registry ? RegistryUser::remove(name) : contacts_.remove(name);
        if (what == "set") return set(registry, name, number);
        // fork: the child has the parent's session, and both work at once.
        std::string childs_name;
        int childs_number = 0;
        words >> childs_name >> childs_number;
        const Forked child([&] { return set(registry, childs_name, childs_number) == "ok" ? 0 : 1; });
        const std::string result = set(registry, name, number);
        const int code = child.wait();
        return code == 0 ? result : "the child's " + std::to_string(code);
    }

private:
    std::string set(bool registry, const std::string& name, int number) {
        return registry ? RegistryUser::set(name, number) : contacts_.set(name, number);
    }
    static std::string list(const std::map<std::string, std::string>& all) {
        std::string text;
        for (const auto& [name, number] : all) {
            text += name + "=" + number + ";";
        }
        return text + ".";
    }

    ContactsUser contacts_;
};

ZR_CHILD(store_user) {
    User user;
    zr::test::say("ready");
    for (std::string line = zr::test::hear(); !line.empty(); line = zr::test::hear()) {
        zr::test::say(user.carry_out(line));
    }
    return 0;
}

// --- the model ---

using Model = std::map<std::string, int>;

std::string text_of(const Model& model) {
    std::string text;
    for (const auto& [name, number] : model) {
        text += name + "=" + std::to_string(number) + ";";
    }
    return text + ".";
}

class Players {
public:
    Players() {
        for (auto& user : users_) {
            begin(user);
        }
    }

    void step() {
        const std::string store = pick(2) == 0 ? "registry" : "contacts";
        Model& model = models_[store];
        std::unique_ptr<Child>& user = users_[pick(kActors)];
        const std::string name = name_by_chance();
        const int number = ++number_;
        switch (pick(8)) {
            case 0:
                if (!model.contains(name)) return;
                expect_ok(*user, "remove " + store + " " + name);
                model.erase(name);
                break;
            case 1: {
                std::string other = name_by_chance();
                if (other == name) return;
                const int others = ++number_;
                expect_ok(*user, "fork " + store + " " + name + " " + std::to_string(number) + " " + other + " " +
                                     std::to_string(others));
                model[name] = number;
                model[other] = others;
                break;
            }
            case 2:
                kill_in_the_middle(user, store, name, number);
                return;
            default:
                expect_ok(*user, "set " + store + " " + name + " " + std::to_string(number));
                model[name] = number;
                break;
        }
        EXPECT_EQ(ask(*users_[pick(kActors)], "all " + store), text_of(model)) << number;
    }

    void compare_all() {
        for (auto& [store, model] : models_) {
            for (auto& user : users_) {
                EXPECT_EQ(ask(*user, "all " + store), text_of(model));
            }
        }
    }

private:
    std::size_t pick(std::size_t count) { return random_() % count; }
    std::string name_by_chance() { return "n" + std::to_string(pick(kNames)); }

    static void begin(std::unique_ptr<Child>& user) {
        user = std::make_unique<Child>("store_user");
        ASSERT_EQ(user->hear(), "ready");
    }
    static std::string ask(Child& user, const std::string& line) {
        user.say(line);
        return user.hear();
    }
    static void expect_ok(Child& user, const std::string& line) { EXPECT_EQ(ask(user, line), "ok") << line; }

    // What it was doing is done or not, and nothing else.
    void kill_in_the_middle(std::unique_ptr<Child>& user, const std::string& store, const std::string& name,
                            int number) {
        user->say("set " + store + " " + name + " " + std::to_string(number));
        for (std::size_t turns = pick(400000); turns > 0; --turns) {
            asm volatile("");
        }
        user->kill(SIGKILL);
        user->wait();
        begin(user);
        Model& model = models_[store];
        Model after = model;
        after[name] = number;
        const std::string found = ask(*users_[pick(kActors)], "all " + store);
        EXPECT_TRUE(found == text_of(model) || found == text_of(after)) << found << '\n' << text_of(model);
        if (found == text_of(after)) model = after;
    }

    std::mt19937 random_{20261122};
    std::unique_ptr<Child> users_[kActors];
    std::map<std::string, Model> models_ = {{"registry", {}}, {"contacts", {}}};
    int number_ = 0;
};

int steps() {
    return rounds_wanted("ZR_MODEL_STEPS", 250, 40);
}

TEST(StoreModel, ThreeProcessesWithKillsAndForksAreOneMap) {
    std::filesystem::remove_all(sandbox_home());
    std::filesystem::create_directories(sandbox_home());
    Players players;
    for (int i = 0; i < steps() && !testing::Test::HasFailure(); ++i) {
        players.step();
    }
    players.compare_all();
}

}  // namespace
