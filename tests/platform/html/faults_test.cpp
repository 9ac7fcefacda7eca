#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "html/engine_patience.h"
#include "html_support.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;

std::string first_line(const std::filesystem::path& file) {
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line, '\0');
    return line;
}

// The processes that have a folder of an engine of ours as their home.
std::vector<pid_t> engine_processes() {
    const std::string home = "HOME=" + std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")).string() + "/zr-html-";
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::ifstream stream(entry.path() / "environ");
        std::string variable;
        while (std::getline(stream, variable, '\0')) {
            if (variable.compare(0, home.size(), home) != 0) continue;
            found.push_back(std::stoi(name));
            break;
        }
    }
    return found;
}

pid_t engine_itself() {
    for (const pid_t process : engine_processes()) {
        const std::string line = first_line("/proc/" + std::to_string(process) + "/cmdline");
        if (line.ends_with("zr-html-engine")) return process;
    }
    return -1;
}

// What is killed takes a moment to go.
bool until_no_process() {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!engine_processes().empty()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

int folders_left() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::getenv("XDG_RUNTIME_DIR"))) {
        count += entry.path().filename().string().compare(0, 8, "zr-html-") == 0;
    }
    return count;
}

// A script without an end is an error in time, alerts and prints do not hold anything up, and the next document works.
TEST(HtmlFaults, EndlessScriptsEndInTime) {
    {
        HtmlParent parent;
        const HRESULT shown = parent.show(u"<p id=p>one</p>");
        ZR_NEEDS_ENGINE(shown);
        const Ptr<IDispatchEx> document = parent.document();
        ASSERT_TRUE(document);
        EXPECT_EQ(eval(document.get(), u"for (let i = 0; i < 100; i++) { alert(i); print(); confirm(i); } 1", nullptr),
                  S_OK);
        zr::platform::engine_patience().call = 1'000;
        EXPECT_EQ(eval(document.get(), u"for (;;) {}", nullptr), HRESULT_FROM_WIN32(ERROR_TIMEOUT));
        zr::platform::engine_patience().call = 60'000;
        EXPECT_EQ(eval(document.get(), u"1", nullptr), RPC_E_DISCONNECTED);
        EXPECT_EQ(parent.show(u"<p id=p>two</p>"), S_OK);
        EXPECT_TRUE(element(parent.document().get(), u"p"));
        // Killed before, after and during calls and loads.
        std::mt19937 random(4711);
        for (int i = 0; i < 4; ++i) {
            const pid_t engine = engine_itself();
            ASSERT_GT(engine, 0);
            std::thread killer([&, after = random() % 30] {
                std::this_thread::sleep_for(std::chrono::milliseconds(after));
                kill(engine, SIGKILL);
            });
            HRESULT last = S_OK;
            while (SUCCEEDED(last)) {
                const Ptr<IDispatchEx> now = parent.document();
                last = now ? eval(now.get(), u"document.body.innerHTML", nullptr) : RPC_E_DISCONNECTED;
                if (SUCCEEDED(last) && random() % 4 == 0) {
                    last = parent.show(u"<p id=p>more</p>");
                }
            }
            killer.join();
            EXPECT_EQ(last, RPC_E_DISCONNECTED);
            EXPECT_EQ(parent.show(u"<p id=p>again</p>"), S_OK);
        }
        // Closed while it loads.
        SendMessageW(parent.control(), WM_SETTEXT, 0, reinterpret_cast<LPARAM>(u"<img src='cid:x'>"));
    }
    EXPECT_TRUE(until_no_process());
    EXPECT_EQ(folders_left(), 0);
}

// Whatever of its processes goes, whenever: every call returns, and soon a document is shown again.
TEST(HtmlFaults, KilledAtAnyMomentItComesBack) {
    {
        HtmlParent parent;
        const HRESULT shown = parent.show(u"<p id=p>one</p>");
        ZR_NEEDS_ENGINE(shown);
        std::mt19937 random(17);
        for (int i = 0; i < (zr::test::kInstrumented ? 8 : 20); ++i) {
            const std::vector<pid_t> processes = engine_processes();
            ASSERT_FALSE(processes.empty());
            const pid_t victim = processes[random() % processes.size()];
            std::thread killer([victim, after = random() % 20] {
                std::this_thread::sleep_for(std::chrono::milliseconds(after));
                kill(victim, SIGKILL);
            });
            for (int calls = 0; calls < 20; ++calls) {
                if (random() % 3 == 0) parent.show(u"<p id=p><img src='cid:x'>more</p>");
                eval(parent.document().get(), u"document.body.innerHTML", nullptr);
                BYTE* png = nullptr;
                SIZE_T size = 0;
                if (random() % 8 == 0) ZrHtmlDraw(parent.control(), 240, 320, &png, &size);
                CoTaskMemFree(png);
            }
            killer.join();
            bool is_back = false;
            for (int tries = 0; tries < 10 && !is_back; ++tries) {
                is_back = parent.show(u"<p id=again>") == S_OK && element(parent.document().get(), u"again");
            }
            ASSERT_TRUE(is_back) << trouble();
        }
    }
    EXPECT_TRUE(until_no_process());
    EXPECT_EQ(folders_left(), 0);
}

// A document that takes all memory ends, and only it.
TEST(HtmlFaults, AGreedyScriptEnds) {
    HtmlParent parent;
    const HRESULT shown = parent.show(u"<p id=p>one</p>");
    ZR_NEEDS_ENGINE(shown);
    EXPECT_TRUE(FAILED(
        eval(parent.document().get(), u"const all = []; for (;;) all.push(new Uint8Array(1 << 24).fill(1))", nullptr)));
    EXPECT_EQ(parent.show(u"<p id=p>two</p>"), S_OK);
    EXPECT_TRUE(element(parent.document().get(), u"p"));
}

// A forked child's documents are gone and it shows its own; two controls, one of a thread that ends without a word.
TEST(HtmlFaults, ForkedChildrenAndOtherThreadsHaveEnginesOfTheirOwn) {
    {
        HtmlParent parent;
        const HRESULT shown = parent.show(u"<p id=p>one</p>");
        ZR_NEEDS_ENGINE(shown);
        const Ptr<IDispatchEx> document = parent.document();
        ASSERT_TRUE(document);
        EXPECT_EQ(in_fork(
                      [&] {
                          if (eval(document.get(), u"1", nullptr) != RPC_E_DISCONNECTED) return 1;
                          if (parent.document()) return 2;
                          if (parent.show(u"<p id=c>child</p>") != S_OK) return 3;
                          return element(parent.document().get(), u"c") ? 0 : 4;
                      },
                      200),
                  0);
        EXPECT_EQ(eval(document.get(), u"1", nullptr), S_OK);

        std::optional<HtmlParent> other;
        HRESULT there = E_FAIL;
        HRESULT wrong = S_OK;
        Ptr<IDispatchEx> given = element(document.get(), u"p");
        std::thread([&] {
            other.emplace();
            there = other->show(u"<p>two</p>");
            wrong = eval(document.get(), u"1", nullptr);
            given.reset();
        }).join();
        EXPECT_EQ(there, S_OK);
        EXPECT_EQ(wrong, RPC_E_WRONG_THREAD);
        EXPECT_EQ(eval(document.get(), u"1", nullptr), S_OK);
        EXPECT_EQ(ZrHtmlLiveObjects(parent.control()), 1);
    }
    EXPECT_TRUE(until_no_process());
    EXPECT_EQ(folders_left(), 0);
}

// Whoever showed the document has ended: what the engine is told of that while it goes leaves nothing behind.
TEST(HtmlFaults, ToldToGoTimeAndAgainItLeavesNothing) {
    for (int round = 0; round < 3; ++round) {
        const int shown = in_fork(
            [] {
                HtmlParent parent;
                const HRESULT result = parent.show(u"<p>one</p>");
                if (result == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)) return 1;
                const pid_t engine = engine_itself();
                if (FAILED(result) || engine <= 0) return 2;
                if (fork() != 0) _exit(0);
                for (int i = 0; i < 3000 && kill(engine, SIGTERM) == 0; ++i) {
                    usleep(100);
                }
                _exit(0);
            },
            200);
        if (shown == 1) GTEST_SKIP() << "no engine";
        ASSERT_EQ(shown, 0);
        EXPECT_TRUE(until_no_process());
        EXPECT_EQ(folders_left(), 0);
    }
}

// Whatever allocation fails: an error, no object left behind, and with memory again documents are shown.
TEST(HtmlFaults, WithoutMemoryCallsFailAndDocumentsComeBack) {
    HtmlParent parent;
    const HRESULT shown = parent.show(u"<p id=p>one</p>");
    ZR_NEEDS_ENGINE(shown);
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Interfaces);
    int failures = 0;
    const auto work = [&] {
        if (FAILED(parent.begin(u"<title>t</title><p id=p>two</p>"))) return false;
        Ptr<IDispatch> document;
        SendMessageW(parent.control(), DTM_DOCUMENTDISPATCH, 0, reinterpret_cast<LPARAM>(document.out()));
        WCHAR name[] = u"title";
        LPOLESTR names = name;
        DISPID id = DISPID_UNKNOWN;
        if (!document || FAILED(document->GetIDsOfNames(IID_NULL, &names, 1, 0, &id))) return false;
        DISPPARAMS none{};
        Value title;
        const HRESULT got = document->Invoke(id, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &title, nullptr, nullptr);
        return SUCCEEDED(got) && SUCCEEDED(ZrHtmlWait(parent.control(), 60'000));
    };
    parent.told.reserve(100'000);  // ours, not the control's
    bool is_done = false;
    for (int successes = 0; !is_done && successes < 2'000; ++successes) {
        {
            const FailingNew failing(successes);
            is_done = work();
        }
        failures += !is_done;
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Interfaces), before) << successes;
    }
    EXPECT_TRUE(is_done);
    EXPECT_GT(failures, 20);
    EXPECT_EQ(parent.show(u"<p id=p>three</p>"), S_OK);
    EXPECT_TRUE(element(parent.document().get(), u"p"));
}

// Takes all descriptors, and gives them back.
std::vector<int> take_all_descriptors() {
    rlimit tight{};
    getrlimit(RLIMIT_NOFILE, &tight);
    tight.rlim_cur = 64;
    setrlimit(RLIMIT_NOFILE, &tight);
    std::vector<int> taken;
    for (int copy = dup(STDIN_FILENO); copy >= 0; copy = dup(STDIN_FILENO)) {
        taken.push_back(copy);
    }
    return taken;
}

}  // namespace

ZR_CHILD(html_with_few_descriptors) {
    HtmlParent parent;
    std::vector<int> taken = take_all_descriptors();
    for (int room = 0; room < 2; ++room) {  // a socket has two
        if (parent.begin(u"<p id=p>") == S_OK) return 1;
        const DWORD error = GetLastError();
        if (error == ERROR_MOD_NOT_FOUND) return 77;
        if (error != ERROR_TOO_MANY_OPEN_FILES) return 2;
        close(taken.back());
        taken.pop_back();
    }
    for (const int each : taken) {
        close(each);
    }
    const HRESULT shown = parent.show(u"<p id=p>");
    if (shown == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)) return 77;
    return shown == S_OK && element(parent.document().get(), u"p") ? 0 : 3;
}

namespace {

TEST(HtmlFaults, WithoutDescriptorsDocumentsFailAndComeBack) {
#if defined(ZR_SANITIZE_ADDRESS)
    GTEST_SKIP() << "the undefined behaviour sanitizer looks at objects through a pipe of its own";
#endif
    Child child("html_with_few_descriptors");
    const int code = child.wait();
    if (code == 77) GTEST_SKIP() << "no HTML engine";
    EXPECT_EQ(code, 0);
}

}  // namespace
