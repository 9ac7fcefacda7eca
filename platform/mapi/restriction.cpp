#include "restriction.h"

#include "last_error.h"

namespace zr::platform::mapi {
namespace {

constexpr int kDeepest = 64;

// The row's value of a property; null when it has none.
const SPropValue* find(const SPropValue* row, std::size_t count, ULONG tag) {
    for (std::size_t i = 0; i < count; ++i) {
        const SPropValue& value = row[i];
        if (PROP_ID(value.ulPropTag) != PROP_ID(tag) || PROP_TYPE(value.ulPropTag) == PT_ERROR) continue;
        if (PROP_TYPE(tag) == PT_UNSPECIFIED || value.ulPropTag == tag) return &value;
    }
    return nullptr;
}

bool holds(ULONG relation, int order) {
    switch (relation) {
        case RELOP_LT:
            return order < 0;
        case RELOP_LE:
            return order <= 0;
        case RELOP_GT:
            return order > 0;
        case RELOP_GE:
            return order >= 0;
        case RELOP_EQ:
            return order == 0;
        default:
            return order != 0;
    }
}

ULONG size_of(const SPropValue& value) {
    switch (PROP_TYPE(value.ulPropTag)) {
        case PT_UNICODE:
        case PT_BINARY:
        case PT_CLSID:
            return static_cast<ULONG>(bytes_of(value).size());
        case PT_I2:
        case PT_BOOLEAN:
            return 2;
        case PT_LONG:
        case PT_R4:
            return 4;
        default:
            return 8;
    }
}

// The value as a program would give it; its bytes stay where they are. Text is ended.
SPropValue as_given(const Value& value, ULONG tag, std::u16string& text) {
    SPropValue given = {};
    given.ulPropTag = CHANGE_PROP_TYPE(tag, value.type);
    if (value.type == PT_UNICODE) {
        text = as_text(value.bytes);
        given.Value.lpszW = text.data();
    } else if (has_bytes(value.type)) {
        given.Value.bin = {static_cast<ULONG>(value.bytes.size()),
                           reinterpret_cast<BYTE*>(const_cast<char*>(value.bytes.data()))};
        if (value.type == PT_CLSID) given.Value.lpguid = reinterpret_cast<GUID*>(const_cast<char*>(value.bytes.data()));
    } else {
        given.Value.li.QuadPart = value.number;
        if (value.type == PT_SYSTIME)
            given.Value.ft = {static_cast<DWORD>(value.number),
                              static_cast<DWORD>(static_cast<ULONGLONG>(value.number) >> 32)};
    }
    return given;
}

bool fits_text(std::u16string_view text, std::u16string_view pattern, ULONG level) {
    switch (level & 0xFFFF) {
        case FL_SUBSTRING:
            return text.find(pattern) != std::u16string_view::npos;
        case FL_PREFIX:
            return text.starts_with(pattern);
        default:
            return text == pattern;
    }
}

bool fits_bytes(std::string_view bytes, std::string_view pattern, ULONG level) {
    switch (level & 0xFFFF) {
        case FL_SUBSTRING:
            return bytes.find(pattern) != std::string_view::npos;
        case FL_PREFIX:
            return bytes.starts_with(pattern);
        default:
            return bytes == pattern;
    }
}

}  // namespace

HRESULT Restriction::take(const SRestriction& given, Restriction& restriction, int depth) {
    if (depth > kDeepest) return fail(MAPI_E_TOO_COMPLEX);
    restriction.kind_ = given.rt;
    const SPropValue* value = nullptr;
    const SRestriction* parts = nullptr;
    ULONG count = 0;
    switch (given.rt) {
        case RES_AND:
        case RES_OR:
            count = given.rt == RES_AND ? given.res.resAnd.cRes : given.res.resOr.cRes;
            parts = given.rt == RES_AND ? given.res.resAnd.lpRes : given.res.resOr.lpRes;
            break;
        case RES_NOT:
            count = 1;
            parts = given.res.resNot.lpRes;
            break;
        case RES_CONTENT:
            restriction.relation_ = given.res.resContent.ulFuzzyLevel;
            restriction.tag_ = given.res.resContent.ulPropTag;
            value = given.res.resContent.lpProp;
            if ((restriction.relation_ & 0xFFFF) > FL_PREFIX) return fail(MAPI_E_TOO_COMPLEX);
            if (value == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
            if (!has_bytes(PROP_TYPE(value->ulPropTag))) return fail(MAPI_E_TOO_COMPLEX);
            break;
        case RES_PROPERTY:
            restriction.relation_ = given.res.resProperty.relop;
            restriction.tag_ = given.res.resProperty.ulPropTag;
            value = given.res.resProperty.lpProp;
            if (value == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
            break;
        case RES_COMPAREPROPS:
            restriction.relation_ = given.res.resCompareProps.relop;
            restriction.tag_ = given.res.resCompareProps.ulPropTag1;
            restriction.other_tag_ = given.res.resCompareProps.ulPropTag2;
            break;
        case RES_BITMASK:
            restriction.relation_ = given.res.resBitMask.relBMR;
            restriction.tag_ = given.res.resBitMask.ulPropTag;
            restriction.number_ = given.res.resBitMask.ulMask;
            break;
        case RES_SIZE:
            restriction.relation_ = given.res.resSize.relop;
            restriction.tag_ = given.res.resSize.ulPropTag;
            restriction.number_ = given.res.resSize.cb;
            break;
        case RES_EXIST:
            restriction.tag_ = given.res.resExist.ulPropTag;
            break;
        default:
            return fail(MAPI_E_TOO_COMPLEX);
    }
    if (given.rt != RES_CONTENT && restriction.relation_ > RELOP_NE) return fail(MAPI_E_TOO_COMPLEX);
    if (value != nullptr) {
        if (const SCODE code = take_value(*value, restriction.value_); code != S_OK) return fail(code);
    }
    if (count != 0 && parts == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
    restriction.parts_.resize(count);
    for (ULONG i = 0; i < count; ++i) {
        if (const HRESULT result = take(parts[i], restriction.parts_[i], depth + 1); FAILED(result)) return result;
    }
    return S_OK;
}

void Restriction::tags(std::vector<ULONG>& tags) const {
    for (const ULONG tag : {tag_, other_tag_}) {
        if (tag != 0) tags.push_back(tag);
    }
    for (const Restriction& part : parts_) {
        part.tags(tags);
    }
}

bool Restriction::fits_content(const SPropValue& value) const {
    if (PROP_TYPE(value.ulPropTag) != value_.type) return false;
    if (value_.type != PT_UNICODE) return fits_bytes(bytes_of(value), value_.bytes, relation_);
    const std::u16string_view text = value.Value.lpszW;
    const std::u16string pattern(as_text(value_.bytes));
    if ((relation_ & (FL_IGNORECASE | FL_LOOSE)) == 0) return fits_text(text, pattern, relation_);
    return fits_text(folded(text), folded(pattern), relation_);
}

bool Restriction::fits(const SPropValue* row, std::size_t count) const {
    switch (kind_) {
        case RES_AND:
            for (const Restriction& part : parts_) {
                if (!part.fits(row, count)) return false;
            }
            return true;
        case RES_OR:
            for (const Restriction& part : parts_) {
                if (part.fits(row, count)) return true;
            }
            return false;
        case RES_NOT:
            return !parts_.front().fits(row, count);
        default:
            break;
    }
    const SPropValue* const value = find(row, count, tag_);
    if (value == nullptr) return false;
    switch (kind_) {
        case RES_CONTENT:
            return fits_content(*value);
        case RES_PROPERTY: {
            std::u16string text;
            const SPropValue other = as_given(value_, tag_, text);
            return PROP_TYPE(value->ulPropTag) == value_.type && holds(relation_, compare_values(*value, other, false));
        }
        case RES_COMPAREPROPS: {
            const SPropValue* const other = find(row, count, other_tag_);
            return other != nullptr && PROP_TYPE(other->ulPropTag) == PROP_TYPE(value->ulPropTag) &&
                   holds(relation_, compare_values(*value, *other, false));
        }
        case RES_BITMASK:
            return PROP_TYPE(value->ulPropTag) == PT_LONG &&
                   ((value->Value.ul & number_) != 0) == (relation_ == BMR_NEZ);
        case RES_SIZE: {
            const ULONG size = size_of(*value);
            return holds(relation_, size < number_ ? -1 : size > number_ ? 1 : 0);
        }
        default:
            return true;  // RES_EXIST
    }
}

std::optional<std::u16string> Restriction::required_text(ULONG tag) const {
    if (kind_ == RES_PROPERTY && relation_ == RELOP_EQ && tag_ == tag && value_.type == PT_UNICODE)
        return std::u16string(as_text(value_.bytes));
    if (kind_ != RES_AND) return std::nullopt;
    for (const Restriction& part : parts_) {
        if (auto text = part.required_text(tag)) return text;
    }
    return std::nullopt;
}

}  // namespace zr::platform::mapi
