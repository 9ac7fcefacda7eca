#include "ZrUtility/Helpers/fake_mapi.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zr::test {
namespace fake_mapi {
namespace {

std::string hex(ULONG number) {
    char text[9];
    std::snprintf(text, sizeof text, "%08X", number);
    return text;
}

std::string name_of(ULONG size, const void* entry) {
    return std::string(static_cast<const char*>(entry), size);
}

std::string names_of(LPENTRYLIST list) {
    std::string names;
    for (ULONG i = 0; i < list->cValues; ++i) {
        names += " " + name_of(list->lpbin[i].cb, list->lpbin[i].lpb);
    }
    return names;
}

void* more(ULONG size, void* first, const void* bytes) {
    void* place = nullptr;
    MAPIAllocateMore(size, first, &place);
    std::memcpy(place, bytes, size);
    return place;
}

// One value of an object as its tag asks for it; an error entry where there is none.
SPropValue value_of(const FakeMapiObject& object, ULONG tag, void* first) {
    SPropValue value = {};
    const auto found = object.values.find(tag);
    value.ulPropTag = found != object.values.end() ? tag : CHANGE_PROP_TYPE(tag, PT_ERROR);
    if (found == object.values.end()) {
        value.Value.err = MAPI_E_NOT_FOUND;
    } else if (const auto* number = std::get_if<ULONG>(&found->second)) {
        value.Value.ul = *number;
    } else if (const auto* text = std::get_if<std::u16string>(&found->second)) {
        const auto size = static_cast<ULONG>((text->size() + 1) * sizeof(WCHAR));
        value.Value.lpszW = static_cast<WCHAR*>(more(size, first, text->c_str()));
    } else {
        const auto& bytes = std::get<FakeBytes>(found->second);
        value.Value.bin.cb = static_cast<ULONG>(bytes.size());
        value.Value.bin.lpb = static_cast<BYTE*>(more(value.Value.bin.cb, first, bytes.data()));
    }
    return value;
}

// The values of some tags in one buffer; whether all are there.
bool values_of(const FakeMapiObject& object, ULONG count, const ULONG* tags, SPropValue** values) {
    void* first = nullptr;
    MAPIAllocateBuffer(static_cast<ULONG>(count * sizeof(SPropValue)), &first);
    *values = static_cast<SPropValue*>(first);
    bool all = true;
    for (ULONG i = 0; i < count; ++i) {
        (*values)[i] = value_of(object, tags[i], first);
        all = all && (*values)[i].ulPropTag == tags[i];
    }
    return all;
}

template <class Interface>
class Object : public Interface {
public:
    Object(FakeMapi& world, std::string name) : world_(world), name_(std::move(name)) { ++world_.alive; }
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG AddRef() override { return ++references_; }
    ULONG Release() override {
        if (--references_ != 0) return references_;
        const auto found = world_.releases.find(name_);
        const ULONG result = found != world_.releases.end() ? found->second : 0;
        delete this;
        return result;
    }

protected:
    virtual ~Object() { --world_.alive; }

    FakeMapi& world_;
    const std::string name_;

private:
    ULONG references_ = 1;
};

template <class Interface>
class Prop : public Object<Interface> {
public:
    using Object<Interface>::Object;

    HRESULT GetProps(LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values) override {
        std::string call = "GetProps " + this->name_;
        for (ULONG i = 0; i < tags->cValues; ++i) {
            call += " " + hex(tags->aulPropTag[i]);
        }
        if (flags != MAPI_UNICODE) call += " flags " + hex(flags);
        const HRESULT result = this->world_.step(call);
        *count = 0;
        *values = nullptr;
        if (result < 0) return result;
        *count = tags->cValues;
        const FakeMapiObject& object = this->world_.objects[this->name_];
        return values_of(object, tags->cValues, tags->aulPropTag, values) ? result : MAPI_W_ERRORS_RETURNED;
    }

    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR*) override { return E_NOTIMPL; }
    HRESULT SaveChanges(ULONG) override { return E_NOTIMPL; }
    HRESULT GetPropList(ULONG, LPSPropTagArray*) override { return E_NOTIMPL; }
    HRESULT OpenProperty(ULONG, LPCIID, ULONG, ULONG, IUnknown**) override { return E_NOTIMPL; }
    HRESULT SetProps(ULONG, LPSPropValue, LPSPropProblemArray*) override { return E_NOTIMPL; }
    HRESULT DeleteProps(LPSPropTagArray, LPSPropProblemArray*) override { return E_NOTIMPL; }
    HRESULT CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, IMAPIProgress*, LPCIID, void*, ULONG,
                   LPSPropProblemArray*) override {
        return E_NOTIMPL;
    }
    HRESULT CopyProps(LPSPropTagArray, ULONG_PTR, IMAPIProgress*, LPCIID, void*, ULONG, LPSPropProblemArray*) override {
        return E_NOTIMPL;
    }
    HRESULT GetNamesFromIDs(LPSPropTagArray*, GUID*, ULONG, ULONG*, MAPINAMEID***) override { return E_NOTIMPL; }
    HRESULT GetIDsFromNames(ULONG, MAPINAMEID**, ULONG, LPSPropTagArray*) override { return E_NOTIMPL; }
};

// The folders that hang below the top, as rows.
class Table final : public Object<IMAPITable> {
public:
    using Object::Object;

    HRESULT SetColumns(LPSPropTagArray tags, ULONG flags) override {
        columns_.assign(tags->aulPropTag, tags->aulPropTag + tags->cValues);
        std::string call = "SetColumns";
        for (const ULONG tag : columns_) {
            call += " " + hex(tag);
        }
        return world_.step(call + " " + std::to_string(flags));
    }
    HRESULT QueryRows(LONG count, ULONG flags, LPSRowSet* rows) override {
        *rows = nullptr;
        const std::string call = "QueryRows " + std::to_string(count) + " " + std::to_string(flags);
        const HRESULT result = world_.step(call + " at " + std::to_string(position_));
        if (result < 0) return result;
        const auto wanted = std::min(world_.folders.size() - position_, static_cast<std::size_t>(count));
        void* buffer = nullptr;
        MAPIAllocateBuffer(static_cast<ULONG>(CbNewSRowSet(static_cast<ULONG>(wanted))), &buffer);
        *rows = static_cast<SRowSet*>(buffer);
        (*rows)->cRows = static_cast<ULONG>(wanted);
        SRow* row = (*rows)->aRow;
        for (std::size_t i = 0; i < wanted; ++i, ++row) {
            row->ulAdrEntryPad = 0;
            row->cValues = static_cast<ULONG>(columns_.size());
            values_of(world_.objects[world_.folders[position_ + i]], row->cValues, columns_.data(), &row->lpProps);
        }
        position_ += wanted;
        return result;
    }

    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR*) override { return E_NOTIMPL; }
    HRESULT Advise(ULONG, LPMAPIADVISESINK, ULONG*) override { return E_NOTIMPL; }
    HRESULT Unadvise(ULONG) override { return E_NOTIMPL; }
    HRESULT GetStatus(ULONG*, ULONG*) override { return E_NOTIMPL; }
    HRESULT QueryColumns(ULONG, LPSPropTagArray*) override { return E_NOTIMPL; }
    HRESULT GetRowCount(ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT SeekRow(BOOKMARK, LONG, LONG*) override { return E_NOTIMPL; }
    HRESULT SeekRowApprox(ULONG, ULONG) override { return E_NOTIMPL; }
    HRESULT QueryPosition(ULONG*, ULONG*, ULONG*) override { return E_NOTIMPL; }
    HRESULT FindRow(LPSRestriction, BOOKMARK, ULONG) override { return E_NOTIMPL; }
    HRESULT Restrict(LPSRestriction, ULONG) override { return E_NOTIMPL; }
    HRESULT CreateBookmark(BOOKMARK*) override { return E_NOTIMPL; }
    HRESULT FreeBookmark(BOOKMARK) override { return E_NOTIMPL; }
    HRESULT SortTable(LPSSortOrderSet, ULONG) override { return E_NOTIMPL; }
    HRESULT QuerySortOrder(LPSSortOrderSet*) override { return E_NOTIMPL; }
    HRESULT Abort() override { return E_NOTIMPL; }
    HRESULT ExpandRow(ULONG, BYTE*, ULONG, ULONG, LPSRowSet*, ULONG*) override { return E_NOTIMPL; }
    HRESULT CollapseRow(ULONG, BYTE*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT WaitForCompletion(ULONG, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT GetCollapseState(ULONG, ULONG, BYTE*, ULONG*, BYTE**) override { return E_NOTIMPL; }
    HRESULT SetCollapseState(ULONG, ULONG, BYTE*, BOOKMARK*) override { return E_NOTIMPL; }

private:
    std::vector<ULONG> columns_;
    std::size_t position_ = 0;
};

class Folder final : public Prop<IMAPIFolder> {
public:
    using Prop::Prop;

    HRESULT GetHierarchyTable(ULONG flags, LPMAPITABLE* table) override {
        const HRESULT result = world_.step("GetHierarchyTable " + name_ + " " + std::to_string(flags));
        *table = result < 0 ? nullptr : new Table(world_, name_);
        return result;
    }
    HRESULT CopyMessages(LPENTRYLIST messages, LPCIID iid, void* destination, ULONG_PTR, IMAPIProgress*,
                         ULONG flags) override {
        const auto* to = static_cast<Folder*>(static_cast<IMAPIFolder*>(destination));
        std::string call = "CopyMessages " + name_ + " to " + to->name_ + names_of(messages);
        if (iid != nullptr) call += " as something";
        return world_.step(call + " " + std::to_string(flags));
    }
    HRESULT DeleteMessages(LPENTRYLIST messages, ULONG_PTR, IMAPIProgress*, ULONG flags) override {
        return world_.step("DeleteMessages " + name_ + names_of(messages) + " " + std::to_string(flags));
    }

    HRESULT GetContentsTable(ULONG, LPMAPITABLE*) override { return E_NOTIMPL; }
    HRESULT OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, IUnknown**) override { return E_NOTIMPL; }
    HRESULT SetSearchCriteria(LPSRestriction, LPENTRYLIST, ULONG) override { return E_NOTIMPL; }
    HRESULT GetSearchCriteria(ULONG, LPSRestriction*, LPENTRYLIST*, ULONG*) override { return E_NOTIMPL; }
    HRESULT CreateMessage(LPCIID, ULONG, LPMESSAGE*) override { return E_NOTIMPL; }
    HRESULT CreateFolder(ULONG, LPWSTR, LPWSTR, LPCIID, ULONG, LPMAPIFOLDER*) override { return E_NOTIMPL; }
    HRESULT CopyFolder(ULONG, LPENTRYID, LPCIID, void*, LPWSTR, ULONG_PTR, IMAPIProgress*, ULONG) override {
        return E_NOTIMPL;
    }
    HRESULT DeleteFolder(ULONG, LPENTRYID, ULONG_PTR, IMAPIProgress*, ULONG) override { return E_NOTIMPL; }
    HRESULT SetReadFlags(LPENTRYLIST, ULONG_PTR, IMAPIProgress*, ULONG) override { return E_NOTIMPL; }
    HRESULT GetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT SetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT SaveContentsSort(LPSSortOrderSet, ULONG) override { return E_NOTIMPL; }
    HRESULT EmptyFolder(ULONG_PTR, IMAPIProgress*, ULONG) override { return E_NOTIMPL; }
};

class Message final : public Prop<IMessage> {
public:
    using Prop::Prop;

    HRESULT GetAttachmentTable(ULONG, LPMAPITABLE*) override { return E_NOTIMPL; }
    HRESULT OpenAttach(ULONG, LPCIID, ULONG, LPATTACH*) override { return E_NOTIMPL; }
    HRESULT CreateAttach(LPCIID, ULONG, ULONG*, LPATTACH*) override { return E_NOTIMPL; }
    HRESULT DeleteAttach(ULONG, ULONG_PTR, IMAPIProgress*, ULONG) override { return E_NOTIMPL; }
    HRESULT GetRecipientTable(ULONG, LPMAPITABLE*) override { return E_NOTIMPL; }
    HRESULT ModifyRecipients(ULONG, LPADRLIST) override { return E_NOTIMPL; }
    HRESULT SubmitMessage(ULONG) override { return E_NOTIMPL; }
    HRESULT SetReadFlag(ULONG) override { return E_NOTIMPL; }
};

std::string call_to_open(const std::string& who, ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags) {
    std::string call = who + "OpenEntry " + name_of(size, entry) + " " + std::to_string(flags);
    if (iid != nullptr) call += *iid == IID_IMAPIFolder ? " folder" : " something";
    return call;
}

class Store final : public Prop<IMsgStore> {
public:
    using Prop::Prop;

    HRESULT OpenEntry(ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, ULONG* type, IUnknown** object) override {
        const HRESULT result = world_.step(call_to_open(name_ + ".", size, entry, iid, flags));
        if (result < 0) return result;
        const std::string wanted = name_of(size, entry);
        if (!world_.objects.contains(wanted)) return MAPI_E_NOT_FOUND;
        *type = world_.objects[wanted].type;
        *object = world_.open(wanted);
        return result;
    }

    HRESULT Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override { return E_NOTIMPL; }
    HRESULT Unadvise(ULONG) override { return E_NOTIMPL; }
    HRESULT CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT SetReceiveFolder(LPWSTR, ULONG, ULONG, LPENTRYID) override { return E_NOTIMPL; }
    HRESULT GetReceiveFolder(LPWSTR, ULONG, ULONG*, LPENTRYID*, LPWSTR*) override { return E_NOTIMPL; }
    HRESULT GetReceiveFolderTable(ULONG, LPMAPITABLE*) override { return E_NOTIMPL; }
    HRESULT StoreLogoff(ULONG*) override { return E_NOTIMPL; }
    HRESULT AbortSubmit(ULONG, LPENTRYID, ULONG) override { return E_NOTIMPL; }
    HRESULT GetOutgoingQueue(ULONG, LPMAPITABLE*) override { return E_NOTIMPL; }
    HRESULT SetLockState(LPMESSAGE, ULONG) override { return E_NOTIMPL; }
    HRESULT FinishedMsg(ULONG, ULONG, LPENTRYID) override { return E_NOTIMPL; }
    HRESULT NotifyNewMail(LPNOTIFICATION) override { return E_NOTIMPL; }
};

class Session final : public Object<IMAPISession> {
public:
    using Object::Object;

    HRESULT OpenEntry(ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, ULONG* type, IUnknown** object) override {
        const HRESULT result = world_.step(call_to_open("", size, entry, iid, flags));
        if (result < 0) return result;
        const std::string wanted = name_of(size, entry);
        if (!world_.objects.contains(wanted)) return MAPI_E_NOT_FOUND;
        const auto reported = world_.reported_types.find(wanted);
        *type = reported != world_.reported_types.end() ? reported->second : world_.objects[wanted].type;
        *object = world_.open(wanted);
        return result;
    }

    HRESULT GetLastError(HRESULT, ULONG, LPMAPIERROR*) override { return E_NOTIMPL; }
    HRESULT GetMsgStoresTable(ULONG, LPMAPITABLE*) override { return E_NOTIMPL; }
    HRESULT OpenMsgStore(ULONG_PTR, ULONG, LPENTRYID, LPCIID, ULONG, LPMDB*) override { return E_NOTIMPL; }
    HRESULT OpenAddressBook(ULONG_PTR, LPCIID, ULONG, IUnknown**) override { return E_NOTIMPL; }
    HRESULT OpenProfileSection(LPMAPIUID, LPCIID, ULONG, IUnknown**) override { return E_NOTIMPL; }
    HRESULT GetStatusTable(ULONG, LPMAPITABLE*) override { return E_NOTIMPL; }
    HRESULT CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG*) override { return E_NOTIMPL; }
    HRESULT Unadvise(ULONG) override { return E_NOTIMPL; }
    HRESULT MessageOptions(ULONG_PTR, ULONG, LPWSTR, LPMESSAGE) override { return E_NOTIMPL; }
    HRESULT QueryDefaultMessageOpt(LPWSTR, ULONG, ULONG*, LPSPropValue*) override { return E_NOTIMPL; }
    HRESULT EnumAdrTypes(ULONG, ULONG*, LPWSTR**) override { return E_NOTIMPL; }
    HRESULT QueryIdentity(ULONG*, LPENTRYID*) override { return E_NOTIMPL; }
    HRESULT Logoff(ULONG_PTR, ULONG, ULONG) override { return E_NOTIMPL; }
    HRESULT SetDefaultStore(ULONG, ULONG, LPENTRYID) override { return E_NOTIMPL; }
    HRESULT AdminServices(ULONG, IUnknown**) override { return E_NOTIMPL; }
    HRESULT ShowForm(ULONG_PTR, LPMDB, LPMAPIFOLDER, LPCIID, ULONG, LPMESSAGE, ULONG, ULONG, ULONG, ULONG,
                     LPSTR) override {
        return E_NOTIMPL;
    }
    HRESULT PrepareForm(LPCIID, LPMESSAGE, ULONG*) override { return E_NOTIMPL; }
};

}  // namespace
}  // namespace fake_mapi

HRESULT FakeMapi::step(const std::string& call) {
    calls.push_back(call);
    const auto found = results.find(call);
    return found != results.end() ? found->second : S_OK;
}

IMAPISession* FakeMapi::session() {
    return new fake_mapi::Session(*this, "session");
}

IMAPIProp* FakeMapi::open(const std::string& name) {
    switch (objects.at(name).type) {
        case MAPI_STORE:
            return new fake_mapi::Store(*this, name);
        case MAPI_FOLDER:
            return new fake_mapi::Folder(*this, name);
        default:
            return new fake_mapi::Message(*this, name);
    }
}

HRESULT FakeStream::Stat(STATSTG* stat, DWORD flag) {
    asked_ = flag;
    stat->cbSize.QuadPart = size_;
    return result_;
}

}  // namespace zr::test
