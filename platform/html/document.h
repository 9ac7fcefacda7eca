#pragma once

// The control's document as objects: what the engine's script (loaded/html_objects.h) numbers, as IDispatchEx.

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "engine.h"
#include "platform/html.h"

namespace zr::platform {

class HtmlObject;

// What the objects of one document share. Calls are the control's thread's; objects may be given back on any thread.
class Document : public std::enable_shared_from_this<Document> {
public:
    Document(std::shared_ptr<Engine> engine, std::uint32_t number);

    std::uint32_t number() const noexcept { return number_; }
    // Whether its objects may still be asked: S_OK, RPC_E_WRONG_THREAD or RPC_E_DISCONNECTED.
    HRESULT check() const noexcept;
    // There is another document now.
    void leave() noexcept { is_left_ = true; }

    // Runs `script` beside the document's own, which gives a text as html_objects.h describes; or among these.
    HRESULT call(const std::string& script, std::string& what, EXCEPINFO* exception = nullptr);
    HRESULT run(const std::string& script, std::string& what, EXCEPINFO* exception = nullptr);
    // What that text says, as a value; `result` may be NULL. May throw std::bad_alloc.
    HRESULT take(const std::string& what, VARIANT* result, EXCEPINFO* exception);
    // The same of what must be a value of type `wanted`: an engine that gives another is not believed.
    HRESULT take_as(VARTYPE wanted, const std::string& what, VARIANT* result);
    // The document itself, with a reference. May throw std::bad_alloc.
    HRESULT root(IDispatchEx** object);

    // Of HtmlObject: gives back what it was handed.
    ULONG release(HtmlObject* object) noexcept;

private:
    HRESULT ask(EngineFrame kind, const std::string& script, std::string& what, EXCEPINFO* exception);
    HtmlObject* object(std::uint32_t id);

    const std::shared_ptr<Engine> engine_;
    const std::uint32_t number_;
    const DWORD thread_;
    const std::uint32_t generation_;
    bool is_left_ = false;

    std::mutex lock_;
    std::map<std::uint32_t, HtmlObject*> objects_;  // that somebody holds
};

// As a literal of a script. May throw std::bad_alloc.
void append_literal(std::string& script, std::u16string_view text);
// As UTF-8, which has no lone surrogates: such a one becomes U+FFFD, or the escape that stands for it in literals. May
// throw std::bad_alloc.
enum class LoneSurrogate { Replaced, Escaped };
std::string utf8_of(std::u16string_view text, LoneSurrogate how);
// The error of an engine as a result.
HRESULT result_of(DWORD error) noexcept;

}  // namespace zr::platform
