#pragma once

#include "ZrUtility/Export.h"
#include "platform/mapi.h"
#include "platform/types.h"

// Properties of a message, folder or store, read in one call and then looked up by tag.
//
//     MapiReader reader = MapiReader::ReadMapiProperties(message, 2, PR_MESSAGE_CLASS_W, PR_ENTRYID);
//     if (reader.HasProp(PR_ENTRYID)) ...
//
// A reader is a value. Its copies share the values that were read, and the last of them gives them back to MAPI. The
// copies of one reader are used and destroyed on one thread. A reader that was default-constructed, or that there was
// no memory for (its result code is E_OUTOFMEMORY), has nothing to share, and its list of tags is never freed.
// Assigning one such reader to another changes nothing, the result code included.
//
// A property that could not be read is there as an entry of type PT_ERROR, which no lookup, count or walk sees. Lookups
// compare the whole tag, its type included.
class ZRUTILITY_API MapiReader {
public:
    // What ForAllReadProperties calls: with the property's tag, its type, the number of the visit from 0, its value and
    // the caller's context. A `*stop` that is set to nonzero ends the walk.
    using PropertyCallback = LONG (*)(ULONG tag, ULONG type, ULONG index, SPropValue* value, void* context, int* stop);

    // Holds nothing; its result code is E_FAIL.
    MapiReader();
    MapiReader(const MapiReader& other);
    MapiReader& operator=(const MapiReader& other);
    virtual ~MapiReader();

    // Reads the `count` tags that follow, each a ULONG. Never fails itself: see GetResultCode.
    static MapiReader ReadMapiProperties(IMAPIProp* object, unsigned int count, ...);
    static MapiReader ReadMapiProperty(IMAPIProp* object, ULONG tag);

    // 0 when it is not there.
    ULONG GetULProperty(ULONG tag);
    // The value's bytes, which stay the reader's and are valid while any of its copies lives. E_FAIL when it is not
    // there; then the outputs are untouched.
    HRESULT GetBinaryProperty(ULONG tag, ULONG* size, BYTE** bytes);
    bool HasProp(ULONG tag);
    // What reading gave: S_OK, MAPI_W_ERRORS_RETURNED when some are missing, or why nothing was read.
    LONG GetResultCode() const { return m_lResult; }

    // How many were read.
    ULONG GetPropertiesRead();
    // The tags of those that were read, in the order of asking, as a list that is the reader's. E_OUTOFMEMORY, with
    // *tags NULL, when memory is short.
    HRESULT GetTagsRead(SPropTagArray** tags);
    // Visits those that were read, in the order of asking. The last callback's result; 0 when there was none.
    LONG ForAllReadProperties(PropertyCallback callback, void* context);

private:
    // Takes over `values`.
    MapiReader(ULONG count, SPropValue* values, LONG result);

    void Copy(const MapiReader& other);
    void DecrementRefCountAndClean();
    const SPropValue* Find(ULONG tag) const;

    static LONG PropertyCounter(ULONG tag, ULONG type, ULONG index, SPropValue* value, void* context, int* stop);
    static LONG FillTags(ULONG tag, ULONG type, ULONG index, SPropValue* value, void* context, int* stop);

    ULONG m_ulCount;
    int* m_piRefCount;
    LONG m_lResult;
    SPropValue* m_pValues;
    // Made by the first GetTagsRead. A copy that was made before does not know of it.
    SPropTagArray* m_pTagsRead;
};
