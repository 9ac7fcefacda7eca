// A thousand killed writers, each at another moment.

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <random>

#include "registry_support.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sandbox.h"
#include "support/sql.h"

namespace {

using namespace zr::test;

constexpr int kKills = 1000 / kStride;

// What the writers have told in memory that outlives them.
struct Board {
    std::atomic<DWORD> begun{0};
    std::atomic<DWORD> flushed{0};
};

Board& board() {
    void* const room = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (room) Board;
}

std::string text_of(DWORD number) {
    return std::string(100 + number % 3000, static_cast<char>('a' + number % 26));
}

// Whether it is the text of one of these numbers; there is none before the first.
bool is_text_of(const std::string& text, DWORD first, DWORD last) {
    bool found = text.empty() && first == 0;
    for (DWORD number = first; number <= last && !found; ++number) {
        found = text == text_of(number);
    }
    return found;
}

// Goes on counting where the one before was killed: a number and a text that says the same, a key that comes and goes.
[[noreturn]] void write_until_killed(HKEY key, Board& board, DWORD number) {
    while (true) {
        board.begun = ++number;
        if (set_dword(key, u"number", number) != kOk) _exit(1);
        if (set(key, u"text", REG_BINARY, text_of(number)) != kOk) _exit(1);
        if (number % 2 != 0) {
            if (RegDeleteKeyW(key, u"odd") != kOk) _exit(2);
        } else {
            HKEY made = nullptr;
            if (RegCreateKeyExW(key, u"odd\\deep", 0, nullptr, 0, 0, nullptr, &made, nullptr) != kOk) _exit(3);
            RegCloseKey(made);
        }
        if (RegFlushKey(key) != kOk) _exit(4);
        board.flushed = number;
    }
}

TEST(Faults, KilledWritersLoseNothingThatWasFlushed) {
    std::mt19937 random(1000);
    Board& told = board();
    const Key key = create(HKEY_CURRENT_USER, u"killed");
    create(key, u"odd\\deep");
    ASSERT_EQ(set_dword(key, u"number", 0), kOk);
    for (int i = 0; i < kKills; ++i) {
        const DWORD number = get_dword(key, u"number");
        // An odd number's key is gone; who was killed before that did not come to it.
        if (number % 2 == 0 && !exists(key, u"odd\\deep")) create(key, u"odd\\deep");
        if (number % 2 != 0) RegDeleteKeyW(key, u"odd");
        const DWORD before = told.begun;
        const pid_t writer = zr::test::fork_beside_threads();
        if (writer == 0) write_until_killed(key, told, number);
        while (told.begun == before) {  // it is in the middle of it
        }
        usleep(static_cast<useconds_t>(random() % 1500));
        ASSERT_EQ(kill(writer, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed with " << WEXITSTATUS(status);

        const DWORD now = get_dword(key, u"number");
        ASSERT_TRUE(now == told.begun || now == told.begun - 1) << now << " of " << told.begun;
        ASSERT_GE(now, told.flushed);
        const std::string text = get(key, u"text").bytes;
        ASSERT_TRUE(now == 0 || is_text_of(text, told.flushed, now)) << "half a value, or an old one";
        ASSERT_EQ(exists(key, u"odd"), exists(key, u"odd\\deep")) << "half a tree";
    }
    EXPECT_GT(told.flushed, static_cast<DWORD>(kKills) / 4);
    EXPECT_EQ(query(sandbox_home() / "registry.db", "PRAGMA integrity_check"), "ok");
}

}  // namespace
