#include "ZrUtility/Helpers/MapiReader.h"

#include <cstdarg>
#include <cstddef>
#include <new>

namespace {

// Room for a list of `count` tags; NULL when memory is short.
SPropTagArray* NewTagArray(std::size_t count) {
    auto* words = new (std::nothrow) ULONG[count + 1];
    if (words != nullptr) words[0] = static_cast<ULONG>(count);
    return reinterpret_cast<SPropTagArray*>(words);
}

void DeleteTagArray(SPropTagArray* tags) {
    delete[] reinterpret_cast<ULONG*>(tags);
}

}  // namespace

MapiReader::MapiReader()
    : m_ulCount(0), m_piRefCount(nullptr), m_lResult(E_FAIL), m_pValues(nullptr), m_pTagsRead(nullptr) {}

MapiReader::MapiReader(ULONG count, SPropValue* values, LONG result)
    : m_ulCount(count),
      m_piRefCount(new (std::nothrow) int(1)),
      m_lResult(result),
      m_pValues(values),
      m_pTagsRead(nullptr) {
    if (m_piRefCount != nullptr) return;
    // Nobody would give the values back.
    if (m_pValues != nullptr) MAPIFreeBuffer(m_pValues);
    m_pValues = nullptr;
    m_ulCount = 0;
    m_lResult = E_OUTOFMEMORY;
}

MapiReader::MapiReader(const MapiReader& other) {
    Copy(other);
}

MapiReader& MapiReader::operator=(const MapiReader& other) {  // NOLINT(bugprone-unhandled-self-assignment)
    if (m_piRefCount == other.m_piRefCount) return *this;
    DecrementRefCountAndClean();
    Copy(other);
    return *this;
}

MapiReader::~MapiReader() {
    DecrementRefCountAndClean();
}

void MapiReader::Copy(const MapiReader& other) {
    m_ulCount = other.m_ulCount;
    m_piRefCount = other.m_piRefCount;
    m_lResult = other.m_lResult;
    m_pValues = other.m_pValues;
    m_pTagsRead = other.m_pTagsRead;
    if (m_piRefCount != nullptr) ++*m_piRefCount;
}

void MapiReader::DecrementRefCountAndClean() {
    if (m_piRefCount == nullptr) return;
    if (*m_piRefCount != 0) --*m_piRefCount;
    if (*m_piRefCount != 0) return;
    delete m_piRefCount;
    m_piRefCount = nullptr;
    if (m_pValues != nullptr) MAPIFreeBuffer(m_pValues);
    m_pValues = nullptr;
    DeleteTagArray(m_pTagsRead);
    m_pTagsRead = nullptr;
}

MapiReader MapiReader::ReadMapiProperties(IMAPIProp* object, unsigned int count, ...) {
    SPropTagArray* tags = NewTagArray(count);
    if (tags == nullptr) return MapiReader(0, nullptr, E_OUTOFMEMORY);
    va_list arguments;
    va_start(arguments, count);
    for (unsigned int i = 0; i < count; ++i) {
        tags->aulPropTag[i] = va_arg(arguments, ULONG);
    }
    va_end(arguments);
    ULONG read = 0;
    SPropValue* values = nullptr;
    const LONG result = object->GetProps(tags, MAPI_UNICODE, &read, &values);
    DeleteTagArray(tags);
    return MapiReader(read, values, result);
}

MapiReader MapiReader::ReadMapiProperty(IMAPIProp* object, ULONG tag) {
    return ReadMapiProperties(object, 1, tag);
}

const SPropValue* MapiReader::Find(ULONG tag) const {
    if (m_pValues == nullptr) return nullptr;
    for (ULONG i = 0; i < m_ulCount; ++i) {
        if (m_pValues[i].ulPropTag == tag) return &m_pValues[i];
    }
    return nullptr;
}

ULONG MapiReader::GetULProperty(ULONG tag) {
    const SPropValue* value = Find(tag);
    return value != nullptr ? value->Value.ul : 0;
}

HRESULT MapiReader::GetBinaryProperty(ULONG tag, ULONG* size, BYTE** bytes) {
    const SPropValue* value = Find(tag);
    if (value == nullptr) return E_FAIL;
    *size = value->Value.bin.cb;
    *bytes = value->Value.bin.lpb;
    return S_OK;
}

bool MapiReader::HasProp(ULONG tag) {
    return Find(tag) != nullptr;
}

ULONG MapiReader::GetPropertiesRead() {
    int count = 0;
    ForAllReadProperties(PropertyCounter, &count);
    return static_cast<ULONG>(count);
}

HRESULT MapiReader::GetTagsRead(SPropTagArray** tags) {
    if (m_pTagsRead == nullptr) {
        m_pTagsRead = NewTagArray(GetPropertiesRead());
        if (m_pTagsRead != nullptr) ForAllReadProperties(FillTags, m_pTagsRead);
    }
    *tags = m_pTagsRead;
    return m_pTagsRead != nullptr ? S_OK : E_OUTOFMEMORY;
}

LONG MapiReader::ForAllReadProperties(PropertyCallback callback, void* context) {
    LONG result = 0;
    int stop = 0;
    ULONG index = 0;
    const ULONG count = m_pValues != nullptr ? m_ulCount : 0;
    for (ULONG i = 0; i < count && stop == 0; ++i) {
        const ULONG tag = m_pValues[i].ulPropTag;
        if (PROP_TYPE(tag) == PT_ERROR) continue;
        result = callback(tag, PROP_TYPE(tag), index, &m_pValues[i], context, &stop);
        ++index;
    }
    return result;
}

LONG MapiReader::PropertyCounter(ULONG, ULONG, ULONG, SPropValue*, void* context, int*) {
    ++*static_cast<int*>(context);
    return 0;
}

LONG MapiReader::FillTags(ULONG tag, ULONG, ULONG index, SPropValue*, void* context, int*) {
    static_cast<SPropTagArray*>(context)->aulPropTag[index] = tag;
    return 0;
}
