#pragma once

// Contexts and what is selected into them, behind their handles. All of it is under one lock, which every call takes
// first and which is never held while foreign code runs.

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "gdi/text_module.h"
#include "platform/gdi.h"

namespace zr::platform {

enum class GdiKind : std::uint8_t { Context, Font, Bitmap, Brush, Pen };

struct GdiObject {
    explicit GdiObject(GdiKind made) : kind(made) {}
    GdiObject(const GdiObject&) = delete;
    GdiObject& operator=(const GdiObject&) = delete;
    virtual ~GdiObject() = default;

    const GdiKind kind;
    bool is_stock = false;
    int selected = 0;  // into so many contexts
    HGDIOBJ handle = nullptr;
};

struct FontObject : GdiObject {
    static constexpr GdiKind kKind = GdiKind::Font;
    FontObject() : GdiObject(kKind) {}
    ~FontObject() override;

    LOGFONTW description{};
    void* opened = nullptr;        // the module's
    std::uint32_t generation = 0;  // of the process that opened it
    FontFacts facts{};
};

struct BitmapObject : GdiObject {
    static constexpr GdiKind kKind = GdiKind::Bitmap;
    BitmapObject() : GdiObject(kKind) {}

    int width = 1;
    int height = 1;
    std::unique_ptr<std::uint32_t[]> pixels;  // 0x00RRGGBB

    Canvas canvas() const { return {reinterpret_cast<unsigned char*>(pixels.get()), width, height, width * 4}; }
};

struct BrushObject : GdiObject {
    static constexpr GdiKind kKind = GdiKind::Brush;
    BrushObject() : GdiObject(kKind) {}
    bool is_hollow = false;
    COLORREF colour = 0;
};

struct PenObject : GdiObject {
    static constexpr GdiKind kKind = GdiKind::Pen;
    PenObject() : GdiObject(kKind) {}
    bool is_hollow = false;
    COLORREF colour = 0;
};

struct ContextObject : GdiObject {
    static constexpr GdiKind kKind = GdiKind::Context;
    ContextObject() : GdiObject(kKind) {}

    enum class Origin : std::uint8_t { Created, Lent, Memory };
    Origin origin = Origin::Created;
    HWND window = nullptr;  // of one that is lent
    bool stays = false;     // the window's own
    FontObject* font = nullptr;
    BitmapObject* bitmap = nullptr;  // of a memory context; NULL in others
    BrushObject* brush = nullptr;
    PenObject* pen = nullptr;
    COLORREF text_colour = RGB(0, 0, 0);
    COLORREF background = RGB(255, 255, 255);
    int mode = OPAQUE;
};

class Gdi {
public:
    static Gdi& get();

    std::mutex lock;

    // The rest with the lock held. add: NULL with ERROR_NOT_ENOUGH_MEMORY.
    HGDIOBJ add(std::unique_ptr<GdiObject> object);
    void remove(GdiObject& object);
    GdiObject* find(HGDIOBJ handle) const;

    // NULL with ERROR_INVALID_HANDLE for what is none of that kind.
    template <class T>
    T* find_as(HGDIOBJ handle) const {
        GdiObject* const found = find(handle);
        if (found && found->kind == T::kKind) return static_cast<T*>(found);
        report_none();
        return nullptr;
    }

    // Beside those that have numbers: the bitmap of one pixel that memory contexts have at first, all the same.
    static constexpr int kFirstPixel = SYSTEM_FONT + 1;
    GdiObject* stock(int index);  // NULL with the error

    std::vector<ContextObject*> own_contexts;  // of windows that have theirs for good

private:
    struct Slot {
        std::unique_ptr<GdiObject> object;
        std::uint32_t generation = 1;
        std::uint32_t next_free = 0;
    };
    static constexpr int kStock = kFirstPixel + 1;

    static void report_none();

    std::vector<Slot> slots_;
    std::uint32_t first_free_ = 0;
    std::uint32_t last_free_ = 0;
    GdiObject* stock_[kStock] = {};
};

// The object made, or NULL with the error, under the lock.
template <class T>
HGDIOBJ enter(std::unique_ptr<T> object) {
    return Gdi::get().add(std::move(object));
}

// A context with the stock objects.
std::unique_ptr<ContextObject> new_context(ContextObject::Origin origin);

// ---- Text ----

// NULL with ERROR_MOD_NOT_FOUND.
const TextFunctions* text_functions();
// What a function of the module that failed just now says. False.
bool fail_as_text();
// Opens the font where that was not done. False with the error.
bool open_font(FontObject& font);
// How much further each unit goes. False with the error.
bool measure(ContextObject& context, const WCHAR* text, std::size_t size, std::vector<int>& advances);

// One line on the context's bitmap, without its background; nothing where there is none.
struct DrawnLine {
    const WCHAR* text;
    std::size_t size;
    LONG x;
    LONG y;  // upper edge
};
bool draw_line(ContextObject& context, const DrawnLine& line, const RECT* clip);

// ---- Pixels ----

std::uint32_t to_pixel(COLORREF colour);
void fill(const ContextObject& context, const RECT& rectangle, COLORREF colour);

}  // namespace zr::platform
