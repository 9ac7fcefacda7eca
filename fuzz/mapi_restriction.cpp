// Restrictions of any shape on a table of messages: what fits and what does not fit are all rows together, FindRow
// finds a row where Restrict leaves some, and both take the same restrictions.

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/mapi.h"
#include "support/input.h"

namespace {

using zr::fuzz::require;

constexpr ULONG kTags[] = {PR_SUBJECT_W,     PR_SENDER_NAME_W,      PR_INTERNET_MESSAGE_ID_W,
                           PR_MESSAGE_FLAGS, PR_MESSAGE_SIZE,       PR_MESSAGE_DELIVERY_TIME,
                           PR_ENTRYID,       PR_IMPORTANCE,         PR_MESSAGE_CLASS_W,
                           PR_BODY_W,        PR_CLIENT_SUBMIT_TIME, 0x80010003};

// A store of its own with some messages, for as long as the program runs.
class Messages {
public:
    Messages() {
        std::string name = (std::filesystem::temp_directory_path() / "zr-fuzz-XXXXXX").string();
        require(mkdtemp(name.data()) != nullptr);
        home_ = name;
        setenv("ZR_HOME", name.c_str(), 1);
        require(MAPIInitialize(nullptr) == S_OK);
        require(MAPILogonEx(0, nullptr, nullptr, 0, &session_) == S_OK);
        require(session_->OpenMsgStore(0, 0, nullptr, nullptr, MAPI_BEST_ACCESS, &store_) == S_OK);
        ULONG type = 0;
        require(store_->OpenEntry(0, nullptr, &IID_IMAPIFolder, MAPI_MODIFY, &type,
                                  reinterpret_cast<IUnknown**>(&folder_)) == S_OK);
        for (const WCHAR* subject : {u"", u"abc", u"ABC\xD800", u"a longer subject, with more in it"}) {
            add(subject);
        }
        require(folder_->GetContentsTable(0, &table_) == S_OK);
        require(table_->GetRowCount(0, &count_) == S_OK && count_ == 4);
    }
    ~Messages() {
        table_->Release();
        folder_->Release();
        store_->Release();
        session_->Release();
        MAPIUninitialize();
        std::filesystem::remove_all(home_);
    }
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    IMAPITable* table() const { return table_; }
    ULONG count() const { return count_; }

private:
    void add(const WCHAR* subject) {
        IMessage* message = nullptr;
        require(folder_->CreateMessage(nullptr, 0, &message) == S_OK);
        SPropValue values[3] = {};
        for (SPropValue& value : values) {
            value.Value.lpszW = const_cast<LPWSTR>(subject);
        }
        values[0].ulPropTag = PR_SUBJECT_W;
        values[1].ulPropTag = PR_INTERNET_MESSAGE_ID_W;
        values[2].ulPropTag = PR_BODY_W;
        require(message->SetProps(*subject == 0 ? 1 : 3, values, nullptr) == S_OK);
        require(message->SaveChanges(0) == S_OK);
        message->Release();
    }

    std::filesystem::path home_;
    IMAPISession* session_ = nullptr;
    IMsgStore* store_ = nullptr;
    IMAPIFolder* folder_ = nullptr;
    IMAPITable* table_ = nullptr;
    ULONG count_ = 0;
};

// Makes a restriction of bytes. What it points to lives as long as the maker.
class Maker {
public:
    Maker(const std::uint8_t* data, std::size_t size) : data_(data), end_(data + size) {}

    SRestriction make(int depth) {
        SRestriction made = {};
        made.rt = next() % 11;
        const ULONG relation = next() % 9;
        const ULONG given_tag = tag();
        switch (made.rt) {
            case RES_AND:
            case RES_OR: {
                std::vector<SRestriction> parts(depth < 80 ? next() % 4 : 0);
                for (SRestriction& part : parts) {
                    part = make(depth + 1);
                }
                lists_.push_back(std::move(parts));
                made.res.resAnd = {static_cast<ULONG>(lists_.back().size()), lists_.back().data()};
                break;
            }
            case RES_NOT:
                lists_.push_back({depth < 80 ? make(depth + 1) : SRestriction{RES_EXIST, {}}});
                made.res.resNot = {0, lists_.back().data()};
                break;
            case RES_CONTENT:
                made.res.resContent = {relation << 16 | next() % 4, given_tag, value()};
                break;
            case RES_PROPERTY:
                made.res.resProperty = {relation, given_tag, value()};
                break;
            case RES_COMPAREPROPS:
                made.res.resCompareProps = {relation, given_tag, tag()};
                break;
            case RES_BITMASK:
                made.res.resBitMask = {relation, given_tag, ULONG{next()} << (next() % 32)};
                break;
            case RES_SIZE:
                made.res.resSize = {relation, given_tag, next()};
                break;
            default:
                made.res.resExist = {0, given_tag, 0};
        }
        return made;
    }

private:
    std::uint8_t next() { return data_ == end_ ? 0 : *data_++; }

    ULONG tag() {
        const ULONG tag = kTags[next() % std::size(kTags)];
        const std::uint8_t other = next();
        return other < 200 ? tag : CHANGE_PROP_TYPE(tag, other);
    }

    LPSPropValue value() {
        SPropValue made = {};
        made.ulPropTag = tag();
        const std::size_t size = next() % 16;
        texts_.emplace_back();
        for (std::size_t i = 0; i < size; ++i) {
            texts_.back() += zr::fuzz::character(next());
        }
        std::u16string& text = texts_.back();
        switch (PROP_TYPE(made.ulPropTag)) {
            case PT_UNICODE:
                made.Value.lpszW = text.data();
                break;
            case PT_BINARY:
                made.Value.bin = {static_cast<ULONG>(text.size() * sizeof(WCHAR)),
                                  reinterpret_cast<BYTE*>(text.data())};
                break;
            case PT_LONG:
            case PT_SYSTIME:
            case PT_BOOLEAN:
            case PT_I2:
                made.Value.l = size == 0 ? 0 : text[0];
                break;
            default:
                // What other types point to has no length that bytes could give.
                made.ulPropTag = PR_MESSAGE_FLAGS;
        }
        values_.push_back(made);
        return &values_.back();
    }

    const std::uint8_t* data_;
    const std::uint8_t* end_;
    std::deque<std::vector<SRestriction>> lists_;
    std::deque<std::u16string> texts_;
    std::deque<SPropValue> values_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Messages messages;
    IMAPITable* const table = messages.table();
    Maker maker(data, size);
    SRestriction restriction = maker.make(0);
    SRestriction negated = {};
    negated.rt = RES_NOT;
    negated.res.resNot = {0, &restriction};

    require(table->Restrict(nullptr, 0) == S_OK);
    const HRESULT found = table->FindRow(&restriction, BOOKMARK_BEGINNING, 0);
    const HRESULT result = table->Restrict(&restriction, 0);
    require(SUCCEEDED(result) == (found == S_OK || found == MAPI_E_NOT_FOUND));
    if (FAILED(result)) return 0;
    ULONG fitting = 0;
    require(table->GetRowCount(0, &fitting) == S_OK && (fitting > 0) == (found == S_OK));
    // One level more may be one too many.
    if (FAILED(table->Restrict(&negated, 0))) return 0;
    ULONG others = 0;
    require(table->GetRowCount(0, &others) == S_OK && fitting + others == messages.count());
    return 0;
}
