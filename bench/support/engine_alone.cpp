#include "support/engine_alone.h"

#include <memory>

namespace zr::bench {
namespace {

void wait_for(const bool& done) {
    while (!done)
        g_main_context_iteration(nullptr, TRUE);
}

void note_load(WebKitWebView*, WebKitLoadEvent event, gpointer loaded) {
    if (event == WEBKIT_LOAD_FINISHED) *static_cast<bool*>(loaded) = true;
}

// The result of an asynchronous call.
struct Answer {
    GAsyncResult* result = nullptr;
    bool done = false;

    ~Answer() {
        if (result) g_object_unref(result);
    }
    static void take(GObject*, GAsyncResult* result, gpointer answer) {
        auto& self = *static_cast<Answer*>(answer);
        self.result = static_cast<GAsyncResult*>(g_object_ref(result));
        self.done = true;
    }
};

}  // namespace

EngineAlone::EngineAlone() {
    gtk_init(nullptr, nullptr);
    window_ = gtk_offscreen_window_new();
    view_ = WEBKIT_WEB_VIEW(webkit_web_view_new());
    gtk_widget_set_size_request(GTK_WIDGET(view_), 240, 320);
    gtk_container_add(GTK_CONTAINER(window_), GTK_WIDGET(view_));
    gtk_widget_show_all(window_);
}

EngineAlone::~EngineAlone() {
    gtk_widget_destroy(window_);
}

void EngineAlone::show(const std::string& html) {
    bool loaded = false;
    const gulong handler = g_signal_connect(view_, "load-changed", G_CALLBACK(note_load), &loaded);
    webkit_web_view_load_html(view_, html.c_str(), nullptr);
    wait_for(loaded);
    g_signal_handler_disconnect(view_, handler);
}

std::string EngineAlone::evaluate(const char* script) {
    Answer answer;
    webkit_web_view_evaluate_javascript(view_, script, -1, nullptr, nullptr, nullptr, Answer::take, &answer);
    wait_for(answer.done);
    JSCValue* const value = webkit_web_view_evaluate_javascript_finish(view_, answer.result, nullptr);
    if (!value) return {};
    const std::unique_ptr<char, decltype(&g_free)> text(jsc_value_to_string(value), g_free);
    g_object_unref(value);
    return text.get();
}

bool EngineAlone::draw(const std::string& file) {
    Answer answer;
    webkit_web_view_get_snapshot(view_, WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
                                 Answer::take, &answer);
    wait_for(answer.done);
    cairo_surface_t* const picture = webkit_web_view_get_snapshot_finish(view_, answer.result, nullptr);
    if (!picture) return false;
    const bool written = cairo_surface_write_to_png(picture, file.c_str()) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(picture);
    return written;
}

}  // namespace zr::bench
