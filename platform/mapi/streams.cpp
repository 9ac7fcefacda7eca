#include "streams.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "com/com_object.h"

namespace zr::platform::mapi {
namespace {

constexpr HRESULT kBadPointer = STG_E_INVALIDPOINTER;

// What both kinds do alike: where they stand, copying, what they do not offer.
class Stream : public IStream {
public:
    HRESULT QueryInterface(REFIID riid, void** object) override {
        if (!cleared(object)) return E_POINTER;
        if (riid != IID_IUnknown && riid != IID_ISequentialStream && riid != IID_IStream) return fail(E_NOINTERFACE);
        AddRef();
        *object = static_cast<IStream*>(this);
        return S_OK;
    }
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override {
        const ULONG left = references_.remove();
        if (left == 0) {
            ending();
            delete this;
        }
        return left;
    }

    HRESULT Read(void* buffer, ULONG size, ULONG* read) override {
        if (read != nullptr) *read = 0;
        if (buffer == nullptr) return kBadPointer;
        return guarded([&] {
            std::size_t got = 0;
            const HRESULT result = read_at(at_, {static_cast<BYTE*>(buffer), size}, got);
            if (FAILED(result)) return result;
            at_ += got;
            if (read != nullptr) *read = static_cast<ULONG>(got);
            return got == size ? S_OK : S_FALSE;
        });
    }
    HRESULT Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* position) override {
        const LONGLONG base = origin == STREAM_SEEK_SET   ? 0
                              : origin == STREAM_SEEK_CUR ? static_cast<LONGLONG>(at_)
                                                          : static_cast<LONGLONG>(size());
        LONGLONG target = 0;
        if (origin > STREAM_SEEK_END || __builtin_add_overflow(base, move.QuadPart, &target) || target < 0)
            return STG_E_INVALIDFUNCTION;
        at_ = static_cast<ULONGLONG>(target);
        if (position != nullptr) position->QuadPart = at_;
        return S_OK;
    }
    HRESULT CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read, ULARGE_INTEGER* written) override {
        if (read != nullptr) read->QuadPart = 0;
        if (written != nullptr) written->QuadPart = 0;
        if (target == nullptr) return kBadPointer;
        std::array<BYTE, kChunkSize> buffer;
        for (ULONGLONG left = size.QuadPart; left != 0;) {
            ULONG got = 0;
            ULONG put = 0;
            const HRESULT result = Read(buffer.data(), static_cast<ULONG>(std::min<ULONGLONG>(left, kChunkSize)), &got);
            if (FAILED(result)) return result;
            if (got == 0) break;
            const HRESULT wrote = target->Write(buffer.data(), got, &put);
            if (read != nullptr) read->QuadPart += got;
            if (written != nullptr) written->QuadPart += put;
            if (FAILED(wrote)) return wrote;
            left -= got;
        }
        return S_OK;
    }
    HRESULT LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    HRESULT UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    HRESULT Stat(STATSTG* stat, DWORD) override {
        if (stat == nullptr) return kBadPointer;
        *stat = {};
        stat->type = STGTY_STREAM;
        stat->cbSize.QuadPart = size();
        return S_OK;
    }
    HRESULT Clone(IStream** stream) override {
        cleared(stream);
        return unsupported();
    }

protected:
    virtual ~Stream() = default;
    virtual HRESULT read_at(ULONGLONG at, std::span<BYTE> bytes, std::size_t& got) = 0;
    virtual ULONGLONG size() const = 0;
    virtual void ending() {}

    References references_;
    ULONGLONG at_ = 0;
};

class ReadStream final : public Stream {
public:
    ReadStream(SessionRef session, const Value& value) : session_(std::move(session)), value_(value) {}

    HRESULT Write(const void*, ULONG, ULONG* written) override {
        if (written != nullptr) *written = 0;
        return fail(MAPI_E_NO_ACCESS);
    }
    HRESULT SetSize(ULARGE_INTEGER) override { return fail(MAPI_E_NO_ACCESS); }
    HRESULT Commit(DWORD) override { return S_OK; }
    HRESULT Revert() override { return S_OK; }

private:
    ~ReadStream() override = default;

    // Pieces smaller than a chunk come out of the last chunk that was read.
    HRESULT read_at(ULONGLONG at, std::span<BYTE> bytes, std::size_t& got) override {
        got = 0;
        MailStore& store = session_->store();
        while (got != bytes.size() && at + got < value_.size()) {
            const ULONGLONG here = at + got;
            if (value_.blob == 0 || bytes.size() - got >= kChunkSize) {
                const auto reading = store.lock();
                std::size_t more = 0;
                const HRESULT result = read_value_bytes(store, value_, here, bytes.subspan(got), more);
                if (FAILED(result)) return result;
                got += more;
                continue;
            }
            if (here < chunk_at_ || here >= chunk_at_ + chunk_.size()) {
                if (const HRESULT result = read_chunk(here); FAILED(result)) return result;
            }
            const auto skip = static_cast<std::size_t>(here - chunk_at_);
            const std::size_t size = std::min(chunk_.size() - skip, bytes.size() - got);
            std::memcpy(bytes.data() + got, chunk_.data() + skip, size);
            got += size;
        }
        return S_OK;
    }
    HRESULT read_chunk(ULONGLONG at) {
        const auto reading = session_->store().lock();
        chunk_at_ = at - at % kChunkSize;
        chunk_.resize(static_cast<std::size_t>(std::min<ULONGLONG>(kChunkSize, value_.size() - chunk_at_)));
        std::size_t got = 0;
        const HRESULT result = read_value_bytes(session_->store(), value_, chunk_at_, chunk_, got);
        chunk_.resize(got);
        return result;
    }
    ULONGLONG size() const override { return value_.size(); }

    SessionRef session_;
    const Value value_;
    std::vector<BYTE> chunk_;
    ULONGLONG chunk_at_ = 0;
};

class WriteStream final : public Stream {
public:
    WriteStream(std::shared_ptr<Spool> spool, ULONG tag, StreamTarget& target)
        : spool_(std::move(spool)), tag_(tag), target_(target) {
        target_.stream_owner()->AddRef();
    }

    HRESULT Write(const void* buffer, ULONG size, ULONG* written) override {
        if (written != nullptr) *written = 0;
        if (buffer == nullptr) return kBadPointer;
        return guarded([&] {
            const HRESULT result = spool_->write(at_, {static_cast<const BYTE*>(buffer), size});
            if (FAILED(result)) return result;
            changed_ = true;
            at_ += size;
            if (written != nullptr) *written = size;
            return S_OK;
        });
    }
    HRESULT SetSize(ULARGE_INTEGER size) override {
        return guarded([&] {
            changed_ = true;
            return spool_->resize(size.QuadPart);
        });
    }
    HRESULT Commit(DWORD) override {
        return guarded([&] {
            Value value;
            value.type = PROP_TYPE(tag_);
            value.spool = spool_;
            if (spool_->size() <= kMostInline) {
                value.spool = nullptr;
                value.bytes.resize(static_cast<std::size_t>(spool_->size()));
                std::size_t got = 0;
                const HRESULT result =
                    spool_->read(0, {reinterpret_cast<BYTE*>(value.bytes.data()), value.bytes.size()}, got);
                if (FAILED(result)) return result;
            }
            changed_ = false;
            return target_.take_stream(id_of(tag_), std::move(value));
        });
    }
    HRESULT Revert() override { return unsupported(); }

private:
    ~WriteStream() override { target_.stream_owner()->Release(); }

    HRESULT read_at(ULONGLONG at, std::span<BYTE> bytes, std::size_t& got) override {
        return spool_->read(at, bytes, got);
    }
    ULONGLONG size() const override { return spool_->size(); }
    void ending() override {
        if (changed_) Commit(0);
    }

    std::shared_ptr<Spool> spool_;
    ULONG tag_;
    StreamTarget& target_;
    bool changed_ = true;  // what is opened anew becomes the object's, also when nothing is written
};

}  // namespace

HRESULT read_value_bytes(MailStore& store, const Value& value, ULONGLONG at, std::span<BYTE> bytes, std::size_t& got) {
    got = 0;
    if (at >= value.size()) return S_OK;
    const auto wanted = bytes.first(static_cast<std::size_t>(std::min<ULONGLONG>(bytes.size(), value.size() - at)));
    if (value.blob != 0) return store.read_blob(value, at, wanted, got);
    if (value.spool != nullptr) return value.spool->read(at, wanted, got);
    std::memcpy(wanted.data(), value.bytes.data() + at, wanted.size());
    got = wanted.size();
    return S_OK;
}

HRESULT open_reading(const SessionRef& session, const Value& value, IStream** stream) {
    *stream = new ReadStream(session, value);
    return S_OK;
}

HRESULT open_writing(const SessionRef& session, const Value& value, ULONG tag, StreamTarget& target, IStream** stream) {
    auto spool = std::make_shared<Spool>(session->store().folder_path());
    if (value.type != PT_NULL) {
        std::array<BYTE, kChunkSize> buffer;
        for (ULONGLONG at = 0; at < value.size();) {
            std::size_t got = 0;
            HRESULT result = S_OK;
            {
                const auto reading = session->store().lock();
                result = read_value_bytes(session->store(), value, at, buffer, got);
            }
            if (SUCCEEDED(result)) result = spool->write(at, std::span(buffer).first(got));
            if (FAILED(result)) return result;
            at += got;
        }
    }
    *stream = new WriteStream(std::move(spool), tag, target);
    return S_OK;
}

}  // namespace zr::platform::mapi
