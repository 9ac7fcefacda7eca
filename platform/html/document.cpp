#include "document.h"

#include <locale.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "base/forks.h"
#include "base/utf.h"
#include "object.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

// UTF-16 of what the engine gave, which is always right UTF-8.
BSTR to_bstr(std::string_view utf8) {
    const std::u16string wide = host_to_wide(utf8);
    return SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
}

BSTR from_units(std::string_view digits) {
    std::u16string wide;
    for (std::size_t i = 0; i + 4 <= digits.size(); i += 4) {
        unsigned unit = 0;
        std::from_chars(digits.data() + i, digits.data() + i + 4, unit, 16);
        wide += static_cast<char16_t>(unit);
    }
    return SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
}

// With a point, whatever locale the program has set. Not every standard library's from_chars knows such numbers.
double to_double(const std::string& digits) {
    static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    return strtod_l(digits.c_str(), nullptr, plain);
}

template <class Number>
Number to_number(std::string_view digits) {
    Number value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
}

HRESULT threw(std::string_view what, EXCEPINFO* exception) {
    if (exception != nullptr) {
        *exception = {};
        exception->bstrDescription = to_bstr(what);
        exception->scode = E_FAIL;
    }
    return DISP_E_EXCEPTION;
}

HRESULT give_text(BSTR text, VARIANT* result) {
    if (text == nullptr) return E_OUTOFMEMORY;
    if (result == nullptr) {
        SysFreeString(text);
    } else {
        result->vt = VT_BSTR;
        result->bstrVal = text;
    }
    return S_OK;
}

}  // namespace

HRESULT result_of(DWORD error) noexcept {
    switch (error) {
        case ERROR_SUCCESS:
            return S_OK;
        case ERROR_PROCESS_ABORTED:
            return RPC_E_DISCONNECTED;
        case ERROR_NOT_ENOUGH_MEMORY:
            return E_OUTOFMEMORY;
        default:
            return HRESULT_FROM_WIN32(error);
    }
}

void append_literal(std::string& script, std::u16string_view text) {
    script += '"';
    for (const char16_t unit : text) {
        if (unit >= 0x20 && unit < 0x7F && unit != u'"' && unit != u'\\') {
            script += static_cast<char>(unit);
        } else {
            std::array<char, 8> escaped{};
            std::snprintf(escaped.data(), escaped.size(), "\\u%04x", static_cast<unsigned>(unit));
            script += escaped.data();
        }
    }
    script += '"';
}

std::string utf8_of(std::u16string_view text, LoneSurrogate how) {
    if (std::optional<std::string> right = wide_to_utf8(text)) return *std::move(right);
    std::u16string mended;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char16_t unit = text[i];
        const bool is_high = (unit & 0xFC00) == 0xD800;
        if (is_high && i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00) {
            mended += unit;
            mended += text[++i];
        } else if (!is_high && (unit & 0xFC00) != 0xDC00) {
            mended += unit;
        } else if (how == LoneSurrogate::Replaced) {
            mended += u'\uFFFD';
        } else {
            constexpr std::u16string_view kDigits = u"0123456789abcdef";
            mended += u"\\u";
            for (int shift = 12; shift >= 0; shift -= 4) {
                mended += kDigits[(unit >> shift) & 0xF];
            }
        }
    }
    return *wide_to_utf8(mended);
}

Document::Document(std::shared_ptr<Engine> engine, std::uint32_t number)
    : engine_(std::move(engine)), number_(number), thread_(GetCurrentThreadId()), generation_(fork_generation()) {}

HRESULT Document::check() const noexcept {
    if (generation_ != fork_generation()) return RPC_E_DISCONNECTED;
    if (GetCurrentThreadId() != thread_) return RPC_E_WRONG_THREAD;
    return is_left_ || !engine_->is_alive() ? RPC_E_DISCONNECTED : S_OK;
}

HRESULT Document::ask(EngineFrame kind, const std::string& script, std::string& what, EXCEPINFO* exception) {
    if (const HRESULT result = check(); FAILED(result)) return result;
    if (script.size() >= kLongestEngineFrame / 2) return E_OUTOFMEMORY;
    const std::uint32_t request = engine_->next_request();
    FrameWriter frame(kind);
    frame.number(request).number(number_).text(script);
    EngineAnswer answer = EngineAnswer::Failed;
    const DWORD error = engine_->ask(frame, request, Deadline::after(engine_patience().call), answer, what);
    if (error != ERROR_SUCCESS) return result_of(error);
    if (answer == EngineAnswer::Threw) return threw(what, exception);
    return answer == EngineAnswer::Done ? S_OK : RPC_E_DISCONNECTED;
}

HRESULT Document::call(const std::string& script, std::string& what, EXCEPINFO* exception) {
    return ask(EngineFrame::Call, script, what, exception);
}

HRESULT Document::run(const std::string& script, std::string& what, EXCEPINFO* exception) {
    return ask(EngineFrame::Run, script, what, exception);
}

HRESULT Document::take(const std::string& what, VARIANT* result, EXCEPINFO* exception) {
    if (result != nullptr) VariantInit(result);
    const std::string_view rest = std::string_view(what).substr(what.empty() ? 0 : 1);
    VARIANT scalar{};
    switch (what.empty() ? 'g' : what.front()) {
        case 'e':
            break;
        case 'n':
            scalar.vt = VT_NULL;
            break;
        case 't':
        case 'f':
            scalar.vt = VT_BOOL;
            scalar.boolVal = what.front() == 't' ? VARIANT_TRUE : VARIANT_FALSE;
            break;
        case 'i':
            scalar.vt = VT_I4;
            scalar.lVal = to_number<LONG>(rest);
            break;
        case 'd':
            scalar.vt = VT_R8;
            scalar.dblVal = to_double(std::string(rest));
            break;
        case 's':
            return give_text(to_bstr(rest), result);
        case 'u':
            return give_text(from_units(rest), result);
        case 'o': {
            HtmlObject* const found = object(to_number<std::uint32_t>(rest));
            if (result == nullptr) {
                found->Release();
                return S_OK;
            }
            scalar.vt = VT_DISPATCH;
            scalar.pdispVal = found;
            break;
        }
        case 'x':
            return threw(rest, exception);
        case 'm':
            return DISP_E_MEMBERNOTFOUND;
        default:
            return RPC_E_DISCONNECTED;
    }
    if (result != nullptr) *result = scalar;
    return S_OK;
}

HRESULT Document::take_as(VARTYPE wanted, const std::string& what, VARIANT* result) {
    VARIANT value{};
    if (const HRESULT taken = take(what, &value, nullptr); FAILED(taken)) return taken;
    if (value.vt != wanted) {
        VariantClear(&value);
        return RPC_E_DISCONNECTED;
    }
    *result = value;
    return S_OK;
}

HRESULT Document::root(IDispatchEx** object) {
    std::string what;
    if (const HRESULT result = call("zr.root()", what); FAILED(result)) return result;
    VARIANT value{};
    if (const HRESULT result = take_as(VT_DISPATCH, what, &value); FAILED(result)) return result;
    *object = static_cast<IDispatchEx*>(value.pdispVal);
    return S_OK;
}

// The one object of that number, with the reference that the engine has just given.
HtmlObject* Document::object(std::uint32_t id) {
    const std::lock_guard guard(lock_);
    HtmlObject*& known = objects_[id];
    if (known != nullptr) {
        known->AddRef();
    } else {
        known = new (std::nothrow) HtmlObject(shared_from_this(), id);
        if (known == nullptr) {
            objects_.erase(id);
            throw std::bad_alloc();
        }
    }
    ++known->given_;
    return known;
}

ULONG Document::release(HtmlObject* object) noexcept {
    // What the lock guards, and whether it is held, is another process's.
    if (generation_ != fork_generation()) return object->references_.remove();
    std::uint32_t given = 0;
    {
        const std::lock_guard guard(lock_);
        if (const ULONG left = object->references_.remove(); left != 0) return left;
        objects_.erase(object->id());
        given = object->given_;
    }
    try {
        FrameWriter frame(EngineFrame::Call);
        frame.number(0).number(number_).text("zr.release([[" + std::to_string(object->id()) + "," +
                                             std::to_string(given) + "]])");
        engine_->send_later(frame);
    } catch (const std::bad_alloc&) {
        // The engine keeps it until the document goes.
    }
    return 0;
}

}  // namespace zr::platform
