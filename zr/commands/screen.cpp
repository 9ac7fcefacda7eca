// zr screen: what programs are told of the screen, and how text is fitted into a place on it.

#include <ZrUtility/Helpers/GraphicalUtilities.h>
#include <platform/base.h>
#include <platform/errors.h>
#include <platform/gdi.h>
#include <platform/windowing.h>

#include <algorithm>
#include <memory>
#include <string>

#include "zr/base/failure.h"
#include "zr/base/host_paths.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"

namespace zr {
namespace {

constexpr LONG kMostPixels = 16'000;

struct InfoOptions {
    bool json = false;
};

struct Dots {
    int across = 0;
    int down = 0;
};

Dots dots_per_inch() {
    const HDC screen = GetDC(nullptr);
    const Dots dots{GetDeviceCaps(screen, LOGPIXELSX), GetDeviceCaps(screen, LOGPIXELSY)};
    ReleaseDC(nullptr, screen);
    return dots;
}

Exit show_screen(const InfoOptions& options) {
    const int width = GraphicalUtilities::GetScreenWidth();
    const int height = GraphicalUtilities::GetScreenHeight();
    const int depth = GraphicalUtilities::GetColourDepth();
    const int across = GraphicalUtilities::GetHorizontalResolution();
    const int down = GraphicalUtilities::GetVerticalResolution();
    const Dots dots = dots_per_inch();
    const bool is_up = GraphicalUtilities::IsSipUp() != 0;
    const int panel = GraphicalUtilities::GetSipHeight();
    if (options.json) {
        print_json_line(Json{{"width", width},
                             {"height", height},
                             {"depth", depth},
                             {"dots_per_inch_across", dots.across},
                             {"dots_per_inch_down", dots.down},
                             {"pixels_per_metre_across", across},
                             {"pixels_per_metre_down", down},
                             {"high_resolution", GraphicalUtilities::IsHighRes() != 0},
                             {"input_panel_up", is_up},
                             {"input_panel_height", panel}});
        return Exit::Ok;
    }
    print("size\t" + std::to_string(width) + "x" + std::to_string(height) + "\ndepth\t" + std::to_string(depth) +
          "\nresolution\t" + std::to_string(dots.across) + "x" + std::to_string(dots.down) + " dots per inch, " +
          std::to_string(across) + "x" + std::to_string(down) + " pixels per metre" +
          (GraphicalUtilities::IsHighRes() != 0 ? ", high" : "") + "\ninput panel\t" + (is_up ? "up" : "down") + ", " +
          std::to_string(panel) + " high\n");
    return Exit::Ok;
}

struct FitOptions {
    std::string text;
    LONG width = 0;
    LONG height = 0;
    LONG split = 0;
    std::string font;
    LONG points = 0;
    bool start = false;
    std::string png;
    bool json = false;
    Option height_option{nullptr};
    Option split_option{nullptr};
    Option points_option{nullptr};
};

// A window whose device context keeps the font that is selected into it.
class FittingWindow {
public:
    explicit FittingWindow(const FitOptions& options) {
        WNDCLASSW description{};
        description.style = CS_OWNDC;
        description.lpfnWndProc = DefWindowProcW;
        description.lpszClassName = u"zr.screen.fit";
        RegisterClassW(&description);
        window_ =
            CreateWindowExW(0, description.lpszClassName, nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
        font_ = make_font(options);
        context_ = GetDC(window_);
        if (!context_ || !font_ || !SelectObject(context_, font_))
            throw Failure{Exit::StoreFailed, "there is no font to measure with"};
    }
    ~FittingWindow() {
        if (window_) DestroyWindow(window_);
    }
    FittingWindow(const FittingWindow&) = delete;
    FittingWindow& operator=(const FittingWindow&) = delete;

    HWND get() const { return window_; }
    HFONT font() const { return font_; }

    SIZE measure(const std::u16string& text) const {
        SIZE size{};
        if (!GetTextExtentPoint32W(context_, text.data(), static_cast<int>(text.size()), &size)) {
            throw Failure{Exit::StoreFailed, GetLastError() == ERROR_MOD_NOT_FOUND
                                                 ? "text cannot be measured without Pango (package libpangocairo-1.0-0)"
                                                 : "the text cannot be measured"};
        }
        return size;
    }

private:
    static HFONT make_font(const FitOptions& options) {
        const HFONT usual = GraphicalUtilities::CreateDefaultFont(nullptr, 0, static_cast<int>(options.points));
        LOGFONTW description{};
        if (!usual || options.font.empty() || !GetObjectW(usual, sizeof description, &description)) return usual;
        DeleteObject(usual);
        const std::u16string name = to_utf16(options.font);
        if (name.size() >= LF_FACESIZE) throw Failure{Exit::Usage, "--font: the name is longer than 31 characters"};
        std::fill(std::copy(name.begin(), name.end(), description.lfFaceName), std::end(description.lfFaceName), u'\0');
        return CreateFontIndirectW(&description);
    }

    HWND window_ = nullptr;
    HFONT font_ = nullptr;
    HDC context_ = nullptr;
};

std::u16string fit(const FitOptions& options, const FittingWindow& window, std::u16string text) {
    RECT box{0, 0, options.width, options.height};
    LONG result = S_OK;
    if (options.height_option.given()) {
        result = GraphicalUtilities::TrimWithEllipsisToRectMultiLine(window.get(), &box, text.data(), 1);
    } else if (options.split_option.given()) {
        result = GraphicalUtilities::TrimWithEllipsisToRectEx(window.get(), &box, text.data(),
                                                              static_cast<int>(options.split));
        if (result == E_FAIL) {
            throw Failure{Exit::Usage, "--split: " + std::to_string(options.split) + " is no place in the text"};
        }
    } else {
        result = GraphicalUtilities::TrimWithEllipsisToRect(window.get(), &box, text.data(), options.start ? 0 : 1);
    }
    if (result != S_OK) throw Failure{Exit::StoreFailed, "there is no memory for the text"};
    return text.c_str();
}

// ---- The picture ----

// The original above, the fitted text below, each with its box.
class Picture {
public:
    Picture(int width, int height, HFONT font) : context_(CreateCompatibleDC(nullptr)) {
        bitmap_ = CreateCompatibleBitmap(context_, width, height);
        if (!bitmap_) throw Failure{Exit::StoreFailed, "there is no memory for the picture"};
        SelectObject(context_, bitmap_);
        SelectObject(context_, font);
        SetBkMode(context_, TRANSPARENT);
        const RECT all{0, 0, width, height};
        FillRect(context_, &all, static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH)));
    }
    ~Picture() {
        DeleteDC(context_);
        if (bitmap_) DeleteObject(bitmap_);
    }
    Picture(const Picture&) = delete;
    Picture& operator=(const Picture&) = delete;

    void draw(const std::u16string& text, const RECT& box, UINT format) const {
        const HBRUSH paper = CreateSolidBrush(RGB(255, 250, 220));
        const HPEN frame = CreatePen(PS_SOLID, 1, RGB(200, 60, 40));
        SelectObject(context_, paper);
        SelectObject(context_, frame);
        Rectangle(context_, box.left, box.top, box.right, box.bottom);
        RECT inside{box.left + 1, box.top + 1, box.right - 1, box.bottom - 1};
        DrawTextW(context_, text.data(), static_cast<int>(text.size()), &inside, format);
        SelectObject(context_, GetStockObject(WHITE_BRUSH));
        SelectObject(context_, GetStockObject(BLACK_PEN));
        DeleteObject(paper);
        DeleteObject(frame);
    }

    void write(const std::string& file) const {
        const std::size_t slash = file.rfind('/');
        const std::string folder = slash == std::string::npos ? "." : file.substr(0, std::max<std::size_t>(slash, 1));
        const std::string name = slash == std::string::npos ? file : file.substr(slash + 1);
        const std::u16string path = handheld_folder(folder) + u"\\" + to_utf16(name);
        if (!ZrWriteBitmapPng(bitmap_, path.c_str()))
            throw Failure{Exit::Unreadable, file + ": the picture cannot be written"};
    }

private:
    const HDC context_;
    HBITMAP bitmap_ = nullptr;
};

void draw_fit(const FitOptions& options, const FittingWindow& window, const std::u16string& text,
              const std::u16string& fitted) {
    constexpr int margin = 10;
    const bool lines = options.height_option.given();
    const SIZE whole = window.measure(text);
    const int box_height = lines ? options.height : whole.cy + 2;
    const UINT format = DT_NOCLIP | (lines ? DT_WORDBREAK : DT_SINGLELINE | DT_NOPREFIX);
    // As much of what does not fit as shows that it does not.
    const int over = lines ? 4 * whole.cy : 0;
    const int width = std::max<LONG>(options.width, lines ? 0 : std::min<LONG>(whole.cx + 2, 3 * options.width));
    const Picture picture(width + 2 * margin, 2 * box_height + over + 3 * margin, window.font());
    picture.draw(text, {margin, margin, margin + options.width, margin + box_height}, format);
    const int second = margin + box_height + over + margin;
    picture.draw(fitted, {margin, second, margin + options.width, second + box_height}, format);
    picture.write(options.png);
}

Exit fit_text(const FitOptions& options) {
    if (options.width > kMostPixels || options.height > kMostPixels)
        throw Failure{Exit::Usage, "--width and --height: 16000 pixels are the most"};
    if (options.points_option.given() && options.points > 10'000)
        throw Failure{Exit::Usage, "--points: 10000 are the most"};
    const std::u16string text = to_utf16(options.text);
    const FittingWindow window(options);
    const int wide = window.measure(text).cx;
    const std::u16string fitted = fit(options, window, text);
    if (!options.png.empty()) draw_fit(options, window, text, fitted);
    if (options.json) {
        print_json_line(Json{{"text", to_utf8(fitted)},
                             {"changed", fitted != text},
                             {"width", static_cast<int>(window.measure(fitted).cx)},
                             {"width_before", wide}});
    } else {
        print(printable(to_utf8(fitted)) + "\n");
    }
    return Exit::Ok;
}

}  // namespace

void add_screen_info(Command screen) {
    const auto options = std::make_shared<InfoOptions>();
    Command command = screen.add_command("info", "Print what programs are told of the screen");
    command.add_flag("--json", options->json, "Print a JSON object");
    command.footer(
        "The size in pixels, the depth in bits, the resolution, and whether the input panel is up: of the\n"
        "output that the display server shows on, where there is one. ZR_SCREEN says another size and other\n"
        "dots per inch.\n"
        "\n"
        "Examples:\n"
        "  zr screen info\n"
        "  ZR_SCREEN=480x640@192 zr screen info --json");
    command.runs([options] { return show_screen(*options); });
}

void add_screen_fit(Command screen) {
    const auto options = std::make_shared<FitOptions>();
    Command command = screen.add_command("fit", "Shorten a text until it fits a place");
    command.add_option("TEXT", options->text, "The text").required();
    command.add_option("--width", options->width, "How many pixels the place is wide").required().positive();
    options->height_option =
        command.add_option("--height", options->height, "Fit lines into that many pixels").positive();
    options->split_option = command.add_option("--split", options->split, "Keep what begins at this character whole");
    command.add_option("--font", options->font, "The font's name; the system's without it");
    options->points_option = command.add_option("--points", options->points, "The font's size").positive();
    Option start = command.add_flag("--start", options->start, "Cut at the start and not at the end");
    command.add_option("--png", options->png, "Draw the text and what fits into a picture");
    command.add_flag("--json", options->json, "Print a JSON object");
    options->split_option.excludes(options->height_option);
    start.excludes(options->height_option);
    start.excludes(options->split_option);
    command.footer(
        "An ellipsis character stands for what was cut. The place is one pixel smaller on each side. The\n"
        "picture has the text in its box above, and what fits below.\n"
        "\n"
        "Examples:\n"
        "  zr screen fit \"A long line of text\" --width 80\n"
        "  zr screen fit \"A long name.txt\" --width 80 --split 11 --png fit.png");
    command.runs([options] { return fit_text(*options); });
}

}  // namespace zr
