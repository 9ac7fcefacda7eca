#include "prop_object.h"

#include <cstring>

namespace zr::platform::mapi {
namespace {

// A value that is on its way, as a program would give it.
void add_given(WORD id, const Value& value, Row& row) {
    const ULONG tag = PROP_TAG(value.type, id);
    if (has_bytes(value.type)) {
        row.copy(tag, value.bytes.data(), value.bytes.size());
    } else {
        row.number(tag, value.number);
    }
}

HRESULT copy_stream(const SessionRef& session, const Value& value, ULONG tag, IMAPIProp* target) {
    IStream* from = nullptr;
    HRESULT result = open_reading(session, value, &from);
    if (FAILED(result)) return result;
    IUnknown* opened = nullptr;
    result = target->OpenProperty(tag, &IID_IStream, 0, MAPI_MODIFY | MAPI_CREATE, &opened);
    if (SUCCEEDED(result)) {
        auto* const to = static_cast<IStream*>(opened);
        ULARGE_INTEGER all;
        all.QuadPart = ~ULONGLONG{0};
        result = from->CopyTo(to, all, nullptr, nullptr);
        if (SUCCEEDED(result)) result = to->Commit(0);
        to->Release();
    }
    from->Release();
    return result;
}

bool has_property(IMAPIProp* object, WORD id) {
    SPropTagArray tags = {1, {PROP_TAG(PT_UNSPECIFIED, id)}};
    ULONG count = 0;
    LPSPropValue values = nullptr;
    if (FAILED(object->GetProps(&tags, MAPI_UNICODE, &count, &values))) return false;
    const bool there =
        count == 1 && (PROP_TYPE(values[0].ulPropTag) != PT_ERROR || values[0].Value.err == MAPI_E_NOT_ENOUGH_MEMORY);
    free_buffer(values);
    return there;
}

}  // namespace

HRESULT list_kept(MailStore& store, LONGLONG owner, std::span<const ULONG> computed, std::vector<ULONG>& tags) {
    tags.assign(computed.begin(), computed.end());
    Values values;
    const HRESULT result = store.properties(owner, 0, values);
    for (const auto& [id, value] : values) {
        tags.push_back(PROP_TAG(value.type, id));
    }
    return result;
}

SCODE settable_beside_name(ULONG tag) {
    return id_of(tag) == id_of(PR_DISPLAY_NAME_W) && tag != PR_DISPLAY_NAME_W ? MAPI_E_UNEXPECTED_TYPE : S_OK;
}

std::optional<Value> take_name(Edit& edit) {
    auto found = edit.set.extract(id_of(PR_DISPLAY_NAME_W));
    if (found.empty()) return std::nullopt;
    return std::move(found.mapped());
}

HRESULT fill_value(MailStore& store, ULONG tag, const Value* value, Row& row) {
    if (value == nullptr || value->type == PT_NULL) {
        row.error(tag, MAPI_E_NOT_FOUND);
        return S_OK;
    }
    const ULONG type = PROP_TYPE(tag);
    if (type != PT_UNSPECIFIED && type != value->type) {
        const bool narrow = type == PT_STRING8 && value->type == PT_UNICODE;
        row.error(tag, narrow ? MAPI_E_BAD_CHARWIDTH : MAPI_E_UNEXPECTED_TYPE);
        return S_OK;
    }
    const ULONG full = CHANGE_PROP_TYPE(tag, value->type);
    if (!has_bytes(value->type)) {
        row.number(full, value->number);
    } else if (value->size() > kMostGiven) {
        row.error(tag, MAPI_E_NOT_ENOUGH_MEMORY);
    } else if (!value->is_long()) {
        row.copy(full, value->bytes.data(), value->bytes.size());
    } else {
        BYTE bytes[kMostGiven];
        std::size_t got = 0;
        const HRESULT result =
            read_value_bytes(store, *value, 0, {bytes, static_cast<std::size_t>(value->size())}, got);
        if (FAILED(result)) return result;
        row.copy(full, bytes, got);
    }
    return S_OK;
}

HRESULT give_problems(const std::vector<SPropProblem>& problems, LPSPropProblemArray* array) {
    if (array == nullptr) return S_OK;
    *array = nullptr;
    if (problems.empty()) return S_OK;
    Buffer<SPropProblemArray> buffer(sizeof(SPropProblemArray) + problems.size() * sizeof(SPropProblem));
    if (!buffer) return fail(MAPI_E_NOT_ENOUGH_MEMORY);
    buffer->cProblem = static_cast<ULONG>(problems.size());
    std::copy(problems.begin(), problems.end(), &buffer->aProblem[0]);
    *array = buffer.release();
    return S_OK;
}

HRESULT give_tags(const std::vector<ULONG>& tags, LPSPropTagArray* array) {
    Buffer<SPropTagArray> buffer(sizeof(SPropTagArray) + tags.size() * sizeof(ULONG));
    if (!buffer) return fail(MAPI_E_NOT_ENOUGH_MEMORY);
    buffer->cValues = static_cast<ULONG>(tags.size());
    std::copy(tags.begin(), tags.end(), &buffer->aulPropTag[0]);
    *array = buffer.release();
    return S_OK;
}

HRESULT PropCore::look_all() {
    HRESULT result = session_->check_open();
    if (SUCCEEDED(result)) result = store().refresh();
    return SUCCEEDED(result) ? look() : result;
}

HRESULT PropCore::get_props(LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values) {
    if (count != nullptr) *count = 0;
    if (!cleared(values) || count == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
    if (const HRESULT result = check_flags(flags, MAPI_UNICODE); FAILED(result)) return result;
    Row row;
    const auto reading = store().lock();
    HRESULT result = look_all();
    if (FAILED(result)) return result;
    if (tags != nullptr) {
        row.reserve(tags->cValues);
        for (ULONG i = 0; i < tags->cValues && SUCCEEDED(result); ++i) {
            result = fill(tags->aulPropTag[i], row);
        }
    } else {
        std::vector<ULONG> all;
        result = list(all);
        for (std::size_t i = 0; i < all.size() && SUCCEEDED(result); ++i) {
            result = fill(all[i], row);
        }
    }
    if (FAILED(result)) return result;
    *values = row.finish();
    *count = static_cast<ULONG>(row.size());
    return row.has_errors() ? MAPI_W_ERRORS_RETURNED : S_OK;
}

HRESULT PropCore::get_prop_list(ULONG flags, LPSPropTagArray* tags) {
    if (!cleared(tags)) return fail(MAPI_E_INVALID_PARAMETER);
    if (const HRESULT result = check_flags(flags, MAPI_UNICODE); FAILED(result)) return result;
    std::vector<ULONG> all;
    {
        const auto reading = store().lock();
        HRESULT result = look_all();
        if (SUCCEEDED(result)) result = list(all);
        if (FAILED(result)) return result;
    }
    return give_tags(all, tags);
}

HRESULT PropCore::open_property(ULONG tag, LPCIID iid, ULONG options, ULONG flags, IUnknown** object) {
    static_cast<void>(options);
    if (!cleared(object) || iid == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
    HRESULT result = check_flags(flags, MAPI_MODIFY | MAPI_CREATE | MAPI_DEFERRED_ERRORS | MAPI_UNICODE);
    if (FAILED(result)) return result;
    if (*iid == IID_IMAPITable) {
        IMAPITable* table = nullptr;
        result = open_table(tag, &table);
        *object = table;
        return result;
    }
    if (*iid != IID_IStream) return fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
    const ULONG type = PROP_TYPE(tag);
    if (type == PT_STRING8) return fail(MAPI_E_BAD_CHARWIDTH);
    if (type != PT_UNICODE && type != PT_BINARY) return fail(MAPI_E_INVALID_TYPE);
    const bool modify = (flags & (MAPI_MODIFY | MAPI_CREATE)) != 0;
    const bool create = (flags & MAPI_CREATE) != 0;
    if (modify) {
        result = check_writable();
        if (FAILED(result)) return result;
        if (const SCODE code = settable(tag); code != S_OK) return fail(code);
    }
    Value value;
    {
        const auto reading = store().lock();
        result = look_all();
        if (SUCCEEDED(result)) result = stored(id_of(tag), value);
    }
    if (FAILED(result)) return result;
    if (!create && value.type == PT_NULL) return fail(MAPI_E_NOT_FOUND);
    if (!create && value.type != type) return fail(MAPI_E_UNEXPECTED_TYPE);
    IStream* stream = nullptr;
    result = modify ? open_writing(session_, create ? Value{} : value, tag, *this, &stream)
                    : open_reading(session_, value, &stream);
    *object = stream;
    return result;
}

HRESULT PropCore::take_stream(WORD id, Value value) {
    Edit edit;
    edit.set.emplace(id, std::move(value));
    return apply(edit);
}

HRESULT PropCore::set_props(ULONG count, LPSPropValue values, LPSPropProblemArray* problems) {
    cleared(problems);
    if (values == nullptr && count != 0) return fail(MAPI_E_INVALID_PARAMETER);
    if (const HRESULT result = check_writable(); FAILED(result)) return result;
    Edit edit;
    std::vector<SPropProblem> list;
    for (ULONG i = 0; i < count; ++i) {
        const ULONG tag = values[i].ulPropTag;
        const ULONG type = PROP_TYPE(tag);
        if (type == PT_ERROR || type == PT_NULL || type == PT_OBJECT) continue;
        Value value;
        SCODE code = take_value(values[i], value);
        if (code == MAPI_E_INVALID_PARAMETER) return fail(code);
        if (code == S_OK) code = settable(tag);
        if (code == S_OK) {
            edit.set.insert_or_assign(id_of(tag), std::move(value));
        } else {
            list.push_back({i, tag, code});
        }
    }
    if (!edit.empty()) {
        if (const HRESULT result = apply(edit); FAILED(result)) return result;
    }
    return give_problems(list, problems);
}

HRESULT PropCore::delete_props(LPSPropTagArray tags, LPSPropProblemArray* problems) {
    cleared(problems);
    if (tags == nullptr || tags->cValues == 0) return fail(MAPI_E_INVALID_PARAMETER);
    if (const HRESULT result = check_writable(); FAILED(result)) return result;
    Edit edit;
    std::vector<SPropProblem> list;
    for (ULONG i = 0; i < tags->cValues; ++i) {
        const ULONG tag = tags->aulPropTag[i];
        if (const SCODE code = settable(tag); code == S_OK || code == MAPI_E_UNEXPECTED_TYPE) {
            edit.removed.push_back(id_of(tag));
        } else {
            list.push_back({i, tag, code});
        }
    }
    if (!edit.empty()) {
        if (const HRESULT result = apply(edit); FAILED(result)) return result;
    }
    return give_problems(list, problems);
}

HRESULT PropCore::copy_to(LPSPropTagArray excluded, IMAPIProp* target, ULONG flags, LPSPropProblemArray* problems) {
    cleared(problems);
    if ((flags & MAPI_MOVE) != 0) return unsupported();
    if (const HRESULT result = check_flags(flags, MAPI_NOREPLACE); FAILED(result)) return result;
    std::vector<ULONG> tags;
    Values values;
    {
        const auto reading = store().lock();
        HRESULT result = look_all();
        if (SUCCEEDED(result)) result = list(tags);
        for (const ULONG tag : tags) {
            if (FAILED(result)) return result;
            if (settable(tag) != S_OK || is_excluded(excluded, tag)) continue;
            result = stored(id_of(tag), values[id_of(tag)]);
        }
        if (FAILED(result)) return result;
    }
    Row row;
    for (const auto& [id, value] : values) {
        if (value.type == PT_NULL || ((flags & MAPI_NOREPLACE) != 0 && has_property(target, id))) continue;
        if (!value.is_long()) {
            add_given(id, value, row);
        } else if (const HRESULT result = copy_stream(session_, value, PROP_TAG(value.type, id), target);
                   FAILED(result)) {
            return result;
        }
    }
    const Buffer<SPropValue> given(row.finish());
    return target->SetProps(static_cast<ULONG>(row.size()), given.get(), problems);
}

}  // namespace zr::platform::mapi
