#include "value.h"

#include <bit>
#include <cstring>
#include <new>

#include "buffers.h"
#include "platform/base.h"

namespace zr::platform::mapi {
namespace {

LONGLONG join(FILETIME time) {
    return static_cast<LONGLONG>(static_cast<ULONGLONG>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

LONGLONG number_of(const SPropValue& value) {
    switch (PROP_TYPE(value.ulPropTag)) {
        case PT_I2:
            return value.Value.i;
        case PT_R4:
            return std::bit_cast<LONG>(value.Value.flt);
        case PT_DOUBLE:
        case PT_APPTIME:
            return std::bit_cast<LONGLONG>(value.Value.dbl);
        case PT_BOOLEAN:
            return value.Value.b != 0 ? 1 : 0;
        case PT_SYSTIME:
            return join(value.Value.ft);
        case PT_I8:
        case PT_CURRENCY:
            return value.Value.li.QuadPart;
        default:
            return value.Value.l;
    }
}

void put_number(SPropValue& value, LONGLONG number) {
    switch (PROP_TYPE(value.ulPropTag)) {
        case PT_I2:
            value.Value.i = static_cast<SHORT>(number);
            break;
        case PT_R4:
            value.Value.flt = std::bit_cast<float>(static_cast<LONG>(number));
            break;
        case PT_DOUBLE:
        case PT_APPTIME:
            value.Value.dbl = std::bit_cast<double>(number);
            break;
        case PT_BOOLEAN:
            value.Value.b = number != 0 ? 1 : 0;
            break;
        case PT_SYSTIME:
            value.Value.ft = {static_cast<DWORD>(number), static_cast<DWORD>(static_cast<ULONGLONG>(number) >> 32)};
            break;
        case PT_I8:
        case PT_CURRENCY:
            value.Value.li.QuadPart = number;
            break;
        default:
            value.Value.l = static_cast<LONG>(number);
            break;
    }
}

template <class T>
int order_of(T a, T b) {
    return a < b ? -1 : b < a ? 1 : 0;
}

int compare_text(std::u16string_view a, std::u16string_view b, bool ignore_case) {
    if (!ignore_case) return order_of(a.compare(b), 0);
    return order_of(folded(a).compare(folded(b)), 0);
}

constexpr std::size_t aligned(std::size_t size) {
    return (size + 7) & ~std::size_t{7};
}

}  // namespace

ULONGLONG Value::size() const {
    if (blob != 0) return blob_size;
    if (spool != nullptr) return spool->size();
    return is_fixed(type) ? sizeof number : bytes.size();
}

Value Value::of_text(std::u16string_view text) {
    Value value;
    value.type = PT_UNICODE;
    value.bytes = as_bytes(text);
    return value;
}

Value Value::of_number(ULONG type, LONGLONG number) {
    Value value;
    value.type = type;
    value.number = number;
    return value;
}

bool has_bytes(ULONG type) {
    return type == PT_UNICODE || type == PT_BINARY || type == PT_CLSID;
}

bool is_fixed(ULONG type) {
    switch (type) {
        case PT_I2:
        case PT_LONG:
        case PT_R4:
        case PT_DOUBLE:
        case PT_APPTIME:
        case PT_BOOLEAN:
        case PT_SYSTIME:
        case PT_I8:
        case PT_CURRENCY:
            return true;
        default:
            return false;
    }
}

SCODE take_value(const SPropValue& given, Value& value) {
    value = {};
    value.type = PROP_TYPE(given.ulPropTag);
    if (PROP_ID(given.ulPropTag) == 0) return MAPI_E_INVALID_PARAMETER;
    if (is_fixed(value.type)) {
        value.number = number_of(given);
        return S_OK;
    }
    switch (value.type) {
        case PT_UNICODE:
            if (given.Value.lpszW == nullptr) return MAPI_E_INVALID_PARAMETER;
            value.bytes = as_bytes(given.Value.lpszW);
            return S_OK;
        case PT_BINARY:
            if (given.Value.bin.cb != 0 && given.Value.bin.lpb == nullptr) return MAPI_E_INVALID_PARAMETER;
            if (given.Value.bin.cb != 0)
                value.bytes.assign(reinterpret_cast<const char*>(given.Value.bin.lpb), given.Value.bin.cb);
            return S_OK;
        case PT_CLSID:
            if (given.Value.lpguid == nullptr) return MAPI_E_INVALID_PARAMETER;
            value.bytes.assign(reinterpret_cast<const char*>(given.Value.lpguid), sizeof(GUID));
            return S_OK;
        case PT_STRING8:
            return MAPI_E_BAD_CHARWIDTH;
        default:
            return MAPI_E_TYPE_NO_SUPPORT;
    }
}

void Row::copy(ULONG tag, const void* bytes, std::size_t size) {
    items_.push_back({tag, 0, nullptr, size, arena_.size()});
    arena_.append(static_cast<const char*>(bytes), size);
}

void Row::keep() {
    for (Item& item : items_) {
        if (item.at != kGiven) continue;
        item.at = arena_.size();
        arena_.append(item.data, item.size);
    }
}

SPropValue* Row::finish(std::size_t* buffer_size) const {
    std::size_t size = items_.size() * sizeof(SPropValue);
    for (const Item& item : items_) {
        if (item.at != kNoBytes) size += aligned(item.size + sizeof(WCHAR));
    }
    if (buffer_size != nullptr) *buffer_size = size;
    auto* const row = static_cast<SPropValue*>(allocate_buffer(size));
    if (row == nullptr) throw std::bad_alloc();
    char* end = reinterpret_cast<char*>(row + items_.size());
    SPropValue* value = row;
    for (const Item& item : items_) {
        value->ulPropTag = item.tag;
        value->dwAlignPad = 0;
        value->Value.li.QuadPart = 0;
        if (item.at == kNoBytes) {
            put_number(*value++, item.number);
            continue;
        }
        const char* const data = item.at == kGiven ? item.data : arena_.data() + item.at;
        if (item.size != 0) std::memcpy(end, data, item.size);
        std::memset(end + item.size, 0, sizeof(WCHAR));
        switch (PROP_TYPE(item.tag)) {
            case PT_UNICODE:
                value->Value.lpszW = reinterpret_cast<LPWSTR>(end);
                break;
            case PT_CLSID:
                value->Value.lpguid = reinterpret_cast<GUID*>(end);
                break;
            default:
                value->Value.bin = {static_cast<ULONG>(item.size), reinterpret_cast<BYTE*>(end)};
                break;
        }
        end += aligned(item.size + sizeof(WCHAR));
        ++value;
    }
    return row;
}

std::u16string folded(std::u16string_view text) {
    std::u16string lower(text);
    CharLowerBuffW(lower.data(), static_cast<DWORD>(lower.size()));
    return lower;
}

std::string_view bytes_of(const SPropValue& value) {
    switch (PROP_TYPE(value.ulPropTag)) {
        case PT_UNICODE:
            return as_bytes(value.Value.lpszW);
        case PT_CLSID:
            return {reinterpret_cast<const char*>(value.Value.lpguid), sizeof(GUID)};
        default:
            return {reinterpret_cast<const char*>(value.Value.bin.lpb), value.Value.bin.cb};
    }
}

int compare_values(const SPropValue& a, const SPropValue& b, bool ignore_case) {
    const ULONG type = PROP_TYPE(a.ulPropTag);
    if (type != PROP_TYPE(b.ulPropTag)) return order_of(type, PROP_TYPE(b.ulPropTag));
    switch (type) {
        case PT_R4:
            return order_of(a.Value.flt, b.Value.flt);
        case PT_DOUBLE:
        case PT_APPTIME:
            return order_of(a.Value.dbl, b.Value.dbl);
        case PT_SYSTIME:
            return order_of(static_cast<ULONGLONG>(number_of(a)), static_cast<ULONGLONG>(number_of(b)));
        case PT_UNICODE:
            return compare_text(a.Value.lpszW, b.Value.lpszW, ignore_case);
        case PT_BINARY:
        case PT_CLSID: {
            const std::string_view left = bytes_of(a);
            return order_of(left.compare(bytes_of(b)), 0);
        }
        default:
            return order_of(number_of(a), number_of(b));
    }
}

}  // namespace zr::platform::mapi
