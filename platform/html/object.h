#pragma once

// One object of a document.

#include "com/com_object.h"
#include "document.h"

namespace zr::platform {

class HtmlObject final : public IDispatchEx {
public:
    HtmlObject(std::shared_ptr<Document> document, std::uint32_t id)
        : document_(std::move(document)), id_(id), script_(*this) {}

    // Of IUnknown.
    HRESULT QueryInterface(REFIID riid, void** object) override;
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override;

    // Of IDispatch.
    HRESULT GetTypeInfoCount(UINT* count) override;
    HRESULT GetTypeInfo(UINT index, LCID locale, ITypeInfo** info) override;
    HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID locale, DISPID* ids) override;
    HRESULT Invoke(DISPID member, REFIID riid, LCID locale, WORD flags, DISPPARAMS* params, VARIANT* result,
                   EXCEPINFO* exception, UINT* argument_error) override;

    // Of IDispatchEx.
    HRESULT GetDispID(BSTR name, DWORD flags, DISPID* id) override;
    HRESULT InvokeEx(DISPID id, LCID locale, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                     IServiceProvider* caller) override;
    HRESULT DeleteMemberByName(BSTR name, DWORD flags) override;
    HRESULT DeleteMemberByDispID(DISPID id) override;
    HRESULT GetMemberProperties(DISPID id, DWORD fetch, DWORD* properties) override;
    HRESULT GetMemberName(DISPID id, BSTR* name) override;
    HRESULT GetNextDispID(DWORD flags, DISPID id, DISPID* next) override;
    HRESULT GetNameSpaceParent(IUnknown** parent) override;

    Document& document() const { return *document_; }
    std::uint32_t id() const { return id_; }

private:
    friend class Document;

    // The document's other face.
    class Script final : public EarlyBound<IScriptControl> {
    public:
        explicit Script(HtmlObject& owner) : owner_(owner) {}
        HRESULT QueryInterface(REFIID riid, void** object) override { return owner_.QueryInterface(riid, object); }
        ULONG AddRef() override { return owner_.AddRef(); }
        ULONG Release() override { return owner_.Release(); }
        HRESULT get_Language(BSTR* language) override;
        HRESULT put_Language(BSTR) override { return E_NOTIMPL; }
        HRESULT get_State(LONG*) override { return E_NOTIMPL; }
        HRESULT put_State(LONG) override { return E_NOTIMPL; }
        HRESULT put_SitehWnd(LONG_PTR) override { return E_NOTIMPL; }
        HRESULT get_SitehWnd(LONG_PTR*) override { return E_NOTIMPL; }
        HRESULT get_Timeout(LONG* milliseconds) override;
        HRESULT put_Timeout(LONG) override { return E_NOTIMPL; }
        HRESULT get_AllowUI(VARIANT_BOOL* allow) override;
        HRESULT put_AllowUI(VARIANT_BOOL) override { return E_NOTIMPL; }
        HRESULT get_UseSafeSubset(VARIANT_BOOL*) override { return E_NOTIMPL; }
        HRESULT put_UseSafeSubset(VARIANT_BOOL) override { return E_NOTIMPL; }
        HRESULT get_Modules(IUnknown**) override { return E_NOTIMPL; }
        HRESULT get_Error(IUnknown**) override { return E_NOTIMPL; }
        HRESULT get_CodeObject(IDispatch**) override { return E_NOTIMPL; }
        HRESULT get_Procedures(IUnknown**) override { return E_NOTIMPL; }
        HRESULT _AboutBox() override { return E_NOTIMPL; }
        HRESULT AddObject(BSTR, IDispatch*, VARIANT_BOOL) override { return E_NOTIMPL; }
        HRESULT Reset() override { return E_NOTIMPL; }
        HRESULT AddCode(BSTR code) override { return Eval(code, nullptr); }
        HRESULT Eval(BSTR expression, VARIANT* result) override;
        HRESULT ExecuteStatement(BSTR statement) override { return Eval(statement, nullptr); }
        HRESULT Run(BSTR, void**, VARIANT*) override { return E_NOTIMPL; }

    private:
        HtmlObject& owner_;
    };

    HRESULT find(std::u16string_view name, DWORD flags, DISPID* id);
    HRESULT invoke(DISPID id, WORD flags, const DISPPARAMS& params, VARIANT* result, EXCEPINFO* exception,
                   UINT* argument_error);
    HRESULT append_value(std::string& script, const VARIANT& value, bool is_put) const;
    HRESULT append_arguments(std::string& script, const DISPPARAMS& params, UINT* argument_error) const;

    const std::shared_ptr<Document> document_;
    const std::uint32_t id_;
    std::uint32_t given_ = 0;  // how often the engine has handed it out; guarded by the document's lock
    References references_;
    Script script_;
};

// The number of the document that is an object.
inline constexpr std::uint32_t kRootObject = 1;

}  // namespace zr::platform
