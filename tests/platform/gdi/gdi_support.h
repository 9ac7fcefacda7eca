#pragma once

// Contexts, bitmaps and fonts that go with their objects.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/gdi.h"

namespace gdi_test {

inline LOGFONTW font_description(int height, const std::u16string& face = u"DejaVu Sans") {
    LOGFONTW description{};
    description.lfHeight = height;
    face.copy(description.lfFaceName, LF_FACESIZE - 1);
    return description;
}

// A memory context with a white bitmap and a font.
class Paper {
public:
    explicit Paper(int width = 300, int height = 100, const LOGFONTW& font = font_description(-16))
        : context(CreateCompatibleDC(nullptr)),
          bitmap(CreateCompatibleBitmap(context, width, height)),
          font_(CreateFontIndirectW(&font)) {
        EXPECT_NE(context, nullptr);
        EXPECT_NE(bitmap, nullptr);
        SelectObject(context, bitmap);
        EXPECT_NE(SelectObject(context, font_), nullptr);
        const RECT all{0, 0, width, height};
        FillRect(context, &all, static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH)));
    }
    ~Paper() {
        EXPECT_TRUE(DeleteDC(context));
        EXPECT_TRUE(DeleteObject(bitmap));
        EXPECT_TRUE(DeleteObject(font_));
    }
    Paper(const Paper&) = delete;
    Paper& operator=(const Paper&) = delete;

    SIZE extent(std::u16string_view text) const {
        SIZE size{-1, -1};
        EXPECT_TRUE(GetTextExtentPoint32W(context, text.data(), static_cast<int>(text.size()), &size));
        return size;
    }
    int width(std::u16string_view text) const { return extent(text).cx; }

    struct Fit {
        int count;
        std::vector<int> extents;
        SIZE size;
    };
    Fit fit(std::u16string_view text, int room) const {
        Fit fit{-1, std::vector<int>(text.size() + 1, -7), {-1, -1}};
        EXPECT_TRUE(GetTextExtentExPointW(context, text.data(), static_cast<int>(text.size()), room, &fit.count,
                                          fit.extents.data(), &fit.size));
        return fit;
    }
    std::vector<int> extents(std::u16string_view text) const {
        std::vector<int> all(text.size());
        SIZE size{};
        EXPECT_TRUE(
            GetTextExtentExPointW(context, text.data(), static_cast<int>(text.size()), 0, nullptr, all.data(), &size));
        return all;
    }

    // What is not white; left > right when all is.
    RECT ink() const {
        BITMAP facts{};
        GetObjectW(bitmap, sizeof facts, &facts);
        RECT ink{facts.bmWidth, facts.bmHeight, 0, 0};
        for (int y = 0; y < facts.bmHeight; ++y) {
            for (int x = 0; x < facts.bmWidth; ++x) {
                if (GetPixel(context, x, y) == RGB(255, 255, 255)) continue;
                ink.left = std::min(ink.left, x);
                ink.top = std::min(ink.top, y);
                ink.right = std::max(ink.right, x + 1);
                ink.bottom = std::max(ink.bottom, y + 1);
            }
        }
        return ink;
    }

    const HDC context;
    const HBITMAP bitmap;

private:
    const HFONT font_;
};

}  // namespace gdi_test
