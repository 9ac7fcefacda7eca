#pragma once

// What zr html and zr mail show --html have in common: a page is shown as the client would show it, and its text, its
// links, what a script makes of it, or a picture of it comes out.

#include <string>
#include <string_view>

#include "zr/base/json.h"
#include "zr/commands/command.h"

namespace zr {

struct HtmlOptions {
    bool text = false;
    bool links = false;
    std::string script;
    std::string png;
    LONG width = 0;  // 0: the screen's
    LONG height = 0;
    bool remote = false;
    Option text_option{nullptr};
    Option links_option{nullptr};
    Option script_option{nullptr};
    Option png_option{nullptr};
    Option width_option{nullptr};
    Option height_option{nullptr};
    Option remote_option{nullptr};

    bool wants_text() const;  // because it was asked for, or nothing else was
    bool any_given() const;
};

void add_html_options(Command& command, HtmlOptions& options);

// Throws Failure with Usage for what does not go together.
void check_html_options(const HtmlOptions& options);

// Shows a page, which is UTF-8. What was asked for is printed, or becomes members of `json` where there is one. None
// when there are no links, where these were asked for. Throws Failure.
Exit show_html(std::string_view html, const HtmlOptions& options, Json* json = nullptr);

}  // namespace zr
