// Random operations on a queue, against a list that does the same the slow way.

#include <algorithm>
#include <deque>
#include <optional>
#include <random>

#include "windowing_support.h"

namespace {

using namespace windowing_test;

struct Entry {
    HWND window;
    UINT message;
    WPARAM number;
};

class Model {
public:
    explicit Model(unsigned seed) : random_(seed) {}
    ~Model() {
        for (const HWND window : tops_)
            DestroyWindow(window);
        drain();
    }
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    void step() {
        const unsigned action = pick(100);
        if (action < 45) {
            post();
        } else if (action < 88) {
            look();
        } else if (action < 92) {
            create();
        } else if (action < 95) {
            destroy();
        } else if (action < 97) {
            PostQuitMessage(static_cast<int>(++number_));
            quit_ = number_;
        } else {
            EXPECT_EQ(HIWORD(GetQueueStatus(QS_ALLINPUT)), entries_.empty() && !quit_ ? 0 : QS_POSTMESSAGE);
        }
    }

private:
    unsigned pick(unsigned count) { return static_cast<unsigned>(random_() % count); }

    std::vector<HWND> windows() const {
        std::vector<HWND> all = tops_;
        for (const auto& [child, parent] : children_)
            all.push_back(child);
        return all;
    }
    HWND any_window() {
        const auto all = windows();
        return all.empty() ? nullptr : all[pick(static_cast<unsigned>(all.size()))];
    }

    void create() {
        if (tops_.size() + children_.size() > 12) return;
        HWND parent = tops_.empty() || pick(2) ? nullptr : tops_[pick(static_cast<unsigned>(tops_.size()))];
        const HWND window = make_window(nullptr, parent);
        ASSERT_NE(window, nullptr);
        if (parent) {
            children_.emplace_back(window, parent);
        } else {
            tops_.push_back(window);
        }
    }

    void forget(HWND window) {
        std::erase_if(entries_, [window](const Entry& entry) { return entry.window == window; });
    }

    void destroy() {
        const HWND window = any_window();
        if (!window) return;
        ASSERT_TRUE(DestroyWindow(window));
        forget(window);
        for (const auto& [child, parent] : children_) {
            if (parent == window) forget(child);
        }
        std::erase_if(children_, [window](const auto& one) { return one.first == window || one.second == window; });
        std::erase(tops_, window);
    }

    void post() {
        const HWND window = pick(4) ? any_window() : nullptr;
        const UINT message = pick(20) ? WM_APP + pick(5) : WM_QUIT;
        ASSERT_TRUE(PostMessageW(window, message, ++number_, 0));
        entries_.push_back({window, message, number_});
    }

    bool passes(const Entry& entry, HWND window, UINT first, UINT last) const {
        if (entry.message != WM_QUIT && !(first == 0 && last == 0) && (entry.message < first || entry.message > last)) {
            return false;
        }
        if (!window) return true;
        if (window == kThreadOnly) return !entry.window;
        return entry.window == window || std::any_of(children_.begin(), children_.end(), [&](const auto& one) {
                   return one.first == entry.window && one.second == window;
               });
    }

    std::optional<Entry> take(HWND window, UINT first, UINT last, bool remove) {
        for (auto at = entries_.begin(); at != entries_.end(); ++at) {
            if (!passes(*at, window, first, last)) continue;
            const Entry found = *at;
            if (remove) entries_.erase(at);
            return found;
        }
        const Entry quit{nullptr, WM_QUIT, quit_};
        if (!quit_) return {};
        if (remove) quit_ = 0;
        return quit;
    }

    void look() {
        const unsigned kind = pick(4);
        const HWND window = kind == 0 ? kThreadOnly : kind == 1 ? any_window() : nullptr;
        const UINT first = pick(2) ? WM_APP + pick(5) : 0;
        const UINT last = first ? first + pick(3) : 0;
        const bool remove = pick(4) != 0;
        MSG message{};
        const bool found = PeekMessageW(&message, window, first, last, remove ? PM_REMOVE : PM_NOREMOVE);
        const auto expected = take(window, first, last, remove);
        ASSERT_EQ(found, expected.has_value());
        if (!expected) return;
        EXPECT_EQ(message.hwnd, expected->window);
        EXPECT_EQ(message.message, expected->message);
        EXPECT_EQ(message.wParam, expected->number);
    }

    const HWND kThreadOnly = reinterpret_cast<HWND>(static_cast<LONG_PTR>(-1));
    std::mt19937 random_;
    std::vector<HWND> tops_;
    std::vector<std::pair<HWND, HWND>> children_;  // and their parents
    std::deque<Entry> entries_;
    WPARAM number_ = 0;
    WPARAM quit_ = 0;
};

}  // namespace

TEST(QueueModel, AgreesOnRandomOperations) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        Model model(seed);
        for (int step = 0; step < 1000; ++step) {
            model.step();
            ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed << ", step " << step;
        }
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}
