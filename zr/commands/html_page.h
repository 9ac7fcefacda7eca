#pragma once

// A page in an HTML control that nobody sees. Functions throw Failure with Exit::PageFailed when there is no engine,
// when it does not answer, or when a script fails.

#include <platform/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "zr/base/json.h"

namespace zr {

struct HtmlLink {
    std::string address;
    std::string text;
};

struct ScriptValue {
    std::string text;  // as a script would write it out
    Json json;         // what is no value in JSON is null
};

class HtmlPage {
public:
    // With `remote` the page may fetch what it names from elsewhere.
    HtmlPage(LONG width, LONG height, bool remote);
    ~HtmlPage();
    HtmlPage(const HtmlPage&) = delete;
    HtmlPage& operator=(const HtmlPage&) = delete;

    // Shows HTML, which is UTF-8, and returns when it is there with its images.
    void show(std::string_view html);

    std::string title() const;
    std::string text() const;
    std::vector<HtmlLink> links() const;
    ScriptValue value_of(const std::string& script) const;
    // A PNG file, which is replaced when it exists; - is standard output.
    void draw(const std::string& file) const;

private:
    // Throws when the window cannot be made.
    HWND make_window(const WCHAR* class_name, HWND parent) const;

    LONG width_;
    LONG height_;
    HWND owner_ = nullptr;
    HWND control_ = nullptr;
};

}  // namespace zr
