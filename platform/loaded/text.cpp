// The text module: Pango over FreeType and fontconfig, and cairo, behind the platform's words.

#include <fcntl.h>
#include <pango/pangocairo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cmath>
#include <map>
#include <memory>
#include <new>
#include <vector>

#include "gdi/text_module.h"

namespace {

using namespace zr::platform;

// So much is shaped at once: of what is longer, parts.
constexpr std::size_t kPart = 4096;
constexpr std::size_t kKeptLines = 64;

struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
};
template <class T>
using Owned = std::unique_ptr<T, Unref>;

// ---- Text ----

// Text as Pango takes it, and which unit each byte belongs to. What UTF-16 does not allow is U+FFFD; control
// characters, which would be drawn as boxes, are spaces without width.
struct Utf8 {
    std::string text;
    std::vector<std::size_t> unit_of;

    void add(char32_t c, std::size_t unit) {
        char bytes[6];
        const int size = g_unichar_to_utf8(c, bytes);
        text.append(bytes, static_cast<std::size_t>(size));
        unit_of.insert(unit_of.end(), static_cast<std::size_t>(size), unit);
    }
};

bool is_high(char16_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool is_low(char16_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

char32_t shown(char32_t c) {
    constexpr char32_t kNoWidth = 0x200B;
    const bool is_control = c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029;
    return is_control ? kNoWidth : c;
}

Utf8 to_utf8(const char16_t* text, std::size_t size) {
    Utf8 result;
    result.text.reserve(size * 3);
    result.unit_of.reserve(size * 3);
    for (std::size_t i = 0; i < size; ++i) {
        const char16_t c = text[i];
        if (is_high(c) && i + 1 < size && is_low(text[i + 1])) {
            result.add(0x10000 + ((char32_t{c} - 0xD800) << 10) + (char32_t{text[i + 1]} - 0xDC00), i);
            ++i;
        } else {
            result.add(is_high(c) || is_low(c) ? char32_t{0xFFFD} : shown(c), i);
        }
    }
    return result;
}

// Letters and signs whose form and width depend on nothing beside them, when nothing else is in the text.
bool is_plain(char16_t c) {
    return (c >= 0x20 && c < 0x7F) || (c >= 0xA0 && c < 0x250 && c != 0xAD) || (c >= 0x370 && c < 0x483) ||
           (c >= 0x48A && c < 0x530) || (c >= 0x1E00 && c < 0x2000) || (c >= 0x2010 && c < 0x2028) ||
           (c >= 0x2030 && c < 0x205F) || (c >= 0x20A0 && c < 0x20C0);
}

// Letters that have one script, which decides on their font, and one form: with such a letter or a plain one behind
// them (no mark that they would melt with) they are as wide in every text.
bool is_steady(char16_t c) {
    constexpr char16_t ranges[][2] = {{u'A', u'Z'},     {u'a', u'z'},     {0x00C0, 0x00D6}, {0x00D8, 0x00F6},
                                      {0x00F8, 0x024F}, {0x0388, 0x03E1}, {0x0400, 0x0482}, {0x048A, 0x052F},
                                      {0x05D0, 0x05EA}, {0x1E00, 0x1EFF}, {0x3041, 0x3096}, {0x30A1, 0x30FA},
                                      {0x3400, 0x4DBF}, {0x4E00, 0x9FFF}, {0xAC00, 0xD7A3}};
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [c](const char16_t(&range)[2]) { return c >= range[0] && c <= range[1]; });
}

// Where the part that begins at `from` ends: behind a space when there is one, else not within a pair.
std::size_t end_of_part(const char16_t* text, std::size_t from, std::size_t size) {
    if (size - from <= kPart) return size;
    for (std::size_t end = from + kPart; end > from + kPart / 2; --end) {
        if (text[end - 1] == u' ') return end;
    }
    const std::size_t end = from + kPart;
    return is_low(text[end]) && is_high(text[end - 1]) ? end - 1 : end;
}

// ---- Fonts ----

struct NoDescriptors {};

// A font file that cannot be opened is a font without letters from then on, and without any font Pango ends the
// process: whoever may need one makes sure first. Files are opened one after the other; `count` at a time.
void need_descriptors(int count) {
    const int probe = open("/", O_PATH | O_CLOEXEC);
    if (probe < 0) throw NoDescriptors();
    struct Closed {
        const int descriptor;
        ~Closed() { close(descriptor); }
    };
    const Closed closed{probe};
    if (count > 1) need_descriptors(count - 1);
}

PangoFontMap* the_map = nullptr;

PangoFontMap* font_map() {
    if (!the_map) the_map = pango_cairo_font_map_new_for_font_type(CAIRO_FONT_TYPE_FT);
    return the_map;
}

// The map looks for fonts on a thread of its own.
void forget_fonts() noexcept {
    the_map = nullptr;
}

PangoLanguage* language() {
    return pango_language_from_string("en");
}

class Font {
public:
    Font(const FontWish& wish, FontFacts& facts);

    void measure(const char16_t* text, std::size_t size, int* advances);
    void measure_least(const char16_t* text, std::size_t size, char16_t mark, int* widths);
    void draw(cairo_t* cairo, const char16_t* text, std::size_t size, int x, int baseline, double right);

private:
    static constexpr int kForSettings = 8;  // files that name each other
    static constexpr int kForFonts = 2;
    static constexpr int kUnknown = -1;
    static constexpr int kNotPlain = -2;
    using Widths = std::array<int, 256>;
    using Table = std::array<std::unique_ptr<Widths>, 256>;

    void choose(const FontWish& wish, double pixels);
    PangoLayoutLine* lay_out(const Utf8& text);
    bool measure_plain(const char16_t* text, std::size_t size, int* advances);
    static int& entry(Table& table, char16_t c);
    int plain_width(char16_t c);
    int find_plain_width(char16_t c);
    int steady_width(char16_t c);
    int find_steady_width(char16_t c);
    void measure_part(const char16_t* text, std::size_t size, int* advances);
    void shape(const char16_t* text, std::size_t size, int* advances);

    Owned<PangoContext> context_;
    Owned<PangoLayout> layout_;
    PangoFont* main_ = nullptr;  // the one that has the plain letters
    Table plain_;
    Table steady_;
    std::map<std::u16string, std::vector<int>> lines_;
};

void Font::choose(const FontWish& wish, double pixels) {
    PangoFontDescription* const wanted = pango_font_description_new();
    pango_font_description_set_family(wanted, wish.family);
    pango_font_description_set_weight(wanted, static_cast<PangoWeight>(std::clamp(wish.weight, 100, 1000)));
    pango_font_description_set_style(wanted, wish.italic ? PANGO_STYLE_ITALIC : PANGO_STYLE_NORMAL);
    pango_font_description_set_absolute_size(wanted, pixels * PANGO_SCALE);
    pango_context_set_font_description(context_.get(), wanted);
    pango_layout_context_changed(layout_.get());
    pango_font_description_free(wanted);
}

Font::Font(const FontWish& wish, FontFacts& facts)
    : context_((need_descriptors(kForSettings), pango_font_map_create_context(font_map()))),
      layout_(pango_layout_new(context_.get())) {
    cairo_font_options_t* const options = cairo_font_options_create();
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_ON);
    cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_SLIGHT);
    cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
    pango_cairo_context_set_font_options(context_.get(), options);
    cairo_font_options_destroy(options);
    pango_context_set_language(context_.get(), language());
    pango_context_set_base_dir(context_.get(), PANGO_DIRECTION_LTR);
    pango_context_set_round_glyph_positions(context_.get(), TRUE);
    pango_layout_set_auto_dir(layout_.get(), FALSE);
    pango_layout_set_single_paragraph_mode(layout_.get(), TRUE);

    // As on the handheld every letter has a width of its own: none moves nearer to its neighbour, or melts into it.
    PangoAttrList* const attributes = pango_attr_list_new();
    pango_attr_list_insert(attributes, pango_attr_font_features_new("kern=0, liga=0, clig=0"));
    if (wish.underline) pango_attr_list_insert(attributes, pango_attr_underline_new(PANGO_UNDERLINE_SINGLE));
    if (wish.strike_out) pango_attr_list_insert(attributes, pango_attr_strikethrough_new(TRUE));
    pango_layout_set_attributes(layout_.get(), attributes);
    pango_attr_list_unref(attributes);

    const auto read = [&] {
        PangoFontMetrics* const metrics = pango_context_get_metrics(context_.get(), nullptr, language());
        facts.ascent = PANGO_PIXELS_CEIL(pango_font_metrics_get_ascent(metrics));
        facts.descent = PANGO_PIXELS_CEIL(pango_font_metrics_get_descent(metrics));
        facts.average = PANGO_PIXELS_CEIL(pango_font_metrics_get_approximate_char_width(metrics));
        pango_font_metrics_unref(metrics);
    };
    double em = std::max(wish.pixels, 1);
    choose(wish, em);
    read();
    // A cell's height leaves less for the letters; rounding may make it one pixel too many.
    const double wanted = em;
    for (int round = 0; wish.of_cell && round < 4 && facts.ascent + facts.descent > wanted && em > 1; ++round) {
        em = std::max(1.0, std::floor(em * wanted / (facts.ascent + facts.descent)));
        choose(wish, em);
        read();
    }
    facts.em = static_cast<int>(em);

    const PangoLayoutLine* const line = lay_out(to_utf8(u"x", 1));
    if (line->runs) main_ = static_cast<PangoGlyphItem*>(line->runs->data)->item->analysis.font;
    facts.widest = std::max(plain_width(u'W'), plain_width(u'@'));
    facts.widest = std::max({facts.widest, facts.average, 1});
}

PangoLayoutLine* Font::lay_out(const Utf8& text) {
    need_descriptors(kForFonts);
    pango_layout_set_text(layout_.get(), text.text.data(), static_cast<int>(text.text.size()));
    return pango_layout_get_line_readonly(layout_.get(), 0);
}

int Font::find_plain_width(char16_t c) {
    const PangoLayoutLine* const line = lay_out(to_utf8(&c, 1));
    if (!line->runs || line->runs->next) return kNotPlain;
    const auto* const run = static_cast<PangoGlyphItem*>(line->runs->data);
    if (run->item->analysis.font != main_ || run->glyphs->num_glyphs != 1) return kNotPlain;
    return PANGO_PIXELS(run->glyphs->glyphs[0].geometry.width);
}

int& Font::entry(Table& table, char16_t c) {
    std::unique_ptr<Widths>& page = table[c >> 8];
    if (!page) {
        page = std::make_unique<Widths>();
        page->fill(kUnknown);
    }
    return (*page)[c & 0xFF];
}

// Also what is not plain here: another font may have it, or none.
int Font::plain_width(char16_t c) {
    int& width = entry(plain_, c);
    if (width == kUnknown) width = is_plain(c) ? find_plain_width(c) : c < 0x20 || c == 0x7F ? 0 : kNotPlain;
    return width;
}

// What no font has is drawn as a box, in the font of what stands beside it.
int Font::find_steady_width(char16_t c) {
    const PangoLayoutLine* const line = lay_out(to_utf8(&c, 1));
    if (!line->runs || line->runs->next) return 0;
    const auto* const run = static_cast<PangoGlyphItem*>(line->runs->data);
    if (run->glyphs->num_glyphs != 1 || (run->glyphs->glyphs[0].glyph & PANGO_GLYPH_UNKNOWN_FLAG) != 0) return 0;
    return std::max(PANGO_PIXELS(run->glyphs->glyphs[0].geometry.width), 0);
}

int Font::steady_width(char16_t c) {
    int& width = entry(steady_, c);
    if (width == kUnknown) width = find_steady_width(c);
    return width;
}

void Font::measure_least(const char16_t* text, std::size_t size, char16_t mark, int* widths) {
    if (plain_width(mark) >= 0 && measure_plain(text, size, widths)) return;
    std::fill_n(widths, size, 0);
    if (!is_plain(mark)) return;
    for (std::size_t i = 0; i < size; ++i) {
        const char16_t next = i + 1 < size ? text[i + 1] : mark;
        if (is_steady(text[i]) && (is_plain(next) || is_steady(next))) widths[i] = steady_width(text[i]);
    }
}

bool Font::measure_plain(const char16_t* text, std::size_t size, int* advances) {
    for (std::size_t i = 0; i < size; ++i) {
        const Widths* const page = plain_[text[i] >> 8].get();
        int width = page ? (*page)[text[i] & 0xFF] : kUnknown;
        if (width < 0) {
            width = plain_width(text[i]);
            if (width < 0) return false;
        }
        advances[i] = width;
    }
    return true;
}

void Font::shape(const char16_t* text, std::size_t size, int* advances) {
    std::fill_n(advances, size, 0);
    const Utf8 utf8 = to_utf8(text, size);
    for (GSList* each = lay_out(utf8)->runs; each; each = each->next) {
        auto* const run = static_cast<PangoGlyphItem*>(each->data);
        PangoGlyphItemIter cluster;
        for (gboolean more = pango_glyph_item_iter_init_start(&cluster, run, utf8.text.c_str()); more;
             more = pango_glyph_item_iter_next_cluster(&cluster)) {
            const int step = cluster.start_glyph <= cluster.end_glyph ? 1 : -1;
            std::int64_t width = 0;
            for (int glyph = cluster.start_glyph; glyph != cluster.end_glyph; glyph += step) {
                width += run->glyphs->glyphs[glyph].geometry.width;
            }
            advances[utf8.unit_of[static_cast<std::size_t>(cluster.start_index)]] +=
                static_cast<int>((std::max<std::int64_t>(width, 0) + PANGO_SCALE / 2) / PANGO_SCALE);
        }
    }
}

void Font::measure_part(const char16_t* text, std::size_t size, int* advances) {
    const std::u16string key(text, size);
    auto found = lines_.find(key);
    if (found == lines_.end()) {
        std::vector<int> widths(size);
        shape(text, size, widths.data());
        if (lines_.size() >= kKeptLines) lines_.clear();
        found = lines_.emplace(key, std::move(widths)).first;
    }
    std::copy_n(found->second.data(), size, advances);
}

void Font::measure(const char16_t* text, std::size_t size, int* advances) {
    if (measure_plain(text, size, advances)) return;
    for (std::size_t from = 0; from < size;) {
        const std::size_t end = end_of_part(text, from, size);
        measure_part(text + from, end - from, advances + from);
        from = end;
    }
}

// What is left of the surface or right of `right` is not drawn.
void Font::draw(cairo_t* cairo, const char16_t* text, std::size_t size, int x, int baseline, double right) {
    double at = x;
    for (std::size_t from = 0; from < size && at < right;) {
        const std::size_t end = end_of_part(text, from, size);
        PangoLayoutLine* const line = lay_out(to_utf8(text + from, end - from));
        PangoRectangle extents;
        pango_layout_line_get_extents(line, nullptr, &extents);
        cairo_move_to(cairo, at, baseline);
        pango_cairo_show_layout_line(cairo, line);
        at += PANGO_PIXELS(extents.width);
        from = end;
    }
}

// ---- What the platform calls ----

template <class Body>
bool guarded(Body&& body) noexcept {
    try {
        body();
        return true;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    } catch (const NoDescriptors&) {
        errno = EMFILE;
    }
    return false;
}

void* open_font(const FontWish& wish, FontFacts& facts) noexcept {
    Font* made = nullptr;
    guarded([&] { made = std::make_unique<Font>(wish, facts).release(); });
    return made;
}

void close_font(void* font) noexcept {
    delete static_cast<Font*>(font);
}

bool measure(void* font, const char16_t* text, std::size_t size, int* advances) noexcept {
    return guarded([&] { static_cast<Font*>(font)->measure(text, size, advances); });
}

bool measure_least(void* font, const char16_t* text, std::size_t size, char16_t mark, int* widths) noexcept {
    return guarded([&] { static_cast<Font*>(font)->measure_least(text, size, mark, widths); });
}

void find_breaks_in_part(const char16_t* text, std::size_t size, unsigned char* breaks) {
    const Utf8 utf8 = to_utf8(text, size);
    std::vector<PangoLogAttr> attributes(size + 1);
    const int count = static_cast<int>(g_utf8_strlen(utf8.text.c_str(), -1));
    pango_get_log_attrs(utf8.text.c_str(), static_cast<int>(utf8.text.size()), -1, language(), attributes.data(),
                        count + 1);
    std::size_t at = 0;
    for (int i = 0; i < count; ++i) {
        breaks[utf8.unit_of[at]] = attributes[static_cast<std::size_t>(i)].is_line_break != 0 ? 1 : 0;
        at += static_cast<std::size_t>(g_utf8_skip[static_cast<unsigned char>(utf8.text[at])]);
    }
}

bool find_breaks(const char16_t* text, std::size_t size, unsigned char* breaks) noexcept {
    std::fill_n(breaks, size, static_cast<unsigned char>(0));
    return guarded([&] {
        for (std::size_t from = 0; from < size;) {
            const std::size_t end = end_of_part(text, from, size);
            find_breaks_in_part(text + from, end - from, breaks + from);
            from = end;
        }
    });
}

struct CairoSurface {
    explicit CairoSurface(const Canvas& canvas)
        : surface(cairo_image_surface_create_for_data(canvas.pixels, CAIRO_FORMAT_RGB24, canvas.width, canvas.height,
                                                      canvas.stride)) {}
    ~CairoSurface() { cairo_surface_destroy(surface); }
    CairoSurface(const CairoSurface&) = delete;
    CairoSurface& operator=(const CairoSurface&) = delete;
    cairo_surface_t* const surface;
};

bool draw(void* font, const Canvas& canvas, const ClipArea& clip, const char16_t* text, std::size_t size, int x,
          int baseline, std::uint32_t colour) noexcept {
    const CairoSurface image(canvas);
    cairo_t* const cairo = cairo_create(image.surface);
    const bool good = guarded([&] {
        cairo_rectangle(cairo, clip.left, clip.top, clip.right - clip.left, clip.bottom - clip.top);
        cairo_clip(cairo);
        cairo_set_source_rgb(cairo, ((colour >> 16) & 0xFF) / 255.0, ((colour >> 8) & 0xFF) / 255.0,
                             (colour & 0xFF) / 255.0);
        static_cast<Font*>(font)->draw(cairo, text, size, x, baseline, canvas.width);
    });
    const int why = errno;
    cairo_destroy(cairo);
    errno = why;
    return good;
}

bool write_png(const Canvas& canvas, std::string& png) noexcept {
    const CairoSurface image(canvas);
    const auto add = [](void* to, const unsigned char* bytes, unsigned int size) {
        auto& text = *static_cast<std::string*>(to);
        return guarded([&] { text.append(reinterpret_cast<const char*>(bytes), size); }) ? CAIRO_STATUS_SUCCESS
                                                                                         : CAIRO_STATUS_NO_MEMORY;
    };
    const bool good = cairo_surface_write_to_png_stream(image.surface, add, &png) == CAIRO_STATUS_SUCCESS;
    if (!good) errno = ENOMEM;
    return good;
}

constexpr TextFunctions functions{forget_fonts,  open_font,   close_font, measure,
                                  measure_least, find_breaks, draw,       write_png};

}  // namespace

extern "C" __attribute__((visibility("default"))) const TextFunctions* zr_text_functions() {
    return &functions;
}
