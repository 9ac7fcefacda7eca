#include "property_block.h"

#include <cstring>
#include <limits>

#include "fields.h"
#include "last_error.h"
#include "platform/base.h"

namespace zr::platform::pim {
namespace {

constexpr std::size_t kAlign = 8;

std::size_t aligned(std::size_t size) {
    return (size + kAlign - 1) / kAlign * kAlign;
}

std::size_t extra_size(const Value& value) {
    if (const auto* text = std::get_if<std::u16string>(&value)) return aligned((text->size() + 1) * sizeof(WCHAR));
    if (const auto* bytes = std::get_if<std::vector<BYTE>>(&value)) return aligned(bytes->size());
    return 0;
}

// Makes room for the block; on success *values and *size describe it.
HRESULT make_room(std::size_t need, ULONG flags, CEPROPVAL** values, ULONG* size, HANDLE heap) {
    if (need > std::numeric_limits<ULONG>::max()) return fail(E_OUTOFMEMORY);
    if ((flags & CEDB_ALLOWREALLOC) == 0) {
        if (*values != nullptr && *size >= need) return S_OK;
        *size = static_cast<ULONG>(need);
        return fail(HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER), "The buffer is too small for the properties.");
    }
    if (*values != nullptr && *size >= need) return S_OK;
    if (heap == nullptr) heap = GetProcessHeap();
    void* block = *values == nullptr ? HeapAlloc(heap, 0, need) : HeapReAlloc(heap, 0, *values, need);
    if (block == nullptr) return fail(E_OUTOFMEMORY);
    *values = static_cast<CEPROPVAL*>(block);
    *size = static_cast<ULONG>(need);
    return S_OK;
}

void write_integer(LONGLONG integer, CEPROPVAL& out) {
    switch (type_of(out.propid)) {
        case CEVT_I2:
            out.val.iVal = static_cast<SHORT>(integer);
            break;
        case CEVT_UI2:
            out.val.uiVal = static_cast<USHORT>(integer);
            break;
        case CEVT_I4:
            out.val.lVal = static_cast<LONG>(integer);
            break;
        case CEVT_BOOL:
            out.val.boolVal = integer != 0 ? TRUE : FALSE;
            break;
        case CEVT_FILETIME:
            out.val.filetime = {static_cast<DWORD>(integer), static_cast<DWORD>(integer >> 32)};
            break;
        default:
            out.val.ulVal = static_cast<ULONG>(integer);
    }
}

// Writes one value; its text or bytes go to `extra`.
void write_value(const Values::Entry& entry, CEPROPVAL& out, BYTE* extra) {
    const auto& [id, value] = entry;
    std::memset(&out, 0, sizeof out);
    out.propid = id;
    if (std::holds_alternative<std::monostate>(value)) {
        out.wFlags = CEDB_PROPNOTFOUND;
    } else if (const auto* integer = std::get_if<LONGLONG>(&value)) {
        write_integer(*integer, out);
    } else if (const auto* real = std::get_if<double>(&value)) {
        out.val.dblVal = *real;
    } else if (const auto* text = std::get_if<std::u16string>(&value)) {
        std::memcpy(extra, text->c_str(), (text->size() + 1) * sizeof(WCHAR));
        out.val.lpwstr = reinterpret_cast<LPWSTR>(extra);
    } else if (const auto* bytes = std::get_if<std::vector<BYTE>>(&value)) {
        if (!bytes->empty()) std::memcpy(extra, bytes->data(), bytes->size());
        out.val.blob = {static_cast<DWORD>(bytes->size()), bytes->empty() ? nullptr : extra};
    }
}

bool read_value(const CEPROPVAL& in, Value& value) {
    switch (type_of(in.propid)) {
        case CEVT_I2:
            value = LONGLONG{in.val.iVal};
            return true;
        case CEVT_UI2:
            value = LONGLONG{in.val.uiVal};
            return true;
        case CEVT_I4:
            value = LONGLONG{in.val.lVal};
            return true;
        case CEVT_UI4:
            value = LONGLONG{in.val.ulVal};
            return true;
        case CEVT_BOOL:
            value = LONGLONG{in.val.boolVal != FALSE};
            return true;
        case CEVT_FILETIME:
            value =
                static_cast<LONGLONG>(ULONGLONG{in.val.filetime.dwHighDateTime} << 32 | in.val.filetime.dwLowDateTime);
            return true;
        case CEVT_R8:
            value = in.val.dblVal;
            return in.val.dblVal == in.val.dblVal;  // the store has no place for what is not a number
        case CEVT_LPWSTR:
            if (in.val.lpwstr == nullptr) return false;
            value = std::u16string(in.val.lpwstr);
            return true;
        case CEVT_BLOB: {
            const CEBLOB& blob = in.val.blob;
            if (blob.lpb == nullptr && blob.dwCount != 0) return false;
            value = blob.dwCount == 0 ? std::vector<BYTE>() : std::vector<BYTE>(blob.lpb, blob.lpb + blob.dwCount);
            return true;
        }
        default:
            return false;
    }
}

bool known_type(CEPROPID id) {
    switch (type_of(id)) {
        case CEVT_I2:
        case CEVT_I4:
        case CEVT_R8:
        case CEVT_BOOL:
        case CEVT_UI2:
        case CEVT_UI4:
        case CEVT_LPWSTR:
        case CEVT_FILETIME:
        case CEVT_BLOB:
            return true;
        default:
            return false;
    }
}

}  // namespace

HRESULT write_property_block(const std::vector<Values::Entry>& entries, ULONG flags, CEPROPVAL** values, ULONG* size,
                             HANDLE heap) {
    if (values == nullptr || size == nullptr) return fail(E_POINTER);
    std::size_t need = aligned(entries.size() * sizeof(CEPROPVAL));
    for (const auto& entry : entries) {
        need += extra_size(entry.second);
    }
    const HRESULT result = make_room(need, flags, values, size, heap);
    if (FAILED(result)) return result;
    BYTE* extra = reinterpret_cast<BYTE*>(*values) + aligned(entries.size() * sizeof(CEPROPVAL));
    for (std::size_t i = 0; i < entries.size(); ++i) {
        write_value(entries[i], (*values)[i], extra);
        extra += extra_size(entries[i].second);
    }
    return S_OK;
}

HRESULT read_property_values(WORD count, const CEPROPVAL* values, std::vector<Values::Entry>& entries) {
    if (count != 0 && values == nullptr) return fail(E_POINTER);
    for (WORD i = 0; i < count; ++i) {
        const CEPROPVAL& in = values[i];
        if (is_named_field(in.propid) || !known_type(in.propid))
            return fail(E_INVALIDARG, "The property cannot be set.");
        Value value;
        const bool removed = (in.wFlags & CEDB_PROPDELETE) != 0;
        if (!removed && !read_value(in, value)) return fail(E_INVALIDARG, "The property's value is not valid.");
        entries.emplace_back(in.propid, std::move(value));
    }
    return S_OK;
}

}  // namespace zr::platform::pim
