#include "support/engine_alone.h"

#include <cstdint>
#include <memory>

namespace zr::test {
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

// Apart from what may be seen through.
bool have_same_colours(cairo_surface_t* one, cairo_surface_t* other) {
    const int width = cairo_image_surface_get_width(one);
    const int height = cairo_image_surface_get_height(one);
    if (width <= 0 || cairo_image_surface_get_width(other) != width ||
        cairo_image_surface_get_height(other) != height) {
        return false;
    }
    const auto pixel = [](cairo_surface_t* surface, int x, int y) {
        const unsigned char* const row =
            cairo_image_surface_get_data(surface) + y * cairo_image_surface_get_stride(surface);
        return reinterpret_cast<const std::uint32_t*>(row)[x] & 0xFFFFFF;
    };
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            if (pixel(one, x, y) != pixel(other, x, y)) return false;
        }
    }
    return true;
}

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

bool EngineAlone::looks_like(const std::string& file) {
    Answer answer;
    webkit_web_view_get_snapshot(view_, WEBKIT_SNAPSHOT_REGION_VISIBLE, WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
                                 Answer::take, &answer);
    wait_for(answer.done);
    cairo_surface_t* const seen = webkit_web_view_get_snapshot_finish(view_, answer.result, nullptr);
    cairo_surface_t* const given = cairo_image_surface_create_from_png(file.c_str());
    const bool same = seen && have_same_colours(seen, given);
    cairo_surface_destroy(given);
    if (seen) cairo_surface_destroy(seen);
    return same;
}

}  // namespace zr::test
