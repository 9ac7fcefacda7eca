#pragma once

// WebKitGTK by itself, in the calling process: what a program would use that needs no control. One thread.

#include <webkit2/webkit2.h>

#include <string>

namespace zr::bench {

// One view of the size that the controls have.
class EngineAlone {
public:
    EngineAlone();  // wants a display
    ~EngineAlone();
    EngineAlone(const EngineAlone&) = delete;
    EngineAlone& operator=(const EngineAlone&) = delete;

    void show(const std::string& html);  // until it is loaded
    std::string evaluate(const char* script);
    bool draw(const std::string& file);  // what is seen, as a PNG file

private:
    GtkWidget* window_;
    WebKitWebView* view_;
};

}  // namespace zr::bench
