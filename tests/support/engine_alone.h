#pragma once

// WebKitGTK by itself, in the calling process: what a program would use that needs no control. One thread.

#include <webkit2/webkit2.h>

#include <string>

namespace zr::test {

// One view of the size that the controls have.
class EngineAlone {
public:
    EngineAlone();  // wants a display
    ~EngineAlone();
    EngineAlone(const EngineAlone&) = delete;
    EngineAlone& operator=(const EngineAlone&) = delete;

    void show(const std::string& html);  // until it is loaded
    std::string evaluate(const char* script);
    bool looks_like(const std::string& file);  // whether what is seen is the picture in a PNG file

private:
    GtkWidget* window_;
    WebKitWebView* view_;
};

}  // namespace zr::test
