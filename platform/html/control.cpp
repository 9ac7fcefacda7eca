#include "control.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "base/utf.h"
#include "platform/base.h"
#include "platform/gdi.h"
#include "platform/kernel.h"
#include "platform/places.h"

namespace zr::platform {
namespace {

constexpr std::size_t kLongestSource = 256u << 20;
constexpr int kMostReads = 10'000;  // before a document, of what an engine still says of the last one
constexpr int kLongestPicture = 16'384;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool is_address_of(std::u16string_view address, std::u16string_view scheme) {
    if (address.size() < scheme.size()) return false;
    return std::equal(scheme.begin(), scheme.end(), address.begin(), [](char16_t a, char16_t b) {
        return a == (b >= u'A' && b <= u'Z' ? static_cast<char16_t>(b + 32) : b);
    });
}

SIZE client_size(HWND window) {
    RECT client{};
    GetClientRect(window, &client);
    return {std::clamp<LONG>(client.right, 1, kLongestPicture), std::clamp<LONG>(client.bottom, 1, kLongestPicture)};
}

template <class Number>
void append_raw(std::string& bytes, Number value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// A bitmap as a BMP file: 24 bits a pixel, the lowest row first.
std::string bitmap_file(HBITMAP bitmap) {
    BITMAP facts{};
    if (GetObjectW(bitmap, sizeof facts, &facts) != sizeof facts) return {};
    const HDC context = CreateCompatibleDC(nullptr);
    const HGDIOBJ before = context ? SelectObject(context, bitmap) : nullptr;
    std::string bytes;
    if (before) {
        const std::size_t row = (static_cast<std::size_t>(facts.bmWidth) * 3 + 3) / 4 * 4;
        const auto size = static_cast<std::uint32_t>(row * static_cast<std::size_t>(facts.bmHeight));
        bytes += "BM";
        for (const std::uint32_t word :
             {54 + size, 0u, 54u, 40u, static_cast<std::uint32_t>(facts.bmWidth),
              static_cast<std::uint32_t>(facts.bmHeight), 0x180001u, 0u, size, 2835u, 2835u, 0u, 0u}) {
            append_raw(bytes, word);
        }
        for (int y = facts.bmHeight - 1; y >= 0; --y) {
            for (int x = 0; x < facts.bmWidth; ++x) {
                const COLORREF colour = GetPixel(context, x, y);
                bytes += static_cast<char>(colour >> 16);
                bytes += static_cast<char>(colour >> 8);
                bytes += static_cast<char>(colour);
            }
            bytes.resize((bytes.size() - 54 + 3) / 4 * 4 + 54);
        }
        SelectObject(context, before);
    }
    if (context) DeleteDC(context);
    return bytes;
}

}  // namespace

// ---- The bell ----

DWORD EngineBell::set(int descriptor) noexcept {
    unset();
    descriptor_ = descriptor;
    return watch_host(*this, descriptor);
}

void EngineBell::unset() noexcept {
    unwatch_host(*this);
    forget_room(*this);
    unwatch_host(*this);  // there may have been room just then
}

// Where the queue has no room the next frame of the engine, or the next wait, brings it.
void EngineBell::ring() noexcept {
    if (!is_rung_) is_rung_ = PostMessageW(window_, kEngineSpoke, 0, 0) != FALSE;
}

void EngineBell::ready() noexcept {
    unwatch_host(*this);
    post_or_wait(window_, kEngineSpoke, 0, 0, *this);
}

// Not to be posted from: the thread that waits for the engine asks again.
void EngineBell::room() noexcept {
    watch_host(*this, descriptor_);
}

// ---- The engine and its document ----

void HtmlControl::drop_document() noexcept {
    if (document_) document_->leave();
    document_.reset();
    wanted_.clear();
    is_told_complete_ = false;
}

void HtmlControl::drop_engine() noexcept {
    bell_.unset();
    drop_document();
    if (engine_) {
        engine_->tell_of_events(nullptr, nullptr);
        engine_->end();
    }
    engine_.reset();
}

void HtmlControl::leave() noexcept {
    is_gone_ = true;
    drop_engine();
}

DWORD HtmlControl::begin(EngineFrame kind, std::uint32_t flags, std::string_view content) {
    const bool had_engine = engine_ != nullptr;
    DWORD error = begin_once(kind, flags, content);
    // It may be gone since it was last looked at.
    if (error == ERROR_PROCESS_ABORTED && had_engine) error = begin_once(kind, flags, content);
    return error;
}

DWORD HtmlControl::begin_once(EngineFrame kind, std::uint32_t flags, std::string_view content) {
    drop_document();
    // One that ended while nobody asked it has not been missed yet.
    for (int i = 0; i < kMostReads && engine_ && engine_->read(Deadline::at_once()) == ERROR_SUCCESS; ++i) {
    }
    if (engine_ && (!engine_->is_alive() || engine_remote_ != remote_)) drop_engine();
    if (!engine_) {
        engine_ = Engine::start(remote_);
        if (!engine_) return GetLastError();
        engine_remote_ = remote_;
        engine_->tell_of_events([](void* bell) { static_cast<EngineBell*>(bell)->ring(); }, &bell_);
    }
    const SIZE size = client_size(window_);
    FrameWriter frame(kind);
    frame.number(++last_document_)
        .number(scripts_ ? flags | kEngineScripts : flags)
        .number(static_cast<std::uint32_t>(size.cx))
        .number(static_cast<std::uint32_t>(size.cy))
        .text(content);
    DWORD error = engine_->send(frame, Deadline::after(engine_patience().load));
    if (error == ERROR_SUCCESS) error = bell_.set(engine_->descriptor());
    if (error != ERROR_SUCCESS) {
        drop_engine();
        return error;
    }
    document_ = std::make_shared<Document>(engine_, last_document_);
    return ERROR_SUCCESS;
}

// A part may end within a character.
DWORD HtmlControl::add_text(std::string_view utf8, bool is_plain) {
    if (source_.size() + utf8.size() > kLongestSource) return ERROR_FILE_TOO_LARGE;
    if (source_.empty()) is_plain_ = is_plain;
    if (std::exchange(first_half_, u'\0') != 0) source_ += kReplacement;
    source_ += utf8;
    return ERROR_SUCCESS;
}

DWORD HtmlControl::add_text(std::u16string_view text, bool is_plain) {
    if (text.empty()) return ERROR_SUCCESS;
    std::u16string part;
    if (const char16_t half = std::exchange(first_half_, u'\0'); half != 0) part += half;
    part += text;
    const bool is_cut = (part.back() & 0xFC00) == 0xD800;
    const char16_t half = is_cut ? part.back() : u'\0';
    if (is_cut) part.pop_back();
    const DWORD error = add_text(utf8_of(part, LoneSurrogate::Replaced), is_plain);
    if (error == ERROR_SUCCESS) first_half_ = half;
    return error;
}

void HtmlControl::forget_source() noexcept {
    std::string().swap(source_);
    first_half_ = 0;
}

DWORD HtmlControl::end_source() {
    std::string source;
    source.swap(source_);
    if (std::exchange(first_half_, u'\0') != 0) source += kReplacement;
    // What is no UTF-8 is replaced.
    source = utf8_of(host_to_wide(source), LoneSurrogate::Replaced);
    return begin(EngineFrame::Load, is_plain_ ? std::uint32_t{kEnginePlainText} : 0, source);
}

DWORD HtmlControl::navigate(std::u16string_view address) {
    const bool is_at_hand = is_address_of(address, u"data:") || is_address_of(address, u"about:blank");
    const bool is_remote = is_address_of(address, u"http:") || is_address_of(address, u"https:");
    if (!is_at_hand && !(is_remote && remote_)) return ERROR_ACCESS_DENIED;
    return begin(EngineFrame::Navigate, 0, utf8_of(address, LoneSurrogate::Replaced));
}

// What the engine shows is shown to nobody, but it may still run.
void HtmlControl::clear() {
    forget_source();
    const bool had_one = document_ != nullptr && document_->check() == S_OK;
    drop_document();
    if (!had_one) return;
    begin(EngineFrame::Load, 0, "");
    drop_document();
}

// ---- Images ----

DWORD HtmlControl::send_image(DWORD_PTR cookie, bool is_there, std::string_view type, std::string_view bytes) {
    const auto wanted = wanted_.find(cookie);
    if (wanted == wanted_.end()) return ERROR_INVALID_PARAMETER;
    const std::uint32_t request = wanted->second;
    wanted_.erase(wanted);
    if (!engine_ || !engine_->is_alive()) return ERROR_PROCESS_ABORTED;
    FrameWriter frame(EngineFrame::Image);
    frame.number(request).number(is_there ? 1 : 0).text(type).text(bytes);
    return engine_->send(frame, Deadline::after(engine_patience().call));
}

DWORD HtmlControl::set_image(DWORD_PTR cookie, std::string_view bytes, std::string_view type) {
    if (bytes.size() > kLongestSource) return ERROR_FILE_TOO_LARGE;
    return send_image(cookie, true, type, bytes);
}

DWORD HtmlControl::fail_image(DWORD_PTR cookie) {
    return send_image(cookie, false, "", "");
}

DWORD HtmlControl::set_bitmap(const INLINEIMAGEINFO& image) {
    const auto bitmap = static_cast<HBITMAP>(image.hbm);
    const std::string file = bitmap_file(bitmap);
    if (image.bOwnBitmap) DeleteObject(bitmap);
    return file.empty() ? fail_image(image.dwCookie) : set_image(image.dwCookie, file, "image/bmp");
}

// ---- Questions ----

HRESULT HtmlControl::ready_document() {
    if (!document_) return RPC_E_DISCONNECTED;
    if (const HRESULT result = document_->check(); FAILED(result)) return result;
    return result_of(engine_->wait_until_ready(document_->number(), Deadline::after(engine_patience().load)));
}

DWORD HtmlControl::give_document(IDispatch** document) {
    IDispatchEx* root = nullptr;
    HRESULT result = ready_document();
    if (SUCCEEDED(result)) result = document_->root(&root);
    *document = root;
    if (SUCCEEDED(result)) return ERROR_SUCCESS;
    if (result == E_OUTOFMEMORY) return ERROR_NOT_ENOUGH_MEMORY;
    if (result == HRESULT_FROM_WIN32(ERROR_TIMEOUT)) return ERROR_TIMEOUT;
    return document_ ? ERROR_PROCESS_ABORTED : ERROR_NOT_FOUND;
}

DWORD HtmlControl::scroll_to(std::u16string_view anchor) {
    std::string script = "zr.anchor(";
    append_literal(script, anchor);
    std::string what;
    HRESULT result = ready_document();
    if (SUCCEEDED(result)) result = document_->call(script + ")", what);
    if (FAILED(result)) return ERROR_PROCESS_ABORTED;
    return what == "t" ? ERROR_SUCCESS : ERROR_NOT_FOUND;
}

LRESULT HtmlControl::layout(const char* function) {
    std::string what;
    HRESULT result = ready_document();
    if (SUCCEEDED(result)) result = document_->call(function, what);
    VARIANT value{};
    if (SUCCEEDED(result)) result = document_->take_as(VT_I4, what, &value);
    return SUCCEEDED(result) ? value.lVal : 0;
}

LONGLONG HtmlControl::live_objects() {
    std::string what;
    VARIANT value{};
    HRESULT result = ready_document();
    if (SUCCEEDED(result)) result = document_->call("zr.live()", what);
    if (SUCCEEDED(result)) result = document_->take_as(VT_I4, what, &value);
    return SUCCEEDED(result) ? value.lVal : -1;
}

HRESULT HtmlControl::draw(int width, int height, std::string& png) {
    if (width < 1 || width > kLongestPicture || height < 0 || height > kLongestPicture) return E_INVALIDARG;
    if (const HRESULT result = ready_document(); FAILED(result)) return result;
    const std::uint32_t request = engine_->next_request();
    FrameWriter frame(EngineFrame::Draw);
    frame.number(request)
        .number(document_->number())
        .number(static_cast<std::uint32_t>(width))
        .number(static_cast<std::uint32_t>(height));
    EngineAnswer answer = EngineAnswer::Failed;
    const DWORD error = engine_->ask(frame, request, Deadline::after(engine_patience().load), answer, png);
    if (error != ERROR_SUCCESS) return result_of(error);
    return answer == EngineAnswer::Done ? S_OK : E_FAIL;
}

// ---- What the parent is told ----

LRESULT HtmlControl::notify(UINT code, std::string_view target, DWORD_PTR cookie) {
    const HWND parent = GetParent(window_);
    if (parent == nullptr) return FALSE;
    std::u16string text = host_to_wide(target);
    NM_HTMLVIEWW told{};
    told.hdr.hwndFrom = window_;
    told.hdr.idFrom = static_cast<UINT_PTR>(GetWindowLongPtrW(window_, GWL_ID));
    told.hdr.code = code;
    told.szTarget = text.data();
    told.dwCookie = cookie;
    return SendMessageW(parent, WM_NOTIFY, told.hdr.idFrom, reinterpret_cast<LPARAM>(&told));
}

void HtmlControl::handle(const std::string& event) {
    FrameReader frame(event);
    const std::uint32_t document = frame.number();
    if (!document_ || document != document_->number()) return;
    switch (frame.kind()) {
        case EngineFrame::Complete:
            is_told_complete_ = true;
            notify(NM_DOCUMENTCOMPLETE, "", 0);
            return;
        case EngineFrame::Title:
            notify(NM_TITLE, frame.text(), 0);
            return;
        case EngineFrame::Link:
            notify(NM_HOTSPOT, frame.text(), 0);
            return;
        case EngineFrame::Wanted: {
            const DWORD_PTR cookie = ++last_cookie_;
            wanted_.emplace(cookie, frame.number());
            if (notify(NM_INLINE_IMAGE, frame.text(), cookie) == FALSE && !is_gone_) fail_image(cookie);
            return;
        }
        default:
            return;
    }
}

void HtmlControl::serve() {
    const std::shared_ptr<HtmlControl> held = shared_from_this();
    bell_.heard();
    if (engine_ && engine_->is_alive()) engine_->read(Deadline::at_once());
    std::string event;
    while (!is_gone_ && engine_ && engine_->take_event(event)) {
        handle(event);
    }
    if (!is_gone_ && engine_ && engine_->is_alive()) bell_.set(engine_->descriptor());
}

HRESULT HtmlControl::wait(DWORD milliseconds) {
    const std::shared_ptr<HtmlControl> held = shared_from_this();
    const Deadline deadline = Deadline::after(milliseconds);
    for (bool is_late = false;;) {
        serve();
        if (is_gone_ || !document_) return RPC_E_DISCONNECTED;
        if (is_told_complete_) return S_OK;
        if (const HRESULT result = document_->check(); FAILED(result)) return result;
        if (is_late) return HRESULT_FROM_WIN32(ERROR_TIMEOUT);
        is_late = Deadline::now() >= deadline.ns;
        const DWORD error = engine_->read(deadline);
        if (error != ERROR_SUCCESS) return result_of(error);
    }
}

}  // namespace zr::platform
