// The HTML control: its objects and pages, beside the engine's own interface in one process.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>

#include "ZrUtility/Helpers/IPIEHTMLUtilities.h"
#include "platform/base.h"
#include "platform/html.h"
#include "platform/windowing.h"
#include "support/engine_alone.h"

extern char** environ;

namespace {

using zr::test::EngineAlone;

constexpr DWORD kPageTime = 60'000;

// A display for both, so that neither starts one of its own.
class Display {
public:
    static void want() { static const Display display; }

private:
    Display() {
        if (std::getenv("DISPLAY")) return;
        int ready[2];
        if (pipe(ready) != 0) std::abort();
        std::string fd = std::to_string(ready[1]);
        char* const command[] = {
            const_cast<char*>("Xvfb"),      const_cast<char*>("-displayfd"), fd.data(),
            const_cast<char*>("-screen"),   const_cast<char*>("0"),          const_cast<char*>("640x480x24"),
            const_cast<char*>("-nolisten"), const_cast<char*>("tcp"),        nullptr};
        if (posix_spawnp(&server_, command[0], nullptr, nullptr, command, environ) != 0) std::abort();
        close(ready[1]);
        std::string number;
        for (char c = 0; read(ready[0], &c, 1) == 1 && c != '\n';)
            number += c;
        close(ready[0]);
        setenv("DISPLAY", (":" + number).c_str(), 1);
    }
    ~Display() {
        if (server_ <= 0) return;
        kill(server_, SIGTERM);
        waitpid(server_, nullptr, 0);
    }

    pid_t server_ = -1;
};

// A newsletter of usual size.
std::string page() {
    std::string html = "<title>News</title><style>td{font-family:sans-serif;font-size:12px}</style><p id=first>Hello";
    for (int i = 0; i < 200; ++i) {
        html += "<table><tr><td bgcolor=#eeeeee><b>Offer " + std::to_string(i) +
                "</b><td><a href='http://example.org/" + std::to_string(i) + "'>more of it</a></table>";
    }
    return html;
}

class Control {
public:
    Control() {
        Display::want();
        InitHTMLControl(nullptr);
        window_ = CreateWindowExW(0, WC_HTML, nullptr, 0, 0, 0, 240, 320, nullptr, nullptr, nullptr, nullptr);
    }
    ~Control() { DestroyWindow(window_); }
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    bool show(const std::string& html) const {
        SendMessageW(window_, DTM_CLEAR, 0, 0);
        SendMessageW(window_, DTM_ADDTEXT, FALSE, reinterpret_cast<LPARAM>(html.c_str()));
        return SendMessageW(window_, DTM_ENDOFSOURCE, 0, 0) && ZrHtmlWait(window_, kPageTime) == S_OK;
    }

    // The document's body, which the caller releases.
    IDispatchEx* body() const {
        IDispatch* document = nullptr;
        SendMessageW(window_, DTM_DOCUMENTDISPATCH, 0, reinterpret_cast<LPARAM>(&document));
        if (!document) return nullptr;
        WCHAR name[] = u"body";
        LPOLESTR names = name;
        DISPID id = DISPID_UNKNOWN;
        DISPPARAMS none{};
        VARIANT value;
        VariantInit(&value);
        document->GetIDsOfNames(IID_NULL, &names, 1, 0, &id);
        document->Invoke(id, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &value, nullptr, nullptr);
        document->Release();
        IDispatchEx* body = nullptr;
        if (value.vt == VT_DISPATCH) value.pdispVal->QueryInterface(IID_IDispatchEx, reinterpret_cast<void**>(&body));
        VariantClear(&value);
        return body;
    }

private:
    HWND window_;
};

constexpr const char* kBody = "<title>One</title><body id=here><p>text";

void get_string(benchmark::State& state) {
    const Control control;
    if (!control.show(kBody)) return state.SkipWithError("no page");
    IDispatchEx* const body = control.body();
    if (!body) return state.SkipWithError("no body");
    for (auto _ : state) {
        const WCHAR* value = nullptr;
        if (IPIEHTMLUtilities::IPIEHTMLElement__get_id(body, &value) != S_OK || !value)
            state.SkipWithError("no identifier");
        IPIEHTMLUtilities::FreeString(value);
    }
    body->Release();
}

void evaluate_string(benchmark::State& state) {
    Display::want();
    EngineAlone engine;
    engine.show(kBody);
    for (auto _ : state) {
        if (engine.evaluate("document.body.id") != "here") state.SkipWithError("wrong identifier");
    }
}

void round_trip(benchmark::State& state) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return state.SkipWithError("no sockets");
    std::thread peer([end = ends[1]] {
        char bytes[64];
        for (ssize_t size = 0; (size = read(end, bytes, sizeof bytes)) > 0;) {
            if (write(end, bytes, static_cast<std::size_t>(size)) != size) break;
        }
    });
    char bytes[64] = {};
    for (auto _ : state) {
        if (write(ends[0], bytes, sizeof bytes) != sizeof bytes || read(ends[0], bytes, sizeof bytes) <= 0)
            state.SkipWithError("lost");
    }
    close(ends[0]);
    peer.join();
    close(ends[1]);
}

void first_page(benchmark::State& state) {
    const std::string html = page();
    Display::want();
    for (auto _ : state) {
        const Control control;
        if (!control.show(html)) state.SkipWithError("no page");
    }
}

void first_page_alone(benchmark::State& state) {
    const std::string html = page();
    Display::want();
    for (auto _ : state) {
        FILE* const in = tmpfile();
        fwrite(html.data(), 1, html.size(), in);
        rewind(in);
        int out[2];
        if (pipe(out) != 0) return state.SkipWithError("no pipe");
        posix_spawn_file_actions_t streams;
        posix_spawn_file_actions_init(&streams);
        posix_spawn_file_actions_adddup2(&streams, fileno(in), STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&streams, out[1], STDOUT_FILENO);
        char* const command[] = {const_cast<char*>(BENCH_ENGINE_ALONE), nullptr};
        pid_t child = -1;
        posix_spawn(&child, command[0], &streams, nullptr, command, environ);
        close(out[1]);
        char letter = 0;
        if (read(out[0], &letter, 1) != 1) state.SkipWithError("no page");
        state.PauseTiming();
        waitpid(child, nullptr, 0);
        posix_spawn_file_actions_destroy(&streams);
        close(out[0]);
        fclose(in);
        state.ResumeTiming();
    }
}

void later_page(benchmark::State& state) {
    const std::string html = page();
    const Control control;
    for (int i = 0; i < 9; ++i)
        control.show(html);
    for (auto _ : state) {
        if (!control.show(html)) state.SkipWithError("no page");
    }
}

void later_page_alone(benchmark::State& state) {
    const std::string html = page();
    Display::want();
    EngineAlone engine;
    for (int i = 0; i < 9; ++i)
        engine.show(html);
    for (auto _ : state) {
        engine.show(html);
    }
}

BENCHMARK(get_string)->Name("html_get_string/ours")->UseRealTime();
BENCHMARK(evaluate_string)->Name("html_get_string/engine")->UseRealTime();
BENCHMARK(round_trip)->Name("html_socket_round_trip/ours")->UseRealTime();
BENCHMARK(first_page)->Name("html_first_page/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(first_page_alone)->Name("html_first_page/engine")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(later_page)->Name("html_tenth_page/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(later_page_alone)->Name("html_tenth_page/engine")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
