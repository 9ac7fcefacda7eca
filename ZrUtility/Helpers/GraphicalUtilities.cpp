#include "ZrUtility/Helpers/GraphicalUtilities.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>

#include "platform/base.h"
#include "platform/controls.h"
#include "platform/input_panel.h"
#include "platform/places.h"
#include "platform/screen.h"
#include "platform/windowing.h"

namespace {

using Wide = long long;

constexpr WCHAR kEllipsis = 0x2026;
constexpr UINT kWindowWasStretched = WM_USER + 105;
constexpr int kSheetHeader = 12328;

// A window's device context, or the screen's.
class WindowContext {
public:
    explicit WindowContext(HWND window) : window_(window), context_(GetDC(window)) {}
    ~WindowContext() {
        if (context_) ReleaseDC(window_, context_);
    }
    WindowContext(const WindowContext&) = delete;
    WindowContext& operator=(const WindowContext&) = delete;

    HDC get() const { return context_; }
    int Capability(int index) const { return context_ ? GetDeviceCaps(context_, index) : 0; }

    // 0 where it cannot be measured.
    SIZE Measure(const WCHAR* text, int length, int* extents = nullptr) const {
        SIZE size{0, 0};
        if (!context_ || !GetTextExtentExPointW(context_, text, length, 0, nullptr, extents, &size)) return {0, 0};
        return size;
    }
    int Width(const WCHAR* text, int length) const { return Measure(text, length).cx; }

    // In lines of that width.
    int Height(const WCHAR* text, int length, int width) const {
        RECT place{0, 0, width, 0};
        return context_ ? DrawTextW(context_, text, length, &place, DT_CALCRECT | DT_WORDBREAK) : 0;
    }

private:
    const HWND window_;
    const HDC context_;
};

// Which of the texts that are tried one after the other can be left out, as what is left of them is known to be too
// wide by itself. Where little is known, and many would have to be tried, the extents that the characters have in the
// whole text tell about where to begin; a text that is too wide is looked for from there.
class Shortcut {
public:
    Shortcut(const WindowContext& context, const WCHAR* text, int length, int room)
        : length_(length), room_(room), sums_(new (std::nothrow) Wide[static_cast<std::size_t>(length) + 1]) {
        const std::unique_ptr<int[]> widths(new (std::nothrow) int[static_cast<std::size_t>(length)]);
        if (!sums_ || !widths || !ZrGetLeastTextWidths(context.get(), text, length, kEllipsis, widths.get())) {
            sums_.reset();
            return;
        }
        sums_[0] = 0;
        for (std::size_t i = 0; i < static_cast<std::size_t>(length); ++i) {
            sums_[i + 1] = sums_[i] + widths[i];
        }
        beginning_ = likely_beginning_ = LongestBeginning(0);
        end_ = likely_end_ = LongestEnd(0);
        constexpr int kManyRounds = 500;
        if (std::max(beginning_, end_) <= kManyRounds) return;
        const SIZE size = context.Measure(text, length, widths.get());
        if (size.cx == 0) return;
        std::copy_n(widths.get(), length, sums_.get() + 1);
        constexpr int kLetters = 16;  // what the last ones may make of each other
        const Wide slack = kLetters * Wide{size.cy};
        likely_beginning_ = LongestBeginning(slack);
        likely_end_ = LongestEnd(slack);
    }

    // How many characters may stay, at most: one more is too wide. fits(count): whether so many stay.
    template <class Fits>
    int Beginning(const Fits& fits) const {
        return sums_ ? FirstTooWide(likely_beginning_, beginning_, fits) : length_;
    }
    template <class Fits>
    int End(const Fits& fits) const {
        return sums_ ? FirstTooWide(likely_end_, end_, fits) : length_;
    }

private:
    // From a guess that may be too small, by steps that double; then between the last two.
    template <class Fits>
    static int FirstTooWide(int guess, int most, const Fits& fits) {
        constexpr int kStep = 16;
        int fitting = guess;
        int step = kStep;
        while (fitting + step < most && fits(fitting + step)) {
            fitting += step;
            step *= 2;
        }
        int wide = std::min(fitting + step, most);
        while (wide - fitting > 2 * kStep) {
            const int middle = fitting + (wide - fitting) / 2;
            (fits(middle) ? fitting : wide) = middle;
        }
        return wide;
    }
    int LongestBeginning(Wide slack) const {
        const auto beyond = std::upper_bound(sums_.get() + 1, sums_.get() + length_ + 1, room_ + slack);
        return static_cast<int>(beyond - sums_.get()) - 1;
    }
    int LongestEnd(Wide slack) const {
        const Wide from = sums_[static_cast<std::size_t>(length_)] - room_ - slack;
        return std::max(
            length_ - static_cast<int>(std::lower_bound(sums_.get(), sums_.get() + length_ + 1, from) - sums_.get()),
            0);
    }

    const int length_;
    const int room_;
    std::unique_ptr<Wide[]> sums_;  // of the characters before each
    int beginning_ = 0;
    int end_ = 0;
    int likely_beginning_ = 0;
    int likely_end_ = 0;
};

int ToInt(Wide value) {
    return static_cast<int>(std::clamp<Wide>(value, INT_MIN, INT_MAX));
}

int Difference(LONG from, LONG to) {
    return ToInt(Wide{to} - from);
}

RECT Narrowed(HWND window, const RECT* rect) {
    RECT box{0, 0, 0, 0};
    if (rect) {
        box = *rect;
    } else {
        GetClientRect(window, &box);
    }
    return {ToInt(Wide{box.left} + 1), ToInt(Wide{box.top} + 1), ToInt(Wide{box.right} - 1),
            ToInt(Wide{box.bottom} - 1)};
}

// Whether a text fits with the ellipsis in place of one character.
bool FitsMarked(const WindowContext& context, WCHAR* text, int length, int mark, int room) {
    const WCHAR before = text[mark];
    text[mark] = kEllipsis;
    const bool fits = context.Width(text, length) <= room;
    text[mark] = before;
    return fits;
}

void CutAtEnd(const WindowContext& context, WCHAR* text, int length, int room) {
    const int longest = Shortcut(context, text, length, room).Beginning([&](int count) {
        return FitsMarked(context, text, count + 1, count, room);
    });
    if (longest + 2 < length) {
        length = longest + 2;
        text[length - 1] = kEllipsis;
        text[length] = 0;
    }
    bool fits = false;
    while (!fits && length > 1) {
        text[--length] = 0;
        text[length - 1] = kEllipsis;
        fits = context.Width(text, length) <= room;
    }
}

void CutAtStart(const WindowContext& context, WCHAR* text, int length, int room) {
    const int longest = Shortcut(context, text, length, room).End([&](int count) {
        return FitsMarked(context, text + length - count - 1, count + 1, 0, room);
    });
    int start = std::max(std::min(length - longest - 2, length - 2), 0);
    std::fill(text + std::min(start, 1), text + start + (start > 0 ? 1 : 0), kEllipsis);
    bool fits = false;
    while (!fits && length - start > 1) {
        text[++start] = kEllipsis;
        fits = context.Width(text + start, length - start) <= room;
    }
    if (length - start > 1) {
        std::copy(text + start, text + length, text);
        text[length - start] = 0;
    }
}

// How many characters fit the height in lines of the width.
int FittingCharacters(const WindowContext& context, const WCHAR* text, int length, int width, int height) {
    int count = length;
    int low = 0;
    int high = length;
    for (int taken = 1; count != 0 && taken != 0;) {
        taken = context.Height(text, count, width);
        if (taken <= height) {
            if (high - count < 2 || taken == height) break;
            low = count;
            count += (high - count) / 2;
        } else {
            high = count;
            count -= (count - low + 1) / 2;
        }
    }
    return count;
}

SIPINFO ReadInputPanel() {
    constexpr DWORD kSize = 48;
    SIPINFO info{};
    info.cbSize = kSize;
    SHSipInfo(SPI_GETSIPINFO, 0, &info, 0);
    return info;
}

}  // namespace

int GraphicalUtilities::ZrGetDeviceCaps(int index, float multiplier, float divisor) {
    const HDC context = CreateDCW(nullptr, nullptr, nullptr, nullptr);
    if (!context) return 0;
    const double value = static_cast<double>(GetDeviceCaps(context, index)) * static_cast<double>(multiplier) /
                         static_cast<double>(divisor);
    DeleteDC(context);
    return static_cast<int>(value);
}

int GraphicalUtilities::GetColourDepth() {
    return ZrGetDeviceCaps(COLORRES, 1.0f, 1.0f);
}

int GraphicalUtilities::GetHorizontalResolution() {
    return ZrGetDeviceCaps(LOGPIXELSX, 1.0f, 0.0254f);
}

int GraphicalUtilities::GetVerticalResolution() {
    return ZrGetDeviceCaps(LOGPIXELSY, 1.0f, 0.0254f);
}

int GraphicalUtilities::GetScreenHeight() {
    return ZrGetDeviceCaps(VERTRES, 1.0f, 1.0f);
}

int GraphicalUtilities::GetScreenWidth() {
    return ZrGetDeviceCaps(HORZRES, 1.0f, 1.0f);
}

int GraphicalUtilities::IsHighRes() {
    return WindowContext(nullptr).Capability(LOGPIXELSX) > 96 ? 1 : 0;
}

int GraphicalUtilities::IsSipUp() {
    return (ReadInputPanel().fdwFlags & SIPF_ON) != 0 ? 1 : 0;
}

int GraphicalUtilities::GetSipHeight() {
    const SIPINFO info = ReadInputPanel();
    return Difference(info.rcSipRect.top, info.rcSipRect.bottom);
}

HFONT GraphicalUtilities::CreateDefaultFont(HWND window, int bold, int pointSize) {
    const HWND parent = window ? GetParent(window) : nullptr;
    HGDIOBJ font = parent ? reinterpret_cast<HGDIOBJ>(SendMessageW(parent, WM_GETFONT, 0, 0)) : nullptr;
    if (!font) font = GetStockObject(SYSTEM_FONT);
    LOGFONTW description{};
    if (!font || GetObjectW(font, sizeof description, &description) == 0) return nullptr;
    if (bold) description.lfWeight = FW_BOLD;
    if (pointSize != 0) {
        const int height = MulDiv(pointSize, WindowContext(window).Capability(LOGPIXELSY), 72);
        description.lfHeight = static_cast<LONG>(0u - static_cast<ULONG>(height));  // any size may be asked for
    }
    return CreateFontIndirectW(&description);
}

RECT GraphicalUtilities::CalTextRect(HWND window, WCHAR* text, RECT bounds) {
    RECT place{0, 0, Difference(bounds.left, bounds.right), Difference(bounds.top, bounds.bottom)};
    const WindowContext context(window);
    if (text && context.get()) {
        DrawTextW(context.get(), text, static_cast<int>(wcslen(text)), &place, DT_CALCRECT | DT_WORDBREAK);
    }
    return place;
}

void GraphicalUtilities::GetRectInClient(HWND window, RECT* rect) {
    const HWND parent = GetParent(window);
    if (!parent || !rect || !GetWindowRect(window, rect)) return;
    POINT corners[2] = {{rect->left, rect->top}, {rect->right, rect->bottom}};
    for (POINT& corner : corners) {
        ScreenToClient(parent, &corner);
    }
    *rect = {corners[0].x, corners[0].y, corners[1].x, corners[1].y};
}

LONG GraphicalUtilities::TrimWithEllipsisToRect(HWND window, RECT* rect, WCHAR* text, int atEnd) {
    if (!window || !text) return E_UNEXPECTED;
    const RECT box = Narrowed(window, rect);
    const int room = Difference(box.left, box.right);
    const int length = static_cast<int>(wcslen(text));
    const WindowContext context(window);
    if (length == 0 || context.Width(text, length) <= room) return 0;
    if (atEnd) {
        CutAtEnd(context, text, length, room);
    } else {
        CutAtStart(context, text, length, room);
    }
    return 0;
}

LONG GraphicalUtilities::TrimWithEllipsisToRectEx(HWND window, RECT* rect, WCHAR* text, int splitAt) {
    if (!text) return E_UNEXPECTED;
    const int length = static_cast<int>(wcslen(text));
    if (splitAt < 0 || splitAt >= length) return E_FAIL;
    if (!window) return E_UNEXPECTED;
    WCHAR* const tail = text + splitAt;
    const int tail_length = length - splitAt;
    RECT box = Narrowed(window, rect);
    box.right = Difference(WindowContext(window).Width(tail, tail_length), box.right);
    if (box.right < 0) return TrimWithEllipsisToRect(window, rect, text, 1);
    const std::unique_ptr<WCHAR[]> whole(new (std::nothrow) WCHAR[static_cast<std::size_t>(length) + 1]);
    if (!whole) return E_OUTOFMEMORY;
    std::copy(text, tail, whole.get());
    whole[static_cast<std::size_t>(splitAt)] = 0;
    const LONG result = TrimWithEllipsisToRect(window, &box, whole.get(), 1);
    const std::size_t head_length = wcslen(whole.get());
    std::copy(tail, text + length, whole.get() + head_length);
    const std::size_t whole_length = head_length + static_cast<std::size_t>(tail_length);
    std::copy(whole.get(), whole.get() + whole_length, text);
    text[whole_length] = 0;
    return result;
}

LONG GraphicalUtilities::TrimWithEllipsisToRectMultiLine(HWND window, RECT* rect, WCHAR* text, int addEllipsis) {
    if (!window || !text) return E_UNEXPECTED;
    const RECT box = Narrowed(window, rect);
    const int length = static_cast<int>(wcslen(text));
    const WindowContext context(window);
    if (!context.get()) return 0;
    const int count =
        FittingCharacters(context, text, length, Difference(box.left, box.right), Difference(box.top, box.bottom));
    if (!addEllipsis || count >= length) return 0;
    int last = count - 1;
    while (last > 0 && iswspace(text[last])) {
        --last;
    }
    if (last > 0) {
        text[last] = kEllipsis;
        text[last + 1] = 0;
    }
    return 0;
}

int GraphicalUtilities::StretchToFit(HWND window, HWND notify) {
    const HWND parent = GetParent(window);
    if (!parent) return 0;
    RECT client{};
    RECT on_screen{};
    RECT place{};
    GetClientRect(parent, &client);
    GetWindowRect(window, &on_screen);
    GetRectInClient(window, &place);
    const int width = ToInt((Wide{client.right} - on_screen.right) + (Wide{place.right} - 2 * Wide{place.left}));
    MoveWindow(window, place.left, place.top, width, Difference(place.top, place.bottom), FALSE);
    if (notify) SendMessageW(notify, kWindowWasStretched, reinterpret_cast<WPARAM>(window), 0);
    return width;
}

int GraphicalUtilities::SizePageToFitSheet(HWND page) {
    const HWND sheet = page ? GetParent(page) : nullptr;
    const HWND tabs = sheet ? reinterpret_cast<HWND>(SendMessageW(sheet, PSM_GETTABCONTROL, 0, 0)) : nullptr;
    if (!tabs) return 0;
    RECT box{};
    GetClientRect(sheet, &box);
    if (SendMessageW(tabs, TCM_GETITEMCOUNT, 0, 0) < 2) {
        box.left += GetSystemMetrics(SM_CXBORDER);
    } else {
        RECT tab{};
        SendMessageW(tabs, TCM_GETITEMRECT, 0, reinterpret_cast<LPARAM>(&tab));
        box.bottom = ToInt(Wide{box.bottom} - (Wide{tab.bottom} - tab.top));
    }
    RECT header{};
    if (const HWND child = GetDlgItem(sheet, kSheetHeader)) GetRectInClient(child, &header);
    const int offset = ToInt(Wide{header.top} + header.bottom);
    return MoveWindow(page, box.left, offset, Difference(box.left, box.right),
                      ToInt((Wide{box.bottom} - offset) - box.top), FALSE);
}
