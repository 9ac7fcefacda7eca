#pragma once

// The streams of long values.

#include "platform/mapi.h"
#include "session.h"
#include "value.h"

namespace zr::platform::mapi {

// What a stream writes into. The stream holds a reference to it.
class StreamTarget {
public:
    virtual IUnknown* stream_owner() = 0;
    virtual HRESULT take_stream(WORD id, Value value) = 0;

protected:
    ~StreamTarget() = default;
};

// Reads a value; a kept one from the store, piece by piece.
HRESULT open_reading(const SessionRef& session, const Value& value, IStream** stream);
// Reads and writes a value on its way into the target, which gets it with Commit and with the last Release. It begins
// as `value`, or empty when that is PT_NULL.
HRESULT open_writing(const SessionRef& session, const Value& value, ULONG tag, StreamTarget& target, IStream** stream);

// Bytes of a value, wherever they are. With the store's lock held.
HRESULT read_value_bytes(MailStore& store, const Value& value, ULONGLONG at, std::span<BYTE> bytes, std::size_t& got);

}  // namespace zr::platform::mapi
