#pragma once

// One HTML control: its window's messages, its document's loading, what it tells its parent.

#include <map>
#include <memory>
#include <string>

#include "document.h"
#include "engine.h"
#include "kernel/host_events.h"
#include "platform/html.h"
#include "windowing/post_room.h"

namespace zr::platform {

// Posted to the control: its engine has said something.
inline constexpr UINT kEngineSpoke = WM_APP + 0x3A5;

// Posts kEngineSpoke once when the engine speaks, until it is set anew; and once when it is rung, until it was heard.
class EngineBell final : public HostSource, public RoomWaiter {
public:
    explicit EngineBell(HWND window) : window_(window) {}
    ~EngineBell() override { unset(); }

    DWORD set(int descriptor) noexcept;
    void unset() noexcept;

    // The control's thread only: what a call has read beside its answer is still to be told.
    void ring() noexcept;
    void heard() noexcept { is_rung_ = false; }

    void ready() noexcept override;
    void room() noexcept override;

private:
    const HWND window_;
    int descriptor_ = -1;
    bool is_rung_ = false;
};

// The control's thread only. Held while a procedure of its parent may run, which may destroy the window.
class HtmlControl : public std::enable_shared_from_this<HtmlControl> {
public:
    explicit HtmlControl(HWND window) : window_(window), bell_(window) {}
    ~HtmlControl() { leave(); }
    HtmlControl(const HtmlControl&) = delete;
    HtmlControl& operator=(const HtmlControl&) = delete;

    // Each may throw std::bad_alloc. Error codes, unless stated.
    DWORD add_text(std::string_view utf8, bool is_plain);
    DWORD add_text(std::u16string_view text, bool is_plain);
    DWORD end_source();
    void forget_source() noexcept;
    DWORD navigate(std::u16string_view address);
    void clear();
    void enable_scripting(bool enable) noexcept { scripts_ = enable; }
    void allow_remote(bool allow) noexcept { remote_ = allow; }
    DWORD set_image(DWORD_PTR cookie, std::string_view bytes, std::string_view type);
    DWORD fail_image(DWORD_PTR cookie);
    DWORD set_bitmap(const INLINEIMAGEINFO& image);
    DWORD scroll_to(std::u16string_view anchor);
    LRESULT layout(const char* function);
    DWORD give_document(IDispatch** document);
    HRESULT wait(DWORD milliseconds);
    HRESULT draw(int width, int height, std::string& png);
    LONGLONG live_objects();

    // Tells the parent what there is to tell.
    void serve();
    // The window is gone.
    void leave() noexcept;

private:
    DWORD begin(EngineFrame kind, std::uint32_t flags, std::string_view content);
    DWORD begin_once(EngineFrame kind, std::uint32_t flags, std::string_view content);
    DWORD send_image(DWORD_PTR cookie, bool is_there, std::string_view type, std::string_view bytes);
    HRESULT ready_document();
    void drop_document() noexcept;
    void drop_engine() noexcept;
    void handle(const std::string& event);
    LRESULT notify(UINT code, std::string_view target, DWORD_PTR cookie);

    const HWND window_;
    EngineBell bell_;
    std::shared_ptr<Engine> engine_;
    bool engine_remote_ = false;
    std::shared_ptr<Document> document_;
    std::uint32_t last_document_ = 0;
    std::string source_;
    char16_t first_half_ = 0;  // of a character whose second half may begin the next part
    bool is_plain_ = false;
    bool scripts_ = false;
    bool remote_ = false;
    bool is_told_complete_ = false;
    bool is_gone_ = false;
    // Images that are to be answered, and the engine's requests for them. A cookie is never given twice: one that comes
    // late must not fill another document.
    std::map<DWORD_PTR, std::uint32_t> wanted_;
    DWORD_PTR last_cookie_ = 0;
};

// The control behind a window of the class; NULL. The window's thread only.
std::shared_ptr<HtmlControl> html_control(HWND window);

}  // namespace zr::platform
