#include "ZrLog/sink.h"

#include <atomic>

namespace zr::log {
namespace {

// Two sinks take turns: visitors count themselves in with the current one, and a replacement fills the other one,
// makes it current and waits for the visitors of the one before. Steady traffic cannot hold a replacement up.
struct Turn {
    std::atomic<ZrLogSink> sink{nullptr};
    std::atomic<void*> context{nullptr};
    std::atomic<int> visitors{0};
};

Turn turns[2];
std::atomic<unsigned> current{0};
constinit thread_local bool inside = false;

Turn& enter() {
    for (;;) {
        const unsigned number = current.load();
        Turn& turn = turns[number & 1];
        turn.visitors.fetch_add(1);
        if (current.load() == number) return turn;
        if (turn.visitors.fetch_sub(1) == 1) turn.visitors.notify_all();
    }
}

void leave(Turn& turn) {
    if (turn.visitors.fetch_sub(1) == 1) turn.visitors.notify_all();
}

}  // namespace

void deliver_to_sink(const ZrLogRecord& record) {
    if (inside) return;
    inside = true;
    Turn& turn = enter();
    if (const ZrLogSink sink = turn.sink.load()) sink(record, turn.context.load());
    leave(turn);
    inside = false;
}

void replace_sink(ZrLogSink sink, void* context) {
    const unsigned number = current.load();
    Turn& next = turns[(number + 1) & 1];
    next.sink = sink;
    next.context = context;
    current.store(number + 1);
    Turn& before = turns[number & 1];
    for (int visitors = before.visitors.load(); visitors != 0; visitors = before.visitors.load()) {
        before.visitors.wait(visitors);
    }
}

void forget_sink_visitors() {
    turns[0].visitors = 0;
    turns[1].visitors = 0;
    inside = false;
}

}  // namespace zr::log
