// Calls under random operations, seen by two processes: what both see, and who owns what, is what a model says.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "modem_lines.h"
#include "support/child.h"
#include "support/instrumented.h"

namespace {

using namespace zr::test;

enum class ModelState { Rings, Waits, Talks, Held };

DWORD line_state(ModelState state) {
    switch (state) {
        case ModelState::Rings:
        case ModelState::Waits:
            return LINECALLSTATE_OFFERING;
        case ModelState::Talks:
            return LINECALLSTATE_CONNECTED;
        default:
            return LINECALLSTATE_ONHOLD;
    }
}

// A process's handles, by the calls' numbers.
class ModelView {
public:
    ModelView() : line_(session_.open(0)) {}

    // "number state owners, ..." in the order of the numbers.
    std::string look() {
        for (const HCALL call : new_calls(line_)) {
            handles_[number_of(call)] = call;
        }
        // Who takes messages is given handles with them.
        for (; taken_ < line_messages().size(); ++taken_) {
            const LineMessage& each = line_messages()[taken_];
            if (each.message != LINE_APPNEWCALL) continue;
            const auto call = static_cast<HCALL>(each.params[1]);
            handles_[number_of(call)] = call;
        }
        std::string text;
        for (auto each = handles_.begin(); each != handles_.end();) {
            const auto [number, call] = *each++;
            const DWORD state = state_of(call);
            if (state == LINECALLSTATE_IDLE) {
                EXPECT_EQ(lineDeallocateCall(call), 0);
                handles_.erase(number);
                continue;
            }
            text += number + " " + std::to_string(state) + " " + std::to_string(owners_of(call)) + ", ";
        }
        return text;
    }
    LONG own(const std::string& number, bool owns) {
        return lineSetCallPrivilege(handles_.at(number), owns ? LINECALLPRIVILEGE_OWNER : LINECALLPRIVILEGE_MONITOR);
    }
    // Waits until it is done.
    LONG ask(LONG (*request)(HCALL, LPCSTR, DWORD), const std::string& number) {
        const std::size_t before = line_messages().size();
        const LONG id = request(handles_.at(number), nullptr, 0);
        if (id < 0) return id;
        const LineMessage* const reply = await_message(LINE_REPLY, before);
        return reply == nullptr ? LINEERR_OPERATIONFAILED : static_cast<LONG>(reply->params[1]);
    }

private:
    static std::string number_of(HCALL call) {
        Roomy<LINECALLINFO> info;
        EXPECT_EQ(lineGetCallInfo(call, &info.all), 0);
        const bool incoming = info.all.dwOrigin == LINECALLORIGIN_INBOUND;
        const std::u16string number = incoming ? text_in(info.all, info.all.dwCallerIDSize, info.all.dwCallerIDOffset)
                                               : text_in(info.all, info.all.dwCalledIDSize, info.all.dwCalledIDOffset);
        return {number.begin(), number.end()};
    }

    const LineSession session_;
    const HLINE line_;
    std::map<std::string, HCALL> handles_;
    std::size_t taken_ = 0;
};

struct ModelCall {
    std::string path;
    ModelState state = ModelState::Rings;
    std::set<int> owners;  // 0: this process, 1: the other
};

}  // namespace

// Does what it hears: look, own N, leave N, answer N, drop N; says what came of it.
ZR_CHILD(model_process) {
    ModelView view;
    say("ready");
    for (std::string line = hear(); !line.empty(); line = hear()) {
        const std::size_t space = line.find(' ');
        const std::string word = line.substr(0, space);
        const std::string number = space == std::string::npos ? "" : line.substr(space + 1);
        if (word == "look") say("now " + view.look());
        if (word == "own" || word == "leave") say(std::to_string(view.own(number, word == "own")));
        if (word == "answer") say(std::to_string(view.ask(lineAnswer, number)));
        if (word == "drop") say(std::to_string(view.ask(lineDrop, number)));
    }
    return 0;
}

TEST_F(OfonoLines, AreSeenAlikeByTwoProcessesWhateverHappens) {
    ModelView view;
    Child other("model_process");
    ASSERT_EQ(other.hear(), "ready");
    std::map<std::string, ModelCall> model;
    std::mt19937 random(20'061);
    int next = 100;
    const auto by = [&](int process, const std::string& word, const std::string& number) -> LONG {
        if (process == 1) {
            other.say(word + " " + number);
            return std::stoi(other.hear());
        }
        if (word == "answer") return view.ask(lineAnswer, number);
        if (word == "drop") return view.ask(lineDrop, number);
        return view.own(number, word == "own");
    };
    for (int step = 0; step < 300 / kStride; ++step) {
        const auto choice = random() % 10;
        if (model.empty() || (choice < 2 && model.size() < 5)) {
            const std::string number = std::to_string(next++);
            const bool waits =
                std::ranges::any_of(model, [](const auto& each) { return each.second.state == ModelState::Talks; });
            const std::string path = modems_->ring(modem_, number, waits ? ModemState::Waiting : ModemState::RingingIn);
            model[number] = {path, waits ? ModelState::Waits : ModelState::Rings, {}};
        } else {
            auto chosen = model.begin();
            std::advance(chosen, random() % model.size());
            const std::string number = chosen->first;
            ModelCall& call = chosen->second;
            const int process = static_cast<int>(random() % 2);
            const bool owns = call.owners.contains(process);
            if (choice < 3) {
                modems_->remove_call(call.path);  // by the other side
                model.erase(chosen);
            } else if (choice < 4 && call.state == ModelState::Talks) {
                modems_->enter(call.path, ModemState::Held);
                call.state = ModelState::Held;
            } else if (choice < 6 && !owns) {
                ASSERT_EQ(by(process, "own", number), 0) << step;
                call.owners.insert(process);
            } else if (choice < 7 && owns) {
                const bool may = call.owners.size() > 1;
                ASSERT_EQ(by(process, "leave", number), may ? 0 : LINEERR_INVALCALLSTATE) << step;
                if (may) call.owners.erase(process);
            } else if (choice < 9) {
                const bool rings = line_state(call.state) == LINECALLSTATE_OFFERING;
                const LONG expected = !owns ? LINEERR_NOTOWNER : rings ? 0 : LINEERR_INVALCALLSTATE;
                ASSERT_EQ(by(process, "answer", number), expected) << step;
                if (expected == 0 && call.state == ModelState::Rings) {
                    call.state = ModelState::Talks;
                } else if (expected == 0) {
                    for (auto& [each, known] : model) {
                        if (known.state == ModelState::Talks) {
                            known.state = ModelState::Held;
                        } else if (known.state == ModelState::Waits) {
                            known.state = ModelState::Talks;
                        }
                    }
                }
            } else {
                ASSERT_EQ(by(process, "drop", number), owns ? 0 : LINEERR_NOTOWNER) << step;
                if (owns) model.erase(number);
            }
        }
        std::string expected;
        for (const auto& [number, call] : model) {
            expected +=
                number + " " + std::to_string(line_state(call.state)) + " " + std::to_string(call.owners.size()) + ", ";
        }
        // Who did not do it himself is told by the bus, which may take a moment.
        std::string seen;
        ASSERT_TRUE(pump_until([&] { return view.look() == expected; })) << step << ": " << expected << view.look();
        EXPECT_TRUE(pump_until([&] {
            other.say("look");
            seen = other.hear();
            return seen == "now " + expected;
        })) << step;
        ASSERT_EQ(seen, "now " + expected) << step;
    }
    other.kill(SIGKILL);
    other.wait();
    for (auto& [number, call] : model) {
        call.owners.erase(1);
    }
    std::string expected;
    for (const auto& [number, call] : model) {
        expected +=
            number + " " + std::to_string(line_state(call.state)) + " " + std::to_string(call.owners.size()) + ", ";
    }
    EXPECT_TRUE(pump_until([&] { return view.look() == expected; }));
}
