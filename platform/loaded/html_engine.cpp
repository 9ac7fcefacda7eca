// The HTML control's engine, a program of its own: WebKitGTK, told over the socket that is its descriptor 3
// (html/engine_protocol.h) what to show and to run. It keeps its files in the folder that is its home, and goes, with
// all that it has started, when the other end of the socket is closed or the thread that started it ends.

#include <fcntl.h>
#include <glib-unix.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <webkit2/webkit2.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "html/engine_protocol.h"
#include "html_objects.h"

namespace {

using namespace zr::platform;

constexpr int kSocket = 3;
constexpr const char* kWorld = "zr";
// Behind this stands the address of an image that only the owner may give.
constexpr const char* kOwnersScheme = "zr-image";
constexpr int kLongestSide = 16384;

struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
};
template <class T>
using Owned = std::unique_ptr<T, Unref>;

struct FreeError {
    void operator()(GError* error) const { g_error_free(error); }
};
using Error = std::unique_ptr<GError, FreeError>;

struct FreeText {
    void operator()(char* text) const { g_free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

// ---- The end ----

// Takes the whole group along. What is left of it is another process's work: the engine's own processes write into the
// folder as long as they live.
[[noreturn]] void leave() {
    static std::atomic_flag left;
    const pid_t group = getpgrp();
    if (!left.test_and_set() && fork() == 0) {
        setsid();
        close(kSocket);  // the control need not wait for what follows
        kill(-group, SIGKILL);
        const char* const folder = std::getenv("HOME");
        std::error_code error;
        // What was killed just now may yet make what is gone already.
        for (int i = 0, gone = 0; i < 1000 && gone < 20 && folder; ++i) {
            std::filesystem::remove_all(folder, error);
            gone = std::filesystem::exists(folder, error) ? 0 : gone + 1;
            usleep(10'000);
        }
        _exit(0);
    }
    // A signal that ends this sleep, as of the owner's end, must not end the one that cleans up: it may not have begun.
    for (unsigned left_to_sleep = 10; left_to_sleep != 0;) {
        left_to_sleep = sleep(left_to_sleep);
    }
    kill(0, SIGKILL);
    _exit(1);
}

int end_asked = -1;

void ask_for_the_end(int) {
    const std::uint64_t one = 1;
    static_cast<void>(!write(end_asked, &one, sizeof one));
}

// What a document may take, in all processes of the engine: fifty megabytes of text become two gigabytes there. The
// engine's own watch stands still while a script runs.
constexpr std::uint64_t kMostMemory = std::uint64_t{3} << 30;
constexpr int kLooksMs = 200;
constexpr int kFirstLooksMs = 20;
constexpr int kFirstLooks = 100;

// What the engine's processes are like.
struct Look {
    std::uint64_t pages = 0;
    std::string network;  // its process
};

// A process, and all that it has started.
void look_at(const std::string& process, Look& look) {
    const std::string folder = "/proc/" + process;
    std::uint64_t whole = 0;
    std::uint64_t pages = 0;
    std::uint64_t shared = 0;  // with the files that they are of
    std::ifstream(folder + "/statm") >> whole >> pages >> shared;
    std::string name;
    std::ifstream(folder + "/comm") >> name;
    look.pages += pages - std::min(pages, shared);
    if (pages > 0 && name == "WebKitNetworkPr") look.network = process;  // as long as names there are
    std::ifstream started(folder + "/task/" + process + "/children");
    for (std::string child; started >> child;) {
        look_at(child, look);
    }
}

// The engine starts its network process anew when that is gone, but what was loading by it loads for ever.
bool is_healthy() {
    static const std::uint64_t most = std::min(kMostMemory / static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)),
                                               static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) / 2);
    static std::string network;
    Look look;
    look_at(std::to_string(getpid()), look);
    const bool has_lost_network = !network.empty() && look.network != network;
    network = look.network;
    return look.pages <= most && !has_lost_network;
}

// Waits beside everything else for the control to go, however busy the engine is. The signal may come to any thread, of
// which the libraries have some before there is a main().
void watch_for_the_end() {
    end_asked = eventfd(0, EFD_CLOEXEC);
    struct sigaction handler {};
    handler.sa_handler = ask_for_the_end;
    handler.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &handler, nullptr);
    std::thread([] {
        std::array<pollfd, 2> ends{{{kSocket, POLLRDHUP, 0}, {end_asked, POLLIN, 0}}};
        int looks = 0;  // often at first, so that no process comes and goes unseen
        while (poll(ends.data(), ends.size(), looks < kFirstLooks ? kFirstLooksMs : kLooksMs) <= 0 && is_healthy()) {
            looks = std::min(looks + 1, kFirstLooks);
        }
        leave();
    }).detach();
}

// ---- The other end of the socket ----

class Channel {
public:
    void begin(void (*receive)(FrameReader& frame)) {
        receive_ = receive;
        fcntl(kSocket, F_SETFL, O_NONBLOCK);
        g_unix_fd_add(kSocket, G_IO_IN, &Channel::readable, this);
    }
    void send(FrameWriter& frame) {
        waiting_.add(frame.finish());
        flush();
    }
    // Before there is a loop.
    static void send_at_once(FrameWriter& frame) {
        const std::string& bytes = frame.finish();
        if (::send(kSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) leave();
    }

private:
    static gboolean readable(gint, GIOCondition, gpointer self) { return static_cast<Channel*>(self)->read(); }
    static gboolean writable(gint, GIOCondition, gpointer self) {
        auto* const channel = static_cast<Channel*>(self);
        channel->writing_ = false;
        channel->flush();
        return G_SOURCE_REMOVE;
    }
    gboolean read() {
        static std::array<char, 1 << 18> room;
        const ssize_t size = recv(kSocket, room.data(), room.size(), MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR)) leave();
        if (size > 0) queue_.add(room.data(), static_cast<std::size_t>(size));
        std::string_view bytes;
        while (queue_.next(bytes)) {
            FrameReader frame(bytes);
            receive_(frame);
        }
        if (queue_.is_bad()) leave();
        return G_SOURCE_CONTINUE;
    }
    void flush() {
        while (!waiting_.empty() && !writing_) {
            const std::string_view rest = waiting_.rest();
            const ssize_t size = ::send(kSocket, rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (size >= 0) {
                waiting_.sent(static_cast<std::size_t>(size));
            } else if (errno == EAGAIN) {
                writing_ = true;
                g_unix_fd_add(kSocket, G_IO_OUT, &Channel::writable, this);
            } else if (errno != EINTR) {
                leave();
            }
        }
    }

    void (*receive_)(FrameReader& frame) = nullptr;
    FrameQueue queue_;
    SendQueue waiting_;
    bool writing_ = false;
};

Channel channel;

void answer(std::uint32_t request, EngineAnswer how, std::string_view what) {
    if (request == 0) return;
    FrameWriter frame(EngineFrame::Answer);
    frame.number(request).number(static_cast<std::uint32_t>(how)).text(what);
    channel.send(frame);
}

void tell(EngineFrame kind, std::uint32_t document, std::string_view text) {
    FrameWriter frame(kind);
    frame.number(document).text(text);
    channel.send(frame);
}

[[noreturn]] void give_up(const std::string& trouble) {
    FrameWriter frame(EngineFrame::Trouble);
    frame.text(trouble);
    Channel::send_at_once(frame);
    leave();
}

// ---- A display ----

// A key for a display of our own, as X clients read it: of any computer, for any display.
std::string write_key() {
    std::string path = std::string(std::getenv("HOME")) + "/key";
    const std::string name = "MIT-MAGIC-COOKIE-1";
    std::string bytes("\xFF\xFF\0\0\0\0\0", 7);
    bytes += static_cast<char>(name.size());
    bytes += name;
    bytes += std::string("\0\x10", 2);
    std::random_device random;
    for (int i = 0; i < 16; ++i) {
        bytes += static_cast<char>(random());
    }
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

// In the child that becomes the display: it goes with us, and tidies up then, so it must not be killed with the rest.
void prepare_display(gpointer parent) {
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != static_cast<pid_t>(reinterpret_cast<intptr_t>(parent))) _exit(1);
}

std::string read_line(int descriptor, int milliseconds) {
    std::string line;
    pollfd ready{descriptor, POLLIN, 0};
    char c = 0;
    while (poll(&ready, 1, milliseconds) > 0 && read(descriptor, &c, 1) == 1 && c != '\n') {
        line += c;
    }
    return c == '\n' ? line : std::string();
}

bool start_display() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    const std::string key = write_key();
    // The number of the pipe's end in the child, which keeps it.
    const std::string end = std::to_string(ends[1]);
    fcntl(ends[1], F_SETFD, 0);
    std::array<const char*, 14> line{"Xvfb", "-displayfd", end.c_str(), "-screen",  "0",   "1024x768x24", "-nolisten",
                                     "tcp",  "-auth",      key.c_str(), "-noreset", "-br", nullptr,       nullptr};
    const auto flags =
        static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_LEAVE_DESCRIPTORS_OPEN | G_SPAWN_STDOUT_TO_DEV_NULL |
                                 G_SPAWN_STDERR_TO_DEV_NULL | G_SPAWN_DO_NOT_REAP_CHILD);
    const bool started = g_spawn_async(nullptr, const_cast<char**>(line.data()), nullptr, flags, prepare_display,
                                       reinterpret_cast<gpointer>(static_cast<intptr_t>(getpid())), nullptr, nullptr);
    close(ends[1]);
    const std::string number = started ? read_line(ends[0], 15'000) : std::string();
    close(ends[0]);
    if (number.empty()) return false;
    setenv("DISPLAY", (":" + number).c_str(), 1);
    setenv("XAUTHORITY", key.c_str(), 1);
    return true;
}

void open_display() {
    if (std::getenv("DISPLAY") && gtk_init_check(nullptr, nullptr)) return;
    if (!start_display()) give_up("the HTML engine needs a display, and there is neither one nor Xvfb (package xvfb)");
    GdkDisplay* const opened = gdk_display_open(std::getenv("DISPLAY"));
    if (opened) gdk_display_manager_set_default_display(gdk_display_manager_get(), opened);
    if (!opened || !gtk_init_check(nullptr, nullptr)) give_up("the HTML engine cannot open its own display");
}

// ---- The page ----

struct Unreference {
    void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};

// What the control wants to be shown.
struct Source {
    std::uint32_t flags = 0;
    int width = 240;
    int height = 320;
    std::string address;
    std::unique_ptr<GBytes, Unreference> text;  // none: what is at the address
};

struct Page {
    WebKitWebContext* context = nullptr;
    WebKitWebView* view = nullptr;
    GtkWidget* window = nullptr;
    std::uint32_t document = 0;
    // Waiting: for the document before to be silent. Only from Committed on is what is shown the document's.
    enum class Stage { Waiting, Asked, Started, Failed, Committed, Done } stage = Stage::Failed;
    bool has_begun = false;  // ever
    bool is_gated = false;
    bool told_ready = false;
    Source source;
    bool remote = false;
    std::string told_title;
    std::uint32_t last_cookie = 0;
    std::map<std::uint32_t, Owned<WebKitURISchemeRequest>> wanted;
};
Page page;

void run(const std::string& script, const char* world, GAsyncReadyCallback done, gpointer data) {
    webkit_web_view_evaluate_javascript(page.view, script.data(), static_cast<gssize>(script.size()), world, nullptr,
                                        nullptr, done, data);
}

struct Request {
    std::uint32_t number;
    std::uint32_t document;
};

bool shows(std::uint32_t document) {
    return document == page.document && page.stage >= Page::Stage::Committed;
}

std::string bytes_of(JSCValue* value) {
    GBytes* const bytes = jsc_value_to_string_as_bytes(value);
    if (!bytes) return {};
    gsize size = 0;
    const void* const data = g_bytes_get_data(bytes, &size);
    std::string text(static_cast<const char*>(data), data ? size : 0);
    g_bytes_unref(bytes);
    return text;
}

// As the objects' script writes values.
std::string written(JSCValue* value) {
    if (jsc_value_is_undefined(value)) return "e";
    if (jsc_value_is_null(value)) return "n";
    if (jsc_value_is_boolean(value)) return jsc_value_to_boolean(value) ? "t" : "f";
    if (jsc_value_is_string(value)) return std::string(1, 's').append(bytes_of(value));
    if (jsc_value_is_number(value)) {
        const double number = jsc_value_to_double(value);
        const bool whole = number == std::floor(number) && std::fabs(number) <= 2147483647.0;
        return std::string(1, whole ? 'i' : 'd').append(bytes_of(value));
    }
    const Text json(jsc_value_to_json(value, 0));
    return json ? std::string("s") + json.get() : "e";
}

void finish(GAsyncResult* result, const Request& request, bool is_own) {
    GError* failed = nullptr;
    const Owned<JSCValue> value(webkit_web_view_evaluate_javascript_finish(page.view, result, &failed));
    const Error error(failed);
    if (!shows(request.document)) return answer(request.number, EngineAnswer::Failed, "");
    if (value) return answer(request.number, EngineAnswer::Done, is_own ? bytes_of(value.get()) : written(value.get()));
    if (g_error_matches(failed, WEBKIT_JAVASCRIPT_ERROR, WEBKIT_JAVASCRIPT_ERROR_INVALID_RESULT) && !is_own) {
        return answer(request.number, EngineAnswer::Done, "e");
    }
    const bool threw = g_error_matches(failed, WEBKIT_JAVASCRIPT_ERROR, WEBKIT_JAVASCRIPT_ERROR_SCRIPT_FAILED);
    answer(request.number, threw ? EngineAnswer::Threw : EngineAnswer::Failed, failed ? failed->message : "");
}

void called(GObject*, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Request> request(static_cast<Request*>(data));
    finish(result, *request, true);
}

void has_run(GObject*, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Request> request(static_cast<Request*>(data));
    finish(result, *request, false);
}

void evaluate(FrameReader& frame, const char* world, GAsyncReadyCallback done) {
    auto request = std::make_unique<Request>();
    request->number = frame.number();
    request->document = frame.number();
    const std::string script(frame.text());
    if (!shows(request->document)) return answer(request->number, EngineAnswer::Failed, "");
    run(script, world, done, request.release());
}

// ---- Loading ----

void tell_ready() {
    if (!std::exchange(page.told_ready, true)) tell(EngineFrame::Ready, page.document, "");
}

void tell_title(const std::string& title) {
    if (title.empty() || title == page.told_title) return;
    page.told_title = title;
    tell(EngineFrame::Title, page.document, title);
}

void title_changed(GObject*, GParamSpec*, gpointer) {
    const char* const title = webkit_web_view_get_title(page.view);
    if (title && shows(page.document)) tell_title(title);
}

void complete() {
    page.stage = page.stage == Page::Stage::Committed ? Page::Stage::Done : Page::Stage::Failed;
    if (page.stage == Page::Stage::Done) tell_ready();
    tell(EngineFrame::Complete, page.document, "");
}

// Without the one who decides what a document may ask for, there must be no document.
void require_gate() {
    if (page.remote || page.is_gated) return;
    FrameWriter frame(EngineFrame::Trouble);
    frame.text("the HTML engine could not load its gate, which keeps documents from the network");
    channel.send(frame);
    leave();
}

// What the gate says comes in its place among what is told of loading.
gboolean gate_spoke(WebKitWebView*, WebKitUserMessage* message, gpointer) {
    const std::string_view said = webkit_user_message_get_name(message);
    if (said == "gate") page.is_gated = true;
    if (said == "ready" && shows(page.document)) {
        GVariant* const title = webkit_user_message_get_parameters(message);
        if (title && g_variant_is_of_type(title, G_VARIANT_TYPE_STRING))
            tell_title(g_variant_get_string(title, nullptr));
        tell_ready();
    }
    return TRUE;
}

// Only the control replaces the document. One that goes elsewhere by itself is held back, and where that comes too late
// there is no document any more that anybody has asked for.
void load_changed(WebKitWebView*, WebKitLoadEvent event, gpointer) {
    const bool is_ours = page.stage == Page::Stage::Asked || page.stage == Page::Stage::Started;
    if (page.stage == Page::Stage::Waiting) return;
    if (event == WEBKIT_LOAD_STARTED) {
        if (is_ours) page.stage = Page::Stage::Started;
        if (!is_ours) webkit_web_view_stop_loading(page.view);
    } else if (event == WEBKIT_LOAD_COMMITTED) {
        if (page.stage != Page::Stage::Started) leave();
        require_gate();
        page.stage = Page::Stage::Committed;
    } else if (event == WEBKIT_LOAD_FINISHED) {
        if (page.stage == Page::Stage::Started || page.stage == Page::Stage::Committed) complete();
    }
}

// No page that says so instead.
gboolean load_failed(WebKitWebView*, WebKitLoadEvent, const char*, GError*, gpointer) {
    return TRUE;
}

void resize(int width, int height) {
    gtk_widget_set_size_request(GTK_WIDGET(page.view), width, height);
    gtk_window_resize(GTK_WINDOW(page.window), width, height);
}

void refuse(WebKitURISchemeRequest* request, gint code, const char* why) {
    const Error error(g_error_new_literal(G_IO_ERROR, code, why));
    webkit_uri_scheme_request_finish_error(request, error.get());
}

void forget_wanted() {
    for (auto& [cookie, request] : page.wanted) {
        refuse(request.get(), G_IO_ERROR_CANCELLED, "the document is gone");
    }
    page.wanted.clear();
}

void show() {
    const Source& source = page.source;
    page.stage = Page::Stage::Asked;
    page.has_begun = true;
    resize(source.width, source.height);
    webkit_settings_set_enable_javascript_markup(webkit_web_view_get_settings(page.view),
                                                 (source.flags & kEngineScripts) != 0);
    if (source.text) {
        const char* const type = (source.flags & kEnginePlainText) != 0 ? "text/plain" : "text/html";
        webkit_web_view_load_bytes(page.view, source.text.get(), type, "UTF-8", source.address.c_str());
    } else {
        webkit_web_view_load_uri(page.view, source.address.c_str());
    }
    page.source.text.reset();
}

void silenced(GObject*, GAsyncResult* result, gpointer) {
    GError* failed = nullptr;
    const Owned<JSCValue> value(webkit_web_view_evaluate_javascript_finish(page.view, result, &failed));
    const Error error(failed);
    show();
}

// The engine tells of a load's progress without saying of which. What was to be said of the one before has been said
// when the process behind it, told to stop it, answers a question.
void begin_document(FrameReader& frame) {
    page.document = frame.number();
    page.source.flags = frame.number();
    page.source.width = static_cast<int>(frame.number());
    page.source.height = static_cast<int>(frame.number());
    forget_wanted();
    page.told_ready = false;
    page.told_title.clear();
}

void begin_when_silent() {
    if (!page.has_begun) return show();
    // Another one may be waiting already, in whose place this one is shown.
    if (std::exchange(page.stage, Page::Stage::Waiting) == Page::Stage::Waiting) return;
    webkit_web_view_stop_loading(page.view);
    run("1", kWorld, silenced, nullptr);
}

void load(FrameReader& frame) {
    begin_document(frame);
    const bool plain = (page.source.flags & kEnginePlainText) != 0;
    std::string_view source = frame.text();
    if (source.empty()) source = plain ? "\n" : "<!DOCTYPE html>";  // of nothing the engine makes no document
    page.source.address = "about:blank";
    page.source.text.reset(g_bytes_new(source.data(), source.size()));
    begin_when_silent();
}

void navigate(FrameReader& frame) {
    begin_document(frame);
    // As the engine will write it.
    const Owned<WebKitURIRequest> request(webkit_uri_request_new(std::string(frame.text()).c_str()));
    page.source.address = webkit_uri_request_get_uri(request.get());
    page.source.text.reset();
    begin_when_silent();
}

// ---- What the document would like ----

bool is_at_hand(std::string_view address) {
    return address.starts_with("about:") || address.starts_with("data:") || address.starts_with("blob:");
}

// What is followed in the document is told.
gboolean decide(WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type, gpointer) {
    if (type == WEBKIT_POLICY_DECISION_TYPE_RESPONSE) {
        if (webkit_response_policy_decision_is_mime_type_supported(WEBKIT_RESPONSE_POLICY_DECISION(decision)))
            return FALSE;
        webkit_policy_decision_ignore(decision);
        return TRUE;
    }
    auto* const navigation = WEBKIT_NAVIGATION_POLICY_DECISION(decision);
    WebKitNavigationAction* const action = webkit_navigation_policy_decision_get_navigation_action(navigation);
    const char* const address = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
    const bool is_link = webkit_navigation_action_get_navigation_type(action) == WEBKIT_NAVIGATION_TYPE_LINK_CLICKED;
    if (type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION || is_link) {
        if (shows(page.document)) tell(EngineFrame::Link, page.document, address ? address : "");
        webkit_policy_decision_ignore(decision);
        return TRUE;
    }
    // Where the document wants to go by itself, there is nothing: it would be replaced by that. As long as it is not
    // there, whoever wants to go elsewhere is the one before.
    const bool may_go = address && (shows(page.document) ? is_at_hand(address) : page.source.address == address);
    if (!page.remote && !may_go) {
        webkit_policy_decision_ignore(decision);
        return TRUE;
    }
    webkit_policy_decision_use(decision);
    return TRUE;
}

void want(WebKitURISchemeRequest* request, gpointer) {
    // The document before may still want something.
    if (!shows(page.document)) return refuse(request, G_IO_ERROR_CANCELLED, "the document is gone");
    std::string address = webkit_uri_scheme_request_get_uri(request);
    const std::string owners = std::string(kOwnersScheme) + ":";
    if (address.rfind(owners, 0) == 0) address.erase(0, owners.size());
    const std::uint32_t cookie = ++page.last_cookie;
    page.wanted.emplace(cookie, static_cast<WebKitURISchemeRequest*>(g_object_ref(request)));
    FrameWriter frame(EngineFrame::Wanted);
    frame.number(page.document).number(cookie).text(address);
    channel.send(frame);
}

void give_image(FrameReader& frame) {
    const auto found = page.wanted.find(frame.number());
    const bool is_there = frame.number() != 0;
    std::string type(frame.text());
    // It may be a frame or a script that asked.
    if (!type.starts_with("image/")) type = "application/octet-stream";
    const std::string_view bytes = frame.text();
    if (found == page.wanted.end()) return;
    const Owned<WebKitURISchemeRequest> request = std::move(found->second);
    page.wanted.erase(found);
    if (!is_there) return refuse(request.get(), G_IO_ERROR_NOT_FOUND, "the owner has no such image");
    GBytes* const held = g_bytes_new(bytes.data(), bytes.size());
    const Owned<GInputStream> stream(g_memory_input_stream_new_from_bytes(held));
    g_bytes_unref(held);
    const Owned<WebKitURISchemeResponse> response(
        webkit_uri_scheme_response_new(stream.get(), static_cast<gint64>(bytes.size())));
    webkit_uri_scheme_response_set_content_type(response.get(), type.c_str());
    SoupMessageHeaders* const headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_RESPONSE);
    soup_message_headers_append(headers, "Cache-Control", "no-store, no-cache");
    webkit_uri_scheme_response_set_http_headers(response.get(), headers);
    webkit_uri_scheme_request_finish_with_response(request.get(), response.get());
}

// No document asks whether it may be left.
gboolean no_dialog(WebKitWebView*, WebKitScriptDialog* dialog, gpointer) {
    if (webkit_script_dialog_get_dialog_type(dialog) == WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM) {
        webkit_script_dialog_confirm_set_confirmed(dialog, TRUE);
    }
    return TRUE;
}
gboolean no_print(WebKitWebView*, WebKitPrintOperation*, gpointer) {
    return TRUE;
}
gboolean no_permission(WebKitWebView*, WebKitPermissionRequest* request, gpointer) {
    webkit_permission_request_deny(request);
    return TRUE;
}
gboolean no_password(WebKitWebView*, WebKitAuthenticationRequest* request, gpointer) {
    webkit_authentication_request_cancel(request);
    return TRUE;
}
gboolean no_chooser(WebKitWebView*, WebKitFileChooserRequest* request, gpointer) {
    webkit_file_chooser_request_cancel(request);
    return TRUE;
}
void no_download(WebKitWebContext*, WebKitDownload* download, gpointer) {
    webkit_download_cancel(download);
}
// The document's process is gone, and with it what the control knows of it.
void ended(WebKitWebView*, WebKitWebProcessTerminationReason, gpointer) {
    leave();
}

// ---- Drawing ----

// The page is laid out anew first, in its own process.
struct Drawing {
    Request request;
    int width;
    int height;  // 0: as long as the page is
    int looks = 0;
};

void look_again(Drawing* drawing);

cairo_status_t add_bytes(void* text, const unsigned char* bytes, unsigned size) {
    static_cast<std::string*>(text)->append(reinterpret_cast<const char*>(bytes), size);
    return CAIRO_STATUS_SUCCESS;
}

void drawn(GObject*, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Drawing> drawing(static_cast<Drawing*>(data));
    GError* failed = nullptr;
    cairo_surface_t* const surface = webkit_web_view_get_snapshot_finish(page.view, result, &failed);
    const Error error(failed);
    if (!surface) return answer(drawing->request.number, EngineAnswer::Failed, "");
    // Scrollbars and scales of the screen aside, it has the size that was asked for.
    cairo_surface_t* const picture = cairo_image_surface_create(CAIRO_FORMAT_RGB24, drawing->width, drawing->height);
    cairo_t* const context = cairo_create(picture);
    cairo_set_source_rgb(context, 1, 1, 1);
    cairo_paint(context);
    cairo_set_source_surface(context, surface, 0, 0);
    cairo_paint(context);
    cairo_destroy(context);
    cairo_surface_destroy(surface);
    std::string png;
    const bool is_whole = cairo_surface_write_to_png_stream(picture, add_bytes, &png) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(picture);
    answer(drawing->request.number, is_whole ? EngineAnswer::Done : EngineAnswer::Failed, png);
}

void laid_out(GObject*, GAsyncResult* result, gpointer data) {
    std::unique_ptr<Drawing> drawing(static_cast<Drawing*>(data));
    GError* failed = nullptr;
    const Owned<JSCValue> value(webkit_web_view_evaluate_javascript_finish(page.view, result, &failed));
    const Error error(failed);
    int width = 0;
    int height = 0;
    int length = 0;
    if (!value || !shows(drawing->request.document) ||
        std::sscanf(bytes_of(value.get()).c_str(), "%d %d %d", &width, &height, &length) != 3) {
        return answer(drawing->request.number, EngineAnswer::Failed, "");
    }
    if (width == drawing->width && drawing->height == 0) {
        drawing->height = std::clamp(length, 1, kLongestSide);
        resize(drawing->width, drawing->height);
    }
    if (width == drawing->width && height == drawing->height) {
        webkit_web_view_get_snapshot(page.view, WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
                                     drawn, drawing.release());
        return;
    }
    if (++drawing->looks > 400) return answer(drawing->request.number, EngineAnswer::Failed, "");
    g_timeout_add(
        10,
        [](gpointer again) -> gboolean {
            look_again(static_cast<Drawing*>(again));
            return G_SOURCE_REMOVE;
        },
        drawing.release());
}

void look_again(Drawing* drawing) {
    run("innerWidth + ' ' + innerHeight + ' ' + document.documentElement.scrollHeight", kWorld, laid_out, drawing);
}

void draw(FrameReader& frame) {
    auto drawing = std::make_unique<Drawing>();
    drawing->request.number = frame.number();
    drawing->request.document = frame.number();
    drawing->width = static_cast<int>(frame.number());
    drawing->height = static_cast<int>(frame.number());
    if (!shows(drawing->request.document)) {
        return answer(drawing->request.number, EngineAnswer::Failed, "");
    }
    // A page is at least as long as its window.
    resize(drawing->width, drawing->height != 0 ? drawing->height : 1);
    look_again(drawing.release());
}

// ---- All together ----

void receive(FrameReader& frame) {
    switch (frame.kind()) {
        case EngineFrame::Load:
            return load(frame);
        case EngineFrame::Navigate:
            return navigate(frame);
        case EngineFrame::Call:
            return evaluate(frame, kWorld, called);
        case EngineFrame::Run:
            return evaluate(frame, nullptr, has_run);
        case EngineFrame::Draw:
            return draw(frame);
        case EngineFrame::Image:
            return give_image(frame);
        default:
            leave();
    }
}

// Whether the engine's sandbox can be made here: a container may not allow it.
bool has_sandbox() {
    std::array<const char*, 12> line{"bwrap", "--unshare-user", "--unshare-pid", "--unshare-net", "--ro-bind", "/",
                                     "/",     "--proc",         "/proc",         "--dev",         "/dev",      nullptr};
    std::vector<const char*> whole(line.begin(), line.end() - 1);
    whole.push_back("/bin/true");
    whole.push_back(nullptr);
    int status = -1;
    const auto flags =
        static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL);
    return g_spawn_sync(nullptr, const_cast<char**>(whole.data()), nullptr, flags, nullptr, nullptr, nullptr, nullptr,
                        &status, nullptr) &&
           WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void make_context(bool sandbox) {
    page.context = webkit_web_context_new_ephemeral();
    webkit_web_context_set_sandbox_enabled(page.context, sandbox);
    webkit_web_context_set_cache_model(page.context, WEBKIT_CACHE_MODEL_DOCUMENT_VIEWER);
    webkit_web_context_register_uri_scheme(page.context, "cid", want, nullptr, nullptr);
    webkit_web_context_register_uri_scheme(page.context, kOwnersScheme, want, nullptr, nullptr);
    webkit_web_context_set_web_extensions_directory(page.context, std::getenv("ZR_HTML_GATE"));
    webkit_web_context_set_web_extensions_initialization_user_data(page.context, g_variant_new_boolean(page.remote));
    g_signal_connect(page.context, "download-started", G_CALLBACK(no_download), nullptr);
    if (page.remote) return;
    // Whatever asks for the network all the same asks where nobody is.
    WebKitNetworkProxySettings* const nobody = webkit_network_proxy_settings_new("http://127.0.0.1:1", nullptr);
    webkit_website_data_manager_set_network_proxy_settings(webkit_web_context_get_website_data_manager(page.context),
                                                           WEBKIT_NETWORK_PROXY_MODE_CUSTOM, nobody);
    webkit_network_proxy_settings_free(nobody);
}

WebKitSettings* make_settings() {
    return webkit_settings_new_with_settings(
        "enable-javascript-markup", FALSE, "enable-html5-database", FALSE, "enable-html5-local-storage", FALSE,
        "enable-page-cache", FALSE, "enable-webaudio", FALSE, "enable-webgl", FALSE, "enable-media", FALSE,
        "enable-media-stream", FALSE, "enable-webrtc", FALSE, "enable-hyperlink-auditing", FALSE,
        "enable-dns-prefetching", FALSE, "javascript-can-open-windows-automatically", FALSE,
        "hardware-acceleration-policy", WEBKIT_HARDWARE_ACCELERATION_POLICY_NEVER, nullptr);
}

void make_view() {
    WebKitUserContentManager* const manager = webkit_user_content_manager_new();
    const auto add = [manager](WebKitUserScript* script) {
        webkit_user_content_manager_add_script(manager, script);
        webkit_user_script_unref(script);
    };
    constexpr auto kWhere = WEBKIT_USER_CONTENT_INJECT_TOP_FRAME;
    constexpr auto kWhen = WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START;
    add(webkit_user_script_new_for_world(kObjectsScript, kWhere, kWhen, kWorld, nullptr, nullptr));
    add(webkit_user_script_new_for_world(kImagesScript, kWhere, kWhen, kWorld, nullptr, nullptr));
    add(webkit_user_script_new(kImagesScript, kWhere, kWhen, nullptr, nullptr));
    page.view = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", page.context, "user-content-manager",
                                             manager, "settings", make_settings(), nullptr));
    page.window = gtk_offscreen_window_new();
    gtk_container_add(GTK_CONTAINER(page.window), GTK_WIDGET(page.view));
    resize(240, 320);
    gtk_widget_show_all(page.window);
    g_signal_connect(page.view, "load-changed", G_CALLBACK(load_changed), nullptr);
    g_signal_connect(page.view, "load-failed", G_CALLBACK(load_failed), nullptr);
    g_signal_connect(page.view, "user-message-received", G_CALLBACK(gate_spoke), nullptr);
    g_signal_connect(page.view, "notify::title", G_CALLBACK(title_changed), nullptr);
    g_signal_connect(page.view, "decide-policy", G_CALLBACK(decide), nullptr);
    g_signal_connect(page.view, "script-dialog", G_CALLBACK(no_dialog), nullptr);
    g_signal_connect(page.view, "print", G_CALLBACK(no_print), nullptr);
    g_signal_connect(page.view, "permission-request", G_CALLBACK(no_permission), nullptr);
    g_signal_connect(page.view, "authenticate", G_CALLBACK(no_password), nullptr);
    g_signal_connect(page.view, "run-file-chooser", G_CALLBACK(no_chooser), nullptr);
    g_signal_connect(page.view, "web-process-terminated", G_CALLBACK(ended), nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    fcntl(kSocket, F_SETFD, FD_CLOEXEC);  // it is nobody else's
    if (argc != 4 || !std::getenv("HOME")) return 2;
    // Whom the end takes along.
    if (getpgrp() != getpid() && setpgid(0, 0) != 0) return 2;
    page.remote = std::string_view(argv[2]) == "remote";
    setenv("ZR_HTML_GATE", argv[3], 1);
    watch_for_the_end();
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != std::atoi(argv[1])) leave();
    open_display();
    const bool sandbox = has_sandbox();
    make_context(sandbox);
    make_view();
    FrameWriter hello(EngineFrame::Hello);
    hello.number(kEngineVersion)
        .text(sandbox ? ""
                      : "the HTML engine runs without its sandbox, which this computer does not allow (bubblewrap)");
    Channel::send_at_once(hello);
    channel.begin(receive);
    gtk_main();
}
