// Measuring and fitting text, beside Pango's own layout of the same text in the same font; a device context made and
// given back, beside an empty call.

#include <benchmark/benchmark.h>
#include <pango/pangocairo.h>

#include <memory>
#include <string>

#include "ZrUtility/Helpers/GraphicalUtilities.h"
#include "platform/gdi.h"
#include "platform/windowing.h"

namespace {

constexpr int kPixels = 16;
constexpr char16_t kFace[] = u"DejaVu Sans";

// A window whose context keeps the font.
HWND font_window() {
    static const HWND window = [] {
        WNDCLASSW description{};
        description.style = CS_OWNDC;
        description.lpfnWndProc = DefWindowProcW;
        description.lpszClassName = u"bench.font";
        RegisterClassW(&description);
        const HWND made =
            CreateWindowExW(0, description.lpszClassName, nullptr, 0, 0, 0, 9, 9, nullptr, nullptr, nullptr, nullptr);
        LOGFONTW font{};
        font.lfHeight = -kPixels;
        std::u16string_view(kFace).copy(font.lfFaceName, LF_FACESIZE - 1);
        SelectObject(GetDC(made), CreateFontIndirectW(&font));
        return made;
    }();
    return window;
}

std::u16string words(int length) {
    constexpr std::u16string_view words = u"The quick brown fox jumps over the lazy dog and goes on. ";
    std::u16string text;
    while (text.size() < static_cast<std::size_t>(length)) {
        text += words;
    }
    text.resize(static_cast<std::size_t>(length));
    return text;
}

struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
};

// A layout in the same font, as a program would keep it, and one layout of the whole text.
class Peer {
public:
    Peer()
        : map_(pango_cairo_font_map_new_for_font_type(CAIRO_FONT_TYPE_FT)),
          context_(pango_font_map_create_context(map_.get())),
          layout_(pango_layout_new(context_.get())) {
        PangoFontDescription* const font = pango_font_description_from_string("DejaVu Sans");
        pango_font_description_set_absolute_size(font, kPixels * PANGO_SCALE);
        pango_layout_set_font_description(layout_.get(), font);
        pango_font_description_free(font);
        pango_layout_set_single_paragraph_mode(layout_.get(), TRUE);
    }
    int width(const std::string& text) const {
        pango_layout_set_text(layout_.get(), "", 0);
        pango_layout_set_text(layout_.get(), text.data(), static_cast<int>(text.size()));
        int width = 0;
        pango_layout_get_pixel_size(layout_.get(), &width, nullptr);
        return width;
    }

private:
    std::unique_ptr<PangoFontMap, Unref> map_;
    std::unique_ptr<PangoContext, Unref> context_;
    std::unique_ptr<PangoLayout, Unref> layout_;
};

void measure(benchmark::State& state) {
    const std::u16string text = words(static_cast<int>(state.range(0)));
    const HDC context = GetDC(font_window());
    for (auto _ : state) {
        SIZE size{};
        GetTextExtentPoint32W(context, text.data(), static_cast<int>(text.size()), &size);
        benchmark::DoNotOptimize(size.cx);
    }
}
BENCHMARK(measure)->Name("measure_line/ours")->Arg(80);

void lay_out(benchmark::State& state) {
    const std::u16string wide = words(static_cast<int>(state.range(0)));
    const std::string text(wide.begin(), wide.end());
    const Peer peer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(peer.width(text));
    }
}
BENCHMARK(lay_out)->Name("measure_line/pango")->Arg(80);

void fit(benchmark::State& state, int at_end) {
    const std::u16string text = words(static_cast<int>(state.range(0)));
    RECT box{0, 0, static_cast<LONG>(state.range(1)), 20};
    std::u16string cut;
    for (auto _ : state) {
        cut = text;
        GraphicalUtilities::TrimWithEllipsisToRect(font_window(), &box, cut.data(), at_end);
        benchmark::DoNotOptimize(cut.data());
    }
}
void fit_end(benchmark::State& state) {
    fit(state, 1);
}
void fit_start(benchmark::State& state) {
    fit(state, 0);
}
void lay_out_whole(benchmark::State& state) {
    lay_out(state);
}
// Into a handheld's line, and into half of the text's own width: nothing is gained by what is cut at once.
BENCHMARK(fit_end)->Name("fit_end/ours")->Args({1000, 240})->Args({10'000, 240})->Args({10'000, 40'000});
BENCHMARK(lay_out_whole)->Name("fit_end/pango")->Args({1000, 240})->Args({10'000, 240})->Args({10'000, 40'000});
BENCHMARK(fit_start)->Name("fit_start/ours")->Args({1000, 240})->Args({10'000, 240})->Args({10'000, 40'000});
BENCHMARK(lay_out_whole)->Name("fit_start/pango")->Args({1000, 240})->Args({10'000, 240})->Args({10'000, 40'000});

void fit_lines(benchmark::State& state) {
    const std::u16string text = words(static_cast<int>(state.range(0)));
    RECT box{0, 0, 240, 320};
    std::u16string cut;
    for (auto _ : state) {
        cut = text;
        GraphicalUtilities::TrimWithEllipsisToRectMultiLine(font_window(), &box, cut.data(), 1);
        benchmark::DoNotOptimize(cut.data());
    }
}
BENCHMARK(fit_lines)->Name("fit_lines/ours")->Arg(1000)->Arg(10'000);
BENCHMARK(lay_out_whole)->Name("fit_lines/pango")->Arg(1000)->Arg(10'000);

[[gnu::noinline]] HDC nothing(HWND window) {
    benchmark::DoNotOptimize(window);
    return nullptr;
}
void borrow_context(benchmark::State& state) {
    for (auto _ : state) {
        ReleaseDC(nullptr, GetDC(nullptr));
    }
}
BENCHMARK(borrow_context)->Name("context/ours");

void call_nothing(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(nothing(nullptr));
    }
}
BENCHMARK(call_nothing)->Name("context/empty_call");

}  // namespace
