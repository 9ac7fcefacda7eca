#include "bus/system_bus.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/private_bus.h"

namespace {

using namespace zr::platform;
using zr::test::MockService;
using zr::test::PrivateBus;
using Clock = std::chrono::steady_clock;

constexpr const char* kName = "com.example.Counter";
constexpr const char* kPath = "/com/example/Counter";
constexpr int kLong = 60'000;
constexpr std::chrono::seconds kSoon{30};

bool is_same(const BusValue& left, const BusValue& right) {
    return left.type == right.type && left.integer == right.integer && left.real == right.real &&
           left.text == right.text && std::ranges::equal(left.items, right.items, is_same);
}

bool is_loaded(const std::string& library) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) != std::string::npos) return true;
    }
    return false;
}

// A socket at the bus's address that is nobody's.
class FalseBus {
public:
    FalseBus() : listening_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        PrivateBus::socket().string().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listening_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listening_, 16), 0);
    }
    ~FalseBus() {
        close(listening_);
        std::filesystem::remove(PrivateBus::socket());
    }
    int descriptor() const { return listening_; }

private:
    const int listening_;
};

class Listener final : public BusListener {
public:
    ~Listener() { stop_listening_to_bus(*this); }

    void signal(const BusSignal& signal) noexcept override {
        const std::lock_guard guard(mutex_);
        signals_.push_back(signal);
        changed_.notify_all();
    }
    void lost() noexcept override {
        const std::lock_guard guard(mutex_);
        lost_ = true;
        changed_.notify_all();
    }
    bool is_needed() noexcept override {
        ++asked;
        return needed;
    }

    std::optional<BusSignal> wait_signal() {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, kSoon, [&] { return !signals_.empty(); })) return std::nullopt;
        BusSignal first = signals_.front();
        signals_.erase(signals_.begin());
        return first;
    }
    bool wait_lost() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kSoon, [&] { return lost_; });
    }
    std::size_t count() {
        const std::lock_guard guard(mutex_);
        return signals_.size();
    }
    bool was_lost() {
        const std::lock_guard guard(mutex_);
        return lost_;
    }

    std::atomic<bool> needed{true};
    std::atomic<int> asked{0};  // whether it needs the connection

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<BusSignal> signals_;
    bool lost_ = false;
};

template <class Condition>
bool becomes_true(Condition&& condition) {
    const auto end = Clock::now() + kSoon;
    while (!condition()) {
        if (Clock::now() >= end) return false;
        std::this_thread::yield();
    }
    return true;
}

bool bus_thread_runs() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "comm");
        std::string name;
        if (std::getline(file, name) && name == "zr-bus") return true;
    }
    return false;
}

std::set<std::string> open_sockets() {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        if (target.starts_with("socket:")) found.insert(target);
    }
    return found;
}

// Connections that nobody needs end soon.
class ShortIdleness {
public:
    ShortIdleness() { bus_idle_milliseconds = 20; }
    ~ShortIdleness() { bus_idle_milliseconds = before_; }
    ShortIdleness(const ShortIdleness&) = delete;
    ShortIdleness& operator=(const ShortIdleness&) = delete;

private:
    const int before_ = bus_idle_milliseconds;
};

// Told on the thread that forks, before the platform is.
std::atomic<bool> fork_begins{false};

constexpr const char* kRules[] = {"type='signal',interface='com.example.Counter'"};

class SystemBus : public testing::Test {
protected:
    void SetUp() override {
        ZR_NEEDS_BUS(bus_);
        mock_.emplace(kName, kPath, kName);
        ASSERT_EQ(mock_->why(), "");
    }

    BusAnswer call(const std::string& member, std::vector<BusValue> arguments = {}, int milliseconds = kLong) {
        return call_bus({kName, kPath, kName, member, std::move(arguments)}, milliseconds);
    }
    bool emit(const std::string& text) {
        return mock_
                   ->call(MockService::kMock, "EmitSignal",
                          {bus_text(kName), bus_text("Said"), bus_text("s"),
                           bus_array("v", {bus_variant(bus_text(text))})})
                   .result == BusResult::Answered;
    }

    PrivateBus bus_;
    std::optional<MockService> mock_;
};

}  // namespace

TEST_F(SystemBus, CarriesValuesOfAllTypesThereAndBack) {
    ASSERT_TRUE(mock_->add_method(kName, "Echo", "v", "v", "ret = args[0]"));
    const std::vector<BusValue> values = {
        bus_integer(255, 'y'),
        bus_integer(1, 'b'),
        bus_integer(-32768, 'n'),
        bus_integer(65535, 'q'),
        bus_integer(-2147483648LL, 'i'),
        bus_integer(4294967295LL, 'u'),
        bus_integer(INT64_MIN, 'x'),
        bus_integer(-1, 't'),
        BusValue{'d', 0, -0.1, {}, {}},
        bus_text("gr\xC3\xBC\xC3\x9F dich"),
        bus_text("/a/path", 'o'),
        bus_text("a{sv}", 'g'),
        bus_array("s", {bus_text("one"), bus_text("")}),
        bus_array("o", {}),
        bus_array("{sv}", {bus_entry("key", bus_array("i", {bus_integer(7, 'i')}))}),
        BusValue{'r', 0, 0, {}, {bus_integer(1, 'u'), bus_text("two"), bus_array("d", {})}},
    };
    for (const BusValue& value : values) {
        const BusAnswer answer = call("Echo", {bus_variant(value)});
        ASSERT_EQ(answer.result, BusResult::Answered) << value.type;
        ASSERT_NE(answer.first(), nullptr);
        EXPECT_TRUE(is_same(*answer.first(), bus_variant(value))) << value.type;
    }
}

TEST_F(SystemBus, IsRefusedWithTheErrorsName) {
    ASSERT_TRUE(
        mock_->add_method(kName, "Fail", "", "", "raise dbus.exceptions.DBusException('no', name='com.example.No')"));
    const BusAnswer answer = call("Fail");
    EXPECT_EQ(answer.result, BusResult::Refused);
    EXPECT_EQ(answer.error, "com.example.No");
    EXPECT_EQ(call("NotThere").result, BusResult::Refused);
    EXPECT_EQ(call_bus({"com.example.Nobody", kPath, kName, "Fail", {}}).result, BusResult::Refused);
}

TEST_F(SystemBus, RefusesWhatTheBusCannotCarry) {
    EXPECT_EQ(call_bus({"no name", kPath, kName, "Fail", {}}).result, BusResult::Refused);
    EXPECT_EQ(call_bus({kName, "no path", kName, "Fail", {}}).result, BusResult::Refused);
    EXPECT_EQ(call("Fail", {BusValue{}}).result, BusResult::Refused);
    EXPECT_EQ(call("Fail", {bus_text("\xFF")}).result, BusResult::Refused);
    EXPECT_EQ(call("Fail", {bus_array("no type", {})}).result, BusResult::Refused);
    EXPECT_EQ(find_bus_owner(kName).result, BusResult::Answered);
}

TEST_F(SystemBus, ReadsProperties) {
    ASSERT_TRUE(mock_->add_object("/com/example/Counter/1", "com.example.Item",
                                  {bus_entry("Name", bus_text("first")), bus_entry("Count", bus_integer(3, 'u'))}));
    const BusAnswer answer = read_bus_properties(kName, "/com/example/Counter/1", "com.example.Item");
    ASSERT_EQ(answer.result, BusResult::Answered);
    EXPECT_EQ(text_of(answer.first()->find("Name")), "first");
    EXPECT_EQ(integer_of(answer.first()->find("Count")), 3);
    EXPECT_EQ(answer.first()->find("Other"), nullptr);
}

TEST_F(SystemBus, FindsTheOwnerOfANameAndStartsNobody) {
    const BusAnswer answer = find_bus_owner(kName);
    ASSERT_EQ(answer.result, BusResult::Answered);
    EXPECT_TRUE(text_of(answer.first()).starts_with(":"));
    EXPECT_EQ(find_bus_owner("com.example.Nobody").result, BusResult::Refused);
}

TEST_F(SystemBus, WaitsNoLongerThanItMay) {
    mock_->process().stop();
    const auto before = Clock::now();
    EXPECT_EQ(call("Fail", {}, 300).result, BusResult::TimedOut);
    const auto took = Clock::now() - before;
    EXPECT_GE(took, std::chrono::milliseconds(300));
    EXPECT_LT(took, kSoon);
    mock_->process().go_on();
    EXPECT_EQ(call("NotThere").result, BusResult::Refused);
}

TEST_F(SystemBus, AnswersManyThreadsAtOnce) {
    ASSERT_TRUE(mock_->add_method(kName, "Echo", "v", "v", "ret = args[0]"));
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 50; ++round) {
                const BusValue sent = bus_variant(bus_integer(i * 1000 + round, 'i'));
                const BusAnswer answer = call("Echo", {sent});
                EXPECT_TRUE(answer.result == BusResult::Answered && is_same(*answer.first(), sent));
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
}

TEST_F(SystemBus, NoticesThatTheBusDiesInTheMiddleOfACall) {
    ASSERT_TRUE(mock_->add_method(kName, "Hang", "", "", "print('called', flush=True); time.sleep(600)"));
    BusAnswer answer;
    const auto before = Clock::now();
    std::thread caller([&] { answer = call("Hang", {}, 120'000); });
    EXPECT_EQ(mock_->process().line(), "called");
    bus_.daemon().end();
    caller.join();
    EXPECT_EQ(answer.result, BusResult::Lost);
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(100));
    EXPECT_EQ(call("Hang", {}, 1000).result, BusResult::NoBus);
}

TEST_F(SystemBus, NoticesThatTheServiceDiesInTheMiddleOfACall) {
    ASSERT_TRUE(mock_->add_method(kName, "Hang", "", "", "print('called', flush=True); time.sleep(600)"));
    BusAnswer answer;
    std::thread caller([&] { answer = call("Hang", {}, 120'000); });
    EXPECT_EQ(mock_->process().line(), "called");
    mock_->process().end();
    caller.join();
    EXPECT_EQ(answer.result, BusResult::Lost);
}

TEST_F(SystemBus, TellsSignals) {
    Listener listener;
    ASSERT_EQ(listen_to_bus(listener, kRules), BusResult::Answered);
    ASSERT_TRUE(emit("hello"));
    const auto told = listener.wait_signal();
    ASSERT_TRUE(told);
    EXPECT_EQ(told->path, kPath);
    EXPECT_EQ(told->interface, kName);
    EXPECT_EQ(told->member, "Said");
    ASSERT_EQ(told->values.size(), 1u);
    EXPECT_EQ(text_of(&told->values[0]), "hello");
}

TEST_F(SystemBus, TellsWhoStoppedListeningNothingMore) {
    Listener listener;
    Listener stays;
    ASSERT_EQ(listen_to_bus(listener, kRules), BusResult::Answered);
    ASSERT_EQ(listen_to_bus(stays, kRules), BusResult::Answered);
    stop_listening_to_bus(listener);
    ASSERT_TRUE(emit("hello"));
    EXPECT_TRUE(stays.wait_signal());
    EXPECT_EQ(listener.count(), 0u);
}

TEST_F(SystemBus, ListensToNothingWithARuleThatIsNone) {
    Listener listener;
    constexpr const char* rules[] = {kRules[0], "no rule"};
    EXPECT_EQ(listen_to_bus(listener, rules), BusResult::Refused);
    Listener stays;
    ASSERT_EQ(listen_to_bus(stays, kRules), BusResult::Answered);
    ASSERT_TRUE(emit("hello"));
    EXPECT_TRUE(stays.wait_signal());
    EXPECT_EQ(listener.count(), 0u);
}

TEST_F(SystemBus, SaysThatTheBusWasLostAndListensAgainToTheNext) {
    Listener listener;
    ASSERT_EQ(listen_to_bus(listener, kRules), BusResult::Answered);
    bus_.daemon().end();
    EXPECT_TRUE(listener.wait_lost());
    mock_.reset();
    std::filesystem::remove(PrivateBus::socket());
    const PrivateBus next;
    ASSERT_EQ(next.why(), "");
    mock_.emplace(kName, kPath, kName);
    ASSERT_EQ(mock_->why(), "");
    ASSERT_EQ(listen_to_bus(listener, kRules), BusResult::Answered);
    ASSERT_TRUE(emit("again"));
    EXPECT_TRUE(listener.wait_signal());
}

TEST_F(SystemBus, EndsAConnectionThatNobodyNeeds) {
    const ShortIdleness soon;
    Listener listener;
    ASSERT_EQ(listen_to_bus(listener, kRules), BusResult::Answered);
    // As long as somebody needs it the connection stays.
    EXPECT_TRUE(becomes_true([&] { return listener.asked >= 5; }));
    EXPECT_FALSE(listener.was_lost());
    ASSERT_TRUE(emit("hello"));
    EXPECT_TRUE(listener.wait_signal());
    listener.needed = false;
    EXPECT_TRUE(listener.wait_lost());
    EXPECT_TRUE(becomes_true([] { return !bus_thread_runs(); }));
    // The next call makes another one, which ends as well.
    EXPECT_EQ(find_bus_owner(kName, kLong).result, BusResult::Answered);
    EXPECT_TRUE(becomes_true([] { return !bus_thread_runs(); }));
}

TEST_F(SystemBus, DoesNotEndUnderACallThatTakesItsTime) {
    const ShortIdleness soon;
    Listener listener;
    listener.needed = false;
    ASSERT_TRUE(mock_->add_method(kName, "Wait", "", "s", "time.sleep(1); ret = 'done'"));
    const BusAnswer answer = call("Wait");
    ASSERT_EQ(answer.result, BusResult::Answered);
    EXPECT_EQ(text_of(answer.first()), "done");
}

TEST_F(SystemBus, AChildHasAConnectionOfItsOwn) {
    Listener listener;
    ASSERT_EQ(listen_to_bus(listener, kRules), BusResult::Answered);
    ASSERT_TRUE(mock_->add_method(kName, "Echo", "v", "v", "ret = args[0]"));
    const auto echo = [&] { return call("Echo", {bus_variant(bus_text("x"))}).result == BusResult::Answered; };
    // Before it resumes; and then after.
    EXPECT_EQ(zr::test::in_fork([] { return 7; }), 7);
    EXPECT_TRUE(echo());
    EXPECT_EQ(zr::test::in_fork([&] { return echo() && echo() && emit("child") ? 7 : 1; }), 7);
    EXPECT_EQ(zr::test::in_fork([&] { return zr::test::in_fork([&] { return echo() ? 7 : 1; }); }), 7);
    EXPECT_TRUE(echo());
    const auto told = listener.wait_signal();
    ASSERT_TRUE(told);
    EXPECT_EQ(text_of(&told->values[0]), "child");
}

TEST_F(SystemBus, ThreeHundredForksUnderLoad) {
    ASSERT_TRUE(mock_->add_method(kName, "Echo", "v", "v", "ret = args[0]"));
    const auto echo = [&] { return call("Echo", {bus_variant(bus_text("x"))}).result == BusResult::Answered; };
    const zr::test::Load load({[&] { EXPECT_TRUE(echo()); }, [&] { EXPECT_TRUE(echo()); }});
    for (int i = 0; i < 300 / zr::test::kStride; ++i) {
        ASSERT_EQ(zr::test::in_fork([&] { return echo() ? 0 : 1; }), 0) << "fork " << i;
    }
}

TEST_F(SystemBus, LeavesNoDescriptorsWhenTheBusIsGone) {
    mock_.reset();
    bus_.daemon().end();
    EXPECT_EQ(find_bus_owner(kName, kLong).result, BusResult::NoBus);
    const auto files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto before = files();
    for (int i = 0; i < 5; ++i) {
        std::filesystem::remove(PrivateBus::socket());
        Listener listener;
        {
            const PrivateBus next;
            ASSERT_EQ(listen_to_bus(listener, kRules, kLong), BusResult::Answered);
        }
        EXPECT_TRUE(listener.wait_lost());
    }
    const auto end = Clock::now() + kSoon;
    while (files() > before && Clock::now() < end) {
        std::this_thread::yield();
    }
    EXPECT_LE(files(), before);
}

TEST(SystemBusAlone, SaysThatThereIsNoBus) {
    EXPECT_FALSE(may_have_system_bus());
    EXPECT_EQ(find_bus_owner(kName).result, BusResult::NoBus);
    Listener listener;
    EXPECT_EQ(listen_to_bus(listener, kRules), BusResult::NoBus);
}

ZR_CHILD(asks_without_a_bus) {
    if (find_bus_owner(kName).result != BusResult::NoBus) return 1;
    return is_loaded("sdbus") || is_loaded("zrplatform_bus") || is_loaded("libsystemd") ? 2 : 0;
}

TEST(SystemBusAlone, LoadsNothingWithoutABus) {
    EXPECT_EQ(zr::test::Child("asks_without_a_bus").wait(), 0);
}

TEST(SystemBusAlone, ReadsTheAddress) {
    const std::string before = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const std::string file = (zr::test::sandbox() / "state").string();
    const auto may_have = [](const std::string& address) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
        return may_have_system_bus();
    };
    EXPECT_TRUE(may_have("unix:path=" + file));
    EXPECT_TRUE(may_have("unix:path=" + file + ",guid=0123"));
    EXPECT_TRUE(may_have("unix:path=/not/there;unix:path=" + file));
    EXPECT_TRUE(may_have("tcp:host=localhost,port=1"));
    EXPECT_TRUE(may_have("unix:path=/not%20there"));
    EXPECT_FALSE(may_have("unix:path=/not/there;unix:path=/nor/there"));
    EXPECT_FALSE(may_have(""));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", before.c_str(), 1);
}

TEST(SystemBusAlone, DoesNotWaitForABusThatNeverAnswers) {
    std::optional<FalseBus> silent;
    silent.emplace();
    const auto before = Clock::now();
    EXPECT_EQ(find_bus_owner(kName, 300).result, BusResult::TimedOut);
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(300));
    // Those who come meanwhile are told at once.
    EXPECT_EQ(find_bus_owner(kName, 600'000).result, BusResult::TimedOut);
    EXPECT_LT(Clock::now() - before, kSoon);
    silent.reset();  // which ends the attempt
    const PrivateBus bus;
    ZR_NEEDS_BUS(bus);
    const auto end = Clock::now() + kSoon;
    while (find_bus_owner(kName, kLong).result != BusResult::Refused && Clock::now() < end) {
    }
    EXPECT_EQ(find_bus_owner(kName, kLong).result, BusResult::Refused);
}

TEST(SystemBusAlone, AForkWaitsForAConnectionThatIsBeingMade) {
    const FalseBus half;
    const std::set<std::string> before = open_sockets();
    BusAnswer answer;
    std::thread caller([&] { answer = find_bus_owner(kName, kLong); });
    const int peer = accept4(half.descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(peer, 0);
    const std::string own = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(peer)).string();
    pthread_atfork([] { fork_begins = true; }, nullptr, nullptr);
    std::thread ends_it([peer] {
        EXPECT_TRUE(becomes_true([] { return fork_begins.load(); }));
        close(peer);
    });
    const int code = zr::test::in_fork([&] {
        int more = 7;
        for (const std::string& each : open_sockets()) {
            if (each != own && !before.contains(each)) ++more;
        }
        return more;
    });
    EXPECT_EQ(code, 7) << "a connection is left in the child";
    ends_it.join();
    caller.join();
    EXPECT_EQ(answer.result, BusResult::NoBus);
    EXPECT_TRUE(becomes_true([] { return !bus_thread_runs(); }));
}

TEST(SystemBusAlone, OneForkWaitsForABusThatNeverAnswers) {
    std::optional<FalseBus> silent;
    silent.emplace();
    EXPECT_EQ(find_bus_owner(kName, 1).result, BusResult::TimedOut);
    const auto before = Clock::now();
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(zr::test::in_fork([] { return 7; }), 7);
    }
    EXPECT_LT(Clock::now() - before, kSoon);
    silent.reset();  // which ends the attempt
    EXPECT_TRUE(becomes_true([] { return !bus_thread_runs(); }));
}

TEST(SystemBusAlone, TakesNonsenseForNoBus) {
    const FalseBus nonsense;
    std::thread speaker([&] {
        const int peer = accept4(nonsense.descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
        const std::string text(100'000, 'x');
        static_cast<void>(write(peer, text.data(), text.size()));
        close(peer);
    });
    EXPECT_EQ(find_bus_owner(kName, kLong).result, BusResult::NoBus);
    speaker.join();
}
