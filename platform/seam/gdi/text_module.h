#pragma once

// What the platform and its text module say to each other. The module has fonts, their shaping and their drawing; what
// is selected where, lines and handles are the platform's. One call at a time. Nothing throws. What fails says why by
// errno: ENOMEM, or EMFILE where no font file could be opened.

#include <cstddef>
#include <cstdint>
#include <string>

namespace zr::platform {

struct FontWish {
    const char* family;  // UTF-8; one that is not there is replaced by what comes nearest
    int pixels;          // of the em; with `of_cell` of ascent and descent together
    bool of_cell;
    int weight;  // 100 to 1000
    bool italic;
    bool underline;
    bool strike_out;
};

struct FontFacts {
    int ascent;
    int descent;
    int em;
    int average;  // width
    int widest;
};

// 32 bits a pixel, 0x00RRGGBB.
struct Canvas {
    unsigned char* pixels;
    int width;
    int height;
    int stride;
};

struct ClipArea {
    int left;
    int top;
    int right;
    int bottom;
};

struct TextFunctions {
    // In a child made by fork, before anything else: the parent's fonts are not used any more, nor closed.
    void (*forget_fonts)() noexcept;
    // NULL: why is in errno.
    void* (*open_font)(const FontWish& wish, FontFacts& facts) noexcept;
    void (*close_font)(void* font) noexcept;
    // How much further each unit takes, in pixels: what belongs together (a pair of surrogates, a letter and its marks)
    // takes it all at its first unit. Control characters take nothing. False: why is in errno.
    bool (*measure)(void* font, const char16_t* text, std::size_t size, int* advances) noexcept;
    // How much each unit takes at least in every text that consists of a stretch of this one and `mark` before or
    // behind it. Where text and mark are plain letters that is what it takes; 0 where too little is known.
    bool (*measure_least)(void* font, const char16_t* text, std::size_t size, char16_t mark, int* widths) noexcept;
    // Before which units a line may break, by the rules of the text's script.
    bool (*find_breaks)(const char16_t* text, std::size_t size, unsigned char* breaks) noexcept;
    bool (*draw)(void* font, const Canvas& canvas, const ClipArea& clip, const char16_t* text, std::size_t size, int x,
                 int baseline, std::uint32_t colour) noexcept;
    bool (*write_png)(const Canvas& canvas, std::string& png) noexcept;
};

using TextFunctionsOf = const TextFunctions* (*)();
inline constexpr const char* kTextModule = "libzrplatform_text.so";
inline constexpr const char* kTextFunctions = "zr_text_functions";

}  // namespace zr::platform
