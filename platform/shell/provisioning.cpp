#include "platform/provisioning.h"

#include <memory>
#include <new>
#include <string>

#include "base/error_text.h"
#include "base/utf.h"
#include "config_plan.h"
#include "config_result.h"
#include "kernel/thread.h"
#include "platform/base.h"

namespace zr::platform {
namespace {

constinit thread_local WCHAR failure[512] = {};
constexpr std::size_t kMostShown = 100;

// One document on its way.
class Processing {
public:
    // Reads and plans; the results of DMProcessConfigXML.
    HRESULT prepare(LPCWSTR text);
    HRESULT carry_out();
    const ConfigPlan& plan() const { return plan_; }
    // The result document, the caller's.
    LPWSTR result(ConfigAnswer answer) const;
    bool has_changed() const { return has_changed_; }

private:
    void say_what_failed() const;

    ConfigDocument document_;
    ConfigPlan plan_{document_};
    bool has_changed_ = false;
};

HRESULT Processing::prepare(LPCWSTR text) {
    switch (document_.read({text, wcslen(text)})) {
        case ConfigDocument::Result::Read:
            break;
        case ConfigDocument::Result::NoMemory:
            return E_OUTOFMEMORY;
        case ConfigDocument::Result::NoModule:
            keep_sentence(failure, document_.sentence());
            return HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
        default:
            keep_sentence(failure, document_.sentence());
            return CONFIG_E_BAD_XML;
    }
    if (plan_.make()) return S_OK;
    say_what_failed();
    return CONFIG_E_CSPEXCEPTION;
}

HRESULT Processing::carry_out() {
    struct Rest {
        const std::vector<const ConfigPlan::Step*> steps;
        std::size_t at = 0;
    } rest{plan_.in_order()};
    if (rest.steps.empty()) return S_OK;
    const auto next = [](ZrRegistryChange* change, LPVOID context) {
        Rest& left = *static_cast<Rest*>(context);
        if (left.at == left.steps.size()) return 0;
        *change = left.steps[left.at++]->change;
        return 1;
    };
    DWORD failed = 0;
    const auto error = static_cast<DWORD>(ZrRegistryApplyEach(next, &rest, &failed));
    if (error == ERROR_SUCCESS) {
        has_changed_ = true;
        if (RegFlushKey(HKEY_LOCAL_MACHINE) == static_cast<LONG>(ERROR_SUCCESS)) return S_OK;
        keep_sentence(failure, "the document is carried out, but the registry could not be brought to the disk");
        return CONFIG_E_TRANSACTIONINGFAILURE;
    }
    if (error == ERROR_NOT_ENOUGH_MEMORY) return E_OUTOFMEMORY;
    if (failed < rest.steps.size()) document_.elements()[rest.steps[failed]->element].failed = true;
    const std::u16string_view reason = ZrRegistryLastErrorText();
    keep_sentence(failure, reason.empty() ? "the registry could not be written: error " + std::to_string(error)
                                          : wide_to_host(reason));
    return CONFIG_E_TRANSACTIONINGFAILURE;
}

// The first thing.
void Processing::say_what_failed() const {
    for (const ConfigElement& element : document_.elements()) {
        if (!element.failed) continue;
        const std::string what =
            wide_to_host(element_word(element.kind)) + " \"" + wide_to_host(element.name.substr(0, kMostShown)) + "\"";
        keep_sentence(failure, "line " + std::to_string(element.line) + ": no service knows or takes this " + what);
        return;
    }
}

LPWSTR Processing::result(ConfigAnswer answer) const {
    const std::u16string text = config_result(document_, plan_, answer);
    auto* const given = new WCHAR[text.size() + 1];
    text.copy(given, text.size());
    given[text.size()] = 0;
    return given;
}

ConfigAnswer answer_of(HRESULT result, DWORD flags) {
    if (FAILED(result)) return ConfigAnswer::Failed;
    return (flags & CFGFLAG_METADATA) != 0 ? ConfigAnswer::Examined : ConfigAnswer::Done;
}

// With everything that Work needs, and the result document where there is one. Work(processing) carries out. Throws
// nothing, but is not noexcept: a thread that is ended in here is unwound, and what its caller holds is given back.
template <class Work>
HRESULT process(LPCWSTR document, DWORD flags, LPWSTR* result, Work&& work) try {
    cancellation_point();
    failure[0] = 0;
    if (document == nullptr || result == nullptr) return E_INVALIDARG;
    *result = nullptr;
    Processing processing;
    HRESULT done = processing.prepare(document);
    if (SUCCEEDED(done)) done = work(processing);
    const bool marked = done == CONFIG_E_CSPEXCEPTION || done == CONFIG_E_TRANSACTIONINGFAILURE;
    if (FAILED(done) && !marked) return done;
    try {
        *result = processing.result(answer_of(done, flags));
    } catch (const std::bad_alloc&) {
        // What has been done is not told as a failure.
        return processing.has_changed() ? done : E_OUTOFMEMORY;
    }
    return done;
} catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HRESULT DMProcessConfigXML(LPCWSTR document, DWORD flags, LPWSTR* result) {
    if (flags == 0 || (flags & ~(CFGFLAG_PROCESS | CFGFLAG_METADATA)) != 0) return E_INVALIDARG;
    return process(document, flags, result, [flags](Processing& processing) {
        return (flags & CFGFLAG_PROCESS) != 0 ? processing.carry_out() : S_OK;
    });
}

HRESULT ZrProvisioningChanges(LPCWSTR document, ZrProvisioningVisitor visit, LPVOID context, LPWSTR* result) {
    if (visit == nullptr) return E_INVALIDARG;
    return process(document, CFGFLAG_METADATA, result, [visit, context](Processing& processing) {
        for (const ConfigPlan::Step& step : processing.plan().steps()) {
            if (visit(&step.change, context) != 0) break;
        }
        return S_OK;
    });
}

HRESULT ZrPrepareProvisioning() {
    cancellation_point();
    return ConfigDocument::load_parser() ? S_OK : HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
}

LPCWSTR ZrProvisioningLastErrorText() {
    return failure;
}
