#include "objects.h"

#include <cstring>
#include <new>

#include "base/fail.h"
#include "base/forks.h"
#include "base/live_count.h"
#include "keyboard.h"
#include "windowing/screen_facts.h"

namespace zr::platform {
namespace {

// Never destroyed: threads may run longer than static objects live.
alignas(Gdi) unsigned char gdi_storage[sizeof(Gdi)];
Gdi& the_gdi = *new (gdi_storage) Gdi;

const AtFork gdi_at_fork{ForkRank::Gdi,
                         {[]() noexcept { the_gdi.lock.lock(); }, []() noexcept { the_gdi.lock.unlock(); },
                          []() noexcept {
                              the_gdi.lock.unlock();
                              forget_keyboard();
                          }}};

constexpr std::uint32_t kMostObjects = 0xFFFF;
constexpr std::uint32_t kGenerations = 0x7FFF;
constexpr std::uint32_t kMark = 0x80000000;  // no window's handle is like it

void count(const GdiObject& object, int change) {
    if (object.is_stock) return;
    count_live(object.kind == GdiKind::Context ? ZrLiveKind::DeviceContexts : ZrLiveKind::GdiObjects, change);
}

std::unique_ptr<GdiObject> make_stock(int index) {
    constexpr COLORREF greys[] = {RGB(255, 255, 255), RGB(192, 192, 192), RGB(128, 128, 128), RGB(64, 64, 64), 0, 0};
    if (index >= WHITE_BRUSH && index <= NULL_BRUSH) {
        auto brush = std::make_unique<BrushObject>();
        brush->colour = greys[index];
        brush->is_hollow = index == NULL_BRUSH;
        return brush;
    }
    if (index >= WHITE_PEN && index <= NULL_PEN) {
        auto pen = std::make_unique<PenObject>();
        pen->colour = index == WHITE_PEN ? RGB(255, 255, 255) : 0;
        pen->is_hollow = index == NULL_PEN;
        return pen;
    }
    if (index == Gdi::kFirstPixel) {
        auto bitmap = std::make_unique<BitmapObject>();
        bitmap->pixels = std::make_unique<std::uint32_t[]>(1);
        return bitmap;
    }
    if (index != SYSTEM_FONT) return nullptr;
    auto font = std::make_unique<FontObject>();
    constexpr int kPoints = 9;
    font->description.lfHeight = -MulDiv(kPoints, screen_facts().dots_down, 72);
    font->description.lfWeight = FW_NORMAL;
    std::memcpy(font->description.lfFaceName, u"Sans", sizeof u"Sans");
    return font;
}

}  // namespace

Gdi& Gdi::get() {
    return the_gdi;
}

void Gdi::report_none() {
    SetLastError(ERROR_INVALID_HANDLE);
}

HGDIOBJ Gdi::add(std::unique_ptr<GdiObject> object) {
    // A slot rests for a while before it is used again, so that its generations last.
    constexpr std::size_t kResting = 256;
    try {
        if (slots_.empty()) slots_.emplace_back();
        std::uint32_t index = first_free_;
        if (index == 0 || slots_.size() < kResting) {
            if (slots_.size() > kMostObjects) return fail(ERROR_NOT_ENOUGH_MEMORY, HGDIOBJ{nullptr});
            index = static_cast<std::uint32_t>(slots_.size());
            slots_.emplace_back();
        } else {
            first_free_ = slots_[index].next_free;
            if (first_free_ == 0) last_free_ = 0;
        }
        Slot& slot = slots_[index];
        const std::uint32_t value = kMark | slot.generation << 16 | index;
        object->handle = reinterpret_cast<HGDIOBJ>(static_cast<UINT_PTR>(value));
        count(*object, 1);
        slot.object = std::move(object);
        return slot.object->handle;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, HGDIOBJ{nullptr});
    }
}

GdiObject* Gdi::find(HGDIOBJ handle) const {
    const auto value = reinterpret_cast<UINT_PTR>(handle);
    const std::size_t index = value & 0xFFFF;
    if (value > 0xFFFFFFFFu || index >= slots_.size()) return nullptr;
    const Slot& slot = slots_[index];
    return slot.object && slot.object->handle == handle ? slot.object.get() : nullptr;
}

void Gdi::remove(GdiObject& object) {
    const auto index = static_cast<std::uint32_t>(reinterpret_cast<UINT_PTR>(object.handle) & 0xFFFF);
    count(object, -1);
    Slot& slot = slots_[index];
    slot.object.reset();
    slot.generation = slot.generation % kGenerations + 1;
    slot.next_free = 0;
    (last_free_ != 0 ? slots_[last_free_].next_free : first_free_) = index;
    last_free_ = index;
}

GdiObject* Gdi::stock(int index) {
    if (index >= 0 && index < kStock && stock_[index]) return stock_[index];
    std::unique_ptr<GdiObject> made = make_stock(index);
    if (!made) return fail(ERROR_INVALID_PARAMETER, static_cast<GdiObject*>(nullptr));
    made->is_stock = true;
    GdiObject* const object = made.get();
    if (!add(std::move(made))) return nullptr;
    stock_[index] = object;
    return object;
}

std::unique_ptr<ContextObject> new_context(ContextObject::Origin origin) {
    Gdi& gdi = Gdi::get();
    auto context = std::make_unique<ContextObject>();
    context->origin = origin;
    context->font = static_cast<FontObject*>(gdi.stock(SYSTEM_FONT));
    context->brush = static_cast<BrushObject*>(gdi.stock(WHITE_BRUSH));
    context->pen = static_cast<PenObject*>(gdi.stock(BLACK_PEN));
    if (!context->font || !context->brush || !context->pen) return nullptr;
    if (origin == ContextObject::Origin::Memory) {
        context->bitmap = static_cast<BitmapObject*>(gdi.stock(Gdi::kFirstPixel));
        if (!context->bitmap) return nullptr;
        ++context->bitmap->selected;
    }
    ++context->font->selected;
    ++context->brush->selected;
    ++context->pen->selected;
    return context;
}

}  // namespace zr::platform
