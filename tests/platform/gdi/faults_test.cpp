// What must not go wrong: no memory, no descriptors, objects that threads take from each other.

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "gdi_support.h"
#include "platform/places.h"
#include "platform/windowing.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

using gdi_test::font_description;
using gdi_test::Paper;
using zr::test::Child;
using zr::test::FailingNew;

constexpr std::u16string_view kMixed = u"Text Möwe שלום مرحبا 日本";

struct Alive {
    LONGLONG contexts = ZrLiveObjects(ZrLiveKind::DeviceContexts);
    LONGLONG objects = ZrLiveObjects(ZrLiveKind::GdiObjects);
    bool operator==(const Alive&) const = default;
};

// Repeats it with one allocation more each time until it has its way; returns how often memory was missing. What failed
// says so, and leaves nothing behind.
template <class Body>
int until_there_is_memory(const Body& body) {
    for (int successes = 0; successes < 5000; ++successes) {
        const Alive before;
        SetLastError(ERROR_SUCCESS);
        bool good = false;
        {
            const FailingNew failing(successes);
            good = body();
        }
        if (good) return successes;
        EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY) << successes;
        EXPECT_EQ(Alive(), before) << successes;
    }
    ADD_FAILURE() << "never";
    return 0;
}

TEST(WithoutMemory, ContextsAndObjectsAreMadeOrNot) {
    const Alive before;
    const HWND desktop = GetDesktopWindow();
    HDC memory = nullptr;
    HDC made = nullptr;
    HDC lent = nullptr;
    EXPECT_GT(until_there_is_memory([&] { return (memory = CreateCompatibleDC(nullptr)) != nullptr; }), 0);
    EXPECT_GT(until_there_is_memory([&] { return (made = CreateDCW(nullptr, nullptr, nullptr, nullptr)) != nullptr; }),
              0);
    EXPECT_GT(until_there_is_memory([&] { return (lent = GetDC(desktop)) != nullptr; }), 0);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::DeviceContexts), before.contexts + 3);

    const LOGFONTW description = font_description(-12);
    HGDIOBJ objects[4] = {};
    EXPECT_GT(until_there_is_memory([&] { return (objects[0] = CreateFontIndirectW(&description)) != nullptr; }), 0);
    EXPECT_GT(until_there_is_memory([&] { return (objects[1] = CreateCompatibleBitmap(memory, 50, 50)) != nullptr; }),
              1);
    EXPECT_GT(until_there_is_memory([&] { return (objects[2] = CreateSolidBrush(RGB(1, 2, 3))) != nullptr; }), 0);
    EXPECT_GT(until_there_is_memory([&] { return (objects[3] = CreatePen(PS_SOLID, 1, 0)) != nullptr; }), 0);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::GdiObjects), before.objects + 4);

    EXPECT_TRUE(DeleteDC(memory));
    EXPECT_TRUE(DeleteDC(made));
    EXPECT_EQ(ReleaseDC(desktop, lent), 1);
    for (const HGDIOBJ object : objects) {
        EXPECT_TRUE(DeleteObject(object));
    }
    EXPECT_EQ(Alive(), before);
}

TEST(WithoutMemory, AWindowHasItsOwnContextOrNone) {
    WNDCLASSW description{};
    description.style = CS_OWNDC;
    description.lpfnWndProc = DefWindowProcW;
    description.lpszClassName = u"gdi.test.own.memory";
    RegisterClassW(&description);
    const auto make = [&] {
        return CreateWindowExW(0, description.lpszClassName, nullptr, 0, 0, 0, 9, 9, nullptr, nullptr, nullptr,
                               nullptr);
    };
    // Contexts of windows that have gone go with the next look at such contexts.
    const HWND other = make();
    ASSERT_NE(GetDC(other), nullptr);
    const Alive before;
    const HWND window = make();
    HDC own = nullptr;
    EXPECT_GT(until_there_is_memory([&] { return (own = GetDC(window)) != nullptr; }), 1);
    EXPECT_EQ(GetDC(window), own);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::DeviceContexts), before.contexts + 1);
    DestroyWindow(window);
    EXPECT_NE(GetDC(other), nullptr);
    EXPECT_EQ(Alive(), before);
    DestroyWindow(other);
}

TEST(WithoutMemory, TextIsMeasuredOrNot) {
    const Paper reference;
    const int width = reference.width(kMixed);
    const auto size_of = [](std::u16string_view text) { return static_cast<int>(text.size()); };
    const auto each = [](auto&& body) {
        // A font that nothing is known of yet.
        const Paper paper(60, 40);
        EXPECT_GT(until_there_is_memory([&] { return body(paper); }), 1);
    };
    each([&](const Paper& paper) {
        TEXTMETRICW metrics{};
        return GetTextMetricsW(paper.context, &metrics) && metrics.tmHeight == reference.extent(u"x").cy;
    });
    each([&](const Paper& paper) {
        SIZE size{};
        if (!GetTextExtentPoint32W(paper.context, kMixed.data(), size_of(kMixed), &size)) return false;
        EXPECT_EQ(size.cx, width);
        return true;
    });
    each([&](const Paper& paper) {
        int widths[kMixed.size()];
        return ZrGetLeastTextWidths(paper.context, kMixed.data(), size_of(kMixed), 0x2026, widths) != FALSE;
    });
    each([&](const Paper& paper) {
        RECT box{0, 0, 60, 40};
        return DrawTextW(paper.context, kMixed.data(), size_of(kMixed), &box, DT_WORDBREAK | DT_END_ELLIPSIS) > 0;
    });
    each([&](const Paper& paper) {
        return ExtTextOutW(paper.context, 1, 1, 0, nullptr, kMixed.data(), static_cast<UINT>(kMixed.size()), nullptr) !=
               FALSE;
    });
    EXPECT_EQ(reference.width(kMixed), width);
}

TEST(WithoutMemory, DrawnTextIsTheSameAfterwards) {
    const Paper expected(200, 40);
    const Paper paper(200, 40);
    const auto draw = [](const Paper& to) {
        return ExtTextOutW(to.context, 3, 3, 0, nullptr, kMixed.data(), static_cast<UINT>(kMixed.size()), nullptr) !=
               FALSE;
    };
    ASSERT_TRUE(draw(expected));
    EXPECT_GT(until_there_is_memory([&] { return draw(paper); }), 1);
    // Parts of it may have been drawn before.
    const RECT all{0, 0, 200, 40};
    FillRect(paper.context, &all, static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH)));
    ASSERT_TRUE(draw(paper));
    int different = 0;
    for (int y = 0; y < 40; ++y) {
        for (int x = 0; x < 200; ++x) {
            different += GetPixel(paper.context, x, y) != GetPixel(expected.context, x, y) ? 1 : 0;
        }
    }
    EXPECT_EQ(different, 0);
}

TEST(WithoutMemory, APictureIsWrittenOrNot) {
    const Paper paper(50, 40);
    const zr::test::TempFolder folder;
    const std::u16string path = folder.handheld() + u"\\a.png";
    EXPECT_GT(until_there_is_memory([&] { return ZrWriteBitmapPng(paper.bitmap, path.c_str()) != FALSE; }), 1);
    EXPECT_GT(std::filesystem::file_size(folder.host() / "a.png"), 50u);
}

TEST(WithoutMemory, AForkedChildOpensItsOwnFont) {
    const Paper paper;
    const int width = paper.width(kMixed);
    const int code = zr::test::in_fork([&] {
        SIZE size{};
        for (int successes = 0; successes < 5000; ++successes) {
            const FailingNew failing(successes);
            if (GetTextExtentPoint32W(paper.context, kMixed.data(), static_cast<int>(kMixed.size()), &size)) break;
        }
        return size.cx == width ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}

// Takes all descriptors but so many.
class FewDescriptors {
public:
    explicit FewDescriptors(int room) {
        rlimit tight{};
        getrlimit(RLIMIT_NOFILE, &tight);
        tight.rlim_cur = 64;
        setrlimit(RLIMIT_NOFILE, &tight);
        for (int copy = dup(STDIN_FILENO); copy >= 0; copy = dup(STDIN_FILENO)) {
            taken_.push_back(copy);
        }
        for (; room > 0; --room) {
            close(taken_.back());
            taken_.pop_back();
        }
    }
    ~FewDescriptors() {
        for (const int each : taken_) {
            close(each);
        }
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    std::vector<int> taken_;
};

bool is_for_want_of_descriptors(DWORD error) {
    return error == ERROR_MOD_NOT_FOUND || error == ERROR_TOO_MANY_OPEN_FILES;
}

}  // namespace

// Measures with few descriptors, and with many again: the width that it is given, or an error at first. `warm`: the
// fonts of plain letters were in use before.
ZR_CHILD(text_with_few_descriptors) {
    const int room = std::stoi(args[0]);
    const int expected = std::stoi(args[1]);
    const bool is_warm = args[2] == "warm";
    const Paper paper;
    const Paper plain;
    if (is_warm && plain.width(u"Text") <= 0) return 1;
    const auto measure = [&](SIZE& size) {
        return GetTextExtentPoint32W(paper.context, kMixed.data(), static_cast<int>(kMixed.size()), &size) != FALSE;
    };
    SIZE size{};
    {
        const FewDescriptors few(room);
        SetLastError(ERROR_SUCCESS);
        const bool good = measure(size);
        if (!good && !is_for_want_of_descriptors(GetLastError())) return 2;
        if (good && size.cx != expected) return 3;
        TEXTMETRICW metrics{};
        if (!GetTextMetricsW(paper.context, &metrics) && !is_for_want_of_descriptors(GetLastError())) return 4;
        if (room == 0 && !is_warm && good) return 5;
    }
    if (!measure(size)) return 6;
    return size.cx == expected ? 0 : 7;
}

TEST(WithoutDescriptors, TextIsMeasuredRightlyOrNot) {
    const std::string expected = std::to_string(Paper().width(kMixed));
    for (const char* const state : {"cold", "warm"}) {
        for (int room = 0; room <= 12; room += zr::test::kInstrumented ? 4 : 1) {
            Child child("text_with_few_descriptors", {std::to_string(room), expected, state});
            EXPECT_EQ(child.wait(), 0) << state << ' ' << room;
        }
    }
}

TEST(WithoutDescriptors, APictureIsNotWritten) {
    const Paper paper(20, 20);
    const zr::test::TempFolder folder;
    const std::u16string path = folder.handheld() + u"\\a.png";
    ASSERT_TRUE(ZrWriteBitmapPng(paper.bitmap, path.c_str()));
    const int code = zr::test::in_fork([&] {
        {
            const FewDescriptors few(0);
            if (ZrWriteBitmapPng(paper.bitmap, path.c_str())) return 1;
            if (GetLastError() != ERROR_TOO_MANY_OPEN_FILES) return 2;
        }
        return ZrWriteBitmapPng(paper.bitmap, path.c_str()) ? 0 : 3;
    });
    EXPECT_EQ(code, 0);
}
