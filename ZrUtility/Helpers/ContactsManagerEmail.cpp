#include "ZrUtility/Helpers/ContactsManagerEmail.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <memory>
#include <new>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/Helpers/contact_item.h"
#include "ZrUtility/Helpers/hash_column.h"
#include "platform/base.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\ContactsManagerEmail.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x73, kZrLogFailure);
constexpr std::uint32_t LOG_INFORMATION = zrLogCategory(0x73, kZrLogInformation);
constexpr std::uint32_t LOG_TRACE = zrLogCategory(0x73, kZrLogTrace);

constexpr int EMAIL_FIELDS =
    Contact::CONTACT_FIELD_EMAIL1 | Contact::CONTACT_FIELD_EMAIL2 | Contact::CONTACT_FIELD_EMAIL3;

using EmailGetter = HRESULT (IContact::*)(BSTR*);
constexpr int EMAIL_COUNT = 3;
constexpr EmailGetter EMAIL_GETTERS[EMAIL_COUNT] = {&IContact::get_Email1Address, &IContact::get_Email2Address,
                                                    &IContact::get_Email3Address};

// Whether an identifier was handed out again after its contact was deleted; from then on created contacts count.
std::atomic<bool> identifiers_are_reused{false};

void LogFailure(int line, LONG result) {
    zrKelDebugBinLog1(LOG_SOURCE, line, LOG_FAILURE, static_cast<ULONG>(result));
}

// A ratio for the log, in ten-thousandths. A folder without contacts has an infinite one.
std::uintptr_t LoggedRatio(float ratio) {
    return std::isfinite(ratio) ? static_cast<std::uintptr_t>(ratio * 10000) : UINTPTR_MAX;
}

// Goes on from `hash`, with what is left of an address. Lower-cases piece by piece, so that none needs memory of its
// own.
ULONG HashOfRest(ULONG hash, const WCHAR* address) {
    constexpr DWORD PIECE = 128;
    WCHAR piece[PIECE];
    for (bool more = true; more;) {
        DWORD length = 0;
        while (length < PIECE && address[length] != u'\0') {
            piece[length] = address[length];
            ++length;
        }
        more = length == PIECE;
        address += length;
        CharLowerBuffW(piece, length);
        for (DWORD i = 0; i < length; ++i) {
            hash = hash * 37 + piece[i];
        }
    }
    return hash;
}

// Of the lower-cased address. Nearly all addresses are of ASCII letters only, whose case needs no table.
ULONG AddressHash(const WCHAR* address) {
    if (address == nullptr) return 0xFFFFFFFF;
    ULONG hash = 17;
    for (; *address != u'\0'; ++address) {
        const WCHAR character = *address;
        if (character >= 0x80) return HashOfRest(hash, address);
        const bool capital = character >= u'A' && character <= u'Z';
        hash = hash * 37 + static_cast<ULONG>(capital ? character + (u'a' - u'A') : character);
    }
    return hash;
}

// The three addresses of a contact, given back with the object.
class Emails {
public:
    explicit Emails(IPOutlookApp* application) : m_pApplication(application) {}
    ~Emails() {
        for (WCHAR* address : m_pwzAddresses) {
            if (address != nullptr) m_pApplication->SysFreeString(address);
        }
    }
    Emails(const Emails&) = delete;
    Emails& operator=(const Emails&) = delete;

    // Stops at the first that cannot be read.
    LONG Read(IContact* contact) {
        LONG result = S_OK;
        for (int i = 0; i < EMAIL_COUNT && result >= 0; ++i) {
            const EmailGetter get = EMAIL_GETTERS[i];
            result = (contact->*get)(&m_pwzAddresses[i]);
        }
        return result;
    }
    // NULL for an empty one.
    const WCHAR* Address(int i) const {
        return m_pwzAddresses[i] != nullptr && *m_pwzAddresses[i] != u'\0' ? m_pwzAddresses[i] : nullptr;
    }

private:
    IPOutlookApp* const m_pApplication;
    WCHAR* m_pwzAddresses[EMAIL_COUNT] = {};
};

}  // namespace

// Beside the buckets: the column of each one's hashes, and the block that holds the entries of the index as it was
// built. Entries that were added since are allocated one by one.
struct ContactsManagerEmail::IndexMemory {
    HashColumn<Candidate> columns[BUCKET_COUNT];
    std::unique_ptr<Candidate[]> block;
    std::size_t blockCount = 0;

    bool InBlock(const Candidate* entry) const {
        const std::less<const Candidate*> before;
        return !before(entry, block.get()) && before(entry, block.get() + blockCount);
    }
    void Free(Candidate* entry) const {
        if (!InBlock(entry)) delete entry;
    }
};

// Collects the entries of a whole index and then puts them in bucket by bucket, so that those of one bucket lie
// together.
class ContactsManagerEmail::IndexBuilder {
public:
    LONG Add(const Candidate& candidate) {
        if (m_count == m_capacity) {
            const std::size_t capacity = m_capacity == 0 ? 1024 : m_capacity * 2;
            std::unique_ptr<Candidate[]> grown(new (std::nothrow) Candidate[capacity]);
            if (grown == nullptr) return E_FAIL;
            std::copy_n(m_entries.get(), m_count, grown.get());
            m_entries = std::move(grown);
            m_capacity = capacity;
        }
        m_entries[m_count++] = candidate;
        return S_OK;
    }

    // Into empty buckets.
    LONG PutInto(ContactsManagerEmail& manager) const {
        std::size_t starts[BUCKET_COUNT + 1] = {};
        for (std::size_t i = 0; i < m_count; ++i) {
            ++starts[m_entries[i].hash % BUCKET_COUNT + 1];
        }
        IndexMemory& memory = *manager.m_pMemory;
        for (ULONG bucket = 0; bucket < BUCKET_COUNT; ++bucket) {
            if (!memory.columns[bucket].Reserve(static_cast<int>(starts[bucket + 1]))) return E_FAIL;
            starts[bucket + 1] += starts[bucket];
        }
        std::unique_ptr<Candidate[]> sorted(new (std::nothrow) Candidate[m_count]);
        if (sorted == nullptr) return E_FAIL;
        for (std::size_t i = 0; i < m_count; ++i) {
            sorted[starts[m_entries[i].hash % BUCKET_COUNT]++] = m_entries[i];
        }
        memory.block = std::move(sorted);
        memory.blockCount = m_count;
        LONG result = S_OK;
        for (std::size_t i = 0; i < m_count && result >= 0; ++i) {
            result = manager.AppendEntry(&memory.block[i]);
        }
        return result;
    }

private:
    std::unique_ptr<Candidate[]> m_entries;
    std::size_t m_count = 0;
    std::size_t m_capacity = 0;
};

const float ContactsManagerEmail::m_cfRehashThreshHold = 0.85f;
const int ContactsManagerEmail::m_ciAssumedEmailsPerContact = 3;

ContactsManagerEmail::ContactsManagerEmail()
    : m_pBuckets(nullptr), m_lFirstDeletedOid(0), m_iAddedEntries(0), m_iEmailInitialized(0), m_pMemory(nullptr) {}

ContactsManagerEmail::~ContactsManagerEmail() {
    ContactsManagerEmail::Uninitialize(1);
}

int ContactsManagerEmail::IsInitialized() {
    return ContactsManager::IsInitialized() != 0 && m_iEmailInitialized > 0 ? 1 : 0;
}

ContactsManager::CM_MANAGER_TYPE ContactsManagerEmail::GetClassType() {
    return CM_TYPE_EMAIL;
}

LONG ContactsManagerEmail::Initialize() {
    LONG result = S_OK;
    if (IsInitialized() == 0) {
        result = ContactsManager::Initialize();
        if (result >= 0) result = CreateHashIndex();
        if (result >= 0) {
            zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_INFORMATION, static_cast<ULONG>(result));
            m_iEmailInitialized = 0;
        }
    }
    ++m_iEmailInitialized;
    if (result < 0) {
        zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), m_iEmailInitialized);
        Uninitialize(0);
    }
    return result;
}

LONG ContactsManagerEmail::Uninitialize(int force) {
    --m_iEmailInitialized;
    zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_INFORMATION, m_iEmailInitialized, force);
    // As in the base class, a call too many leaves nothing behind.
    if (m_iEmailInitialized > 0 && force == 0) return S_OK;
    m_iEmailInitialized = 0;
    DestroyHashIndex();
    const LONG result = ContactsManager::Uninitialize(0);
    if (result < 0) {
        zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), m_iEmailInitialized);
    }
    return result;
}

LONG ContactsManagerEmail::AddCandidate(const Candidate& candidate) {
    if (m_pBuckets == nullptr) return E_FAIL;
    auto* entry = new (std::nothrow) Candidate(candidate);
    if (entry == nullptr) return E_FAIL;
    const LONG result = AppendEntry(entry);
    if (result < 0) delete entry;
    return result;
}

// At the end of its bucket's list and column; to neither when memory is short.
LONG ContactsManagerEmail::AppendEntry(Candidate* entry) {
    Bucket& bucket = m_pBuckets[entry->hash % BUCKET_COUNT];
    HashColumn<Candidate>& column = m_pMemory->columns[entry->hash % BUCKET_COUNT];
    if (!column.Reserve(1)) return E_FAIL;
    const int before = bucket.getNumberOfElement();
    bucket.appendElement(entry);
    if (bucket.getNumberOfElement() == before) return E_FAIL;
    column.Append(entry->hash, entry);
    return S_OK;
}

void ContactsManagerEmail::RemoveEntry(ULONG bucket, int index) {
    Candidate* entry = m_pMemory->columns[bucket].At(index);
    m_pBuckets[bucket].removeElement(index);
    m_pMemory->columns[bucket].Remove(index);
    m_pMemory->Free(entry);
}

ContactsManagerEmail::Candidate* ContactsManagerEmail::FindCandidate(const Candidate& candidate) {
    if (m_pBuckets == nullptr) return nullptr;
    const HashColumn<Candidate>& column = m_pMemory->columns[candidate.hash % BUCKET_COUNT];
    for (int i = column.Find(candidate.hash, 0); i < column.Count(); i = column.Find(candidate.hash, i + 1)) {
        if (column.At(i)->oid == candidate.oid) return column.At(i);
    }
    return nullptr;
}

LONG ContactsManagerEmail::AddContactEmailsToHash(IContact* contact, IPOutlookApp* application) {
    return ForEachEmail(contact, application, [this](const Candidate& entry) { return AddCandidate(entry); });
}

template <class Add>
LONG ContactsManagerEmail::ForEachEmail(IContact* contact, IPOutlookApp* application, Add add) {
    LONG oid = 0;
    Emails emails(application);
    LONG result = contact->get_Oid(&oid);
    if (result >= 0) result = emails.Read(contact);
    for (int i = 0; i < EMAIL_COUNT && result >= 0; ++i) {
        const WCHAR* address = emails.Address(i);
        if (address != nullptr) result = add(Candidate{AddressHash(address), oid});
    }
    if (result < 0) zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), oid);
    return result;
}

LONG ContactsManagerEmail::CreateHashIndex() {
    if (m_pBuckets != nullptr) {
        zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_INFORMATION);
        DestroyHashIndex();
    }
    m_pMemory = new (std::nothrow) IndexMemory;
    m_pBuckets = m_pMemory != nullptr ? new (std::nothrow) Bucket[BUCKET_COUNT] : nullptr;
    if (m_pBuckets == nullptr) DestroyHashIndex();
    IndexBuilder builder;
    int count = 0;
    LONG result = m_pBuckets == nullptr || m_pItems == nullptr ? E_FAIL : m_pItems->get_Count(&count);
    for (int index = 1; index <= count && result >= 0; ++index) {
        IDispatch* item = nullptr;
        result = m_pItems->Item(index, &item);
        if (item == nullptr) continue;
        if (result >= 0) {
            result = ForEachEmail(static_cast<IContact*>(item), m_pOutlookApp,
                                  [&builder](const Candidate& entry) { return builder.Add(entry); });
        }
        item->Release();
    }
    // After a failure, too, what was read is kept.
    const LONG put = m_pBuckets != nullptr ? builder.PutInto(*this) : E_FAIL;
    if (result >= 0) result = put;
    if (result < 0) LogFailure(__LINE__, result);
    return result;
}

LONG ContactsManagerEmail::DestroyHashIndex() {
    for (ULONG i = 0; m_pBuckets != nullptr && i < BUCKET_COUNT; ++i) {
        const HashColumn<Candidate>& column = m_pMemory->columns[i];
        for (int entry = 0; entry < column.Count(); ++entry) {
            m_pMemory->Free(column.At(entry));
        }
        m_pBuckets[i].clear();
    }
    delete[] m_pBuckets;
    m_pBuckets = nullptr;
    delete m_pMemory;
    m_pMemory = nullptr;
    m_lFirstDeletedOid = 0;
    m_iAddedEntries = 0;
    return S_OK;
}

ContactsManager::CM_QUANTIFIER ContactsManagerEmail::FindContact(WCHAR* pattern, int fieldMask, int exact,
                                                                 int substrings, int emailOnly, Contact*& contact) {
    contact = nullptr;
    if (exact == 0 || substrings != 0 || fieldMask != EMAIL_FIELDS) {
        return ContactsManager::FindContact(pattern, fieldMask, exact, substrings, emailOnly, contact);
    }
    if (m_pBuckets == nullptr) return CM_NONE;
    const ULONG hash = AddressHash(pattern);
    const HashColumn<Candidate>& column = m_pMemory->columns[hash % BUCKET_COUNT];
    LONG found = 0;
    int matches = 0;
    for (int i = column.Find(hash, 0); i < column.Count() && matches < 2; i = column.Find(hash, i)) {
        const LONG oid = column.At(i)->oid;
        Contact* candidate = nullptr;
        if (GetContactFromOid(static_cast<ULONG>(oid), candidate) < 0 || candidate == nullptr) {
            // The contact is gone, and then so is the entry; the next one takes its place.
            RemoveEntry(hash % BUCKET_COUNT, i);
            continue;
        }
        ++i;
        if (oid == found || candidate->IsComparable(pattern, EMAIL_FIELDS, exact, 0) == 0) {
            ReleaseContact(candidate);
        } else if (++matches == 1) {
            contact = candidate;
            contact->get_Oid(found);
        } else {
            ReleaseContact(contact);
            ReleaseContact(candidate);
        }
    }
    return static_cast<CM_QUANTIFIER>(matches);
}

// The contact with this identifier, for the caller to release; NULL, with a record, when there is none.
IContact* ContactsManagerEmail::ItemFromOid(LONG oid) {
    IDispatch* item = nullptr;
    IContact* contact = nullptr;
    LONG result = m_pOutlookApp != nullptr ? m_pOutlookApp->GetItemFromOid(oid, &item) : E_FAIL;
    const LONG kind = ContactOfItem(item, contact);
    if (result >= 0 && kind < 0) result = kind;
    if (result < 0) zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), oid);
    return contact;
}

LONG ContactsManagerEmail::ProcessPIMCreated(HWND, UINT, WPARAM oid, LPARAM) {
    const LONG created = static_cast<LONG>(oid);
    IContact* contact = ItemFromOid(created);
    if (contact != nullptr) AddContactEmailsToHash(contact, m_pOutlookApp);
    if (m_lFirstDeletedOid == created) identifiers_are_reused = true;
    if (identifiers_are_reused) m_iAddedEntries += m_ciAssumedEmailsPerContact;
    RebuildIfGrown();
    if (contact != nullptr) contact->Release();
    return S_OK;
}

void ContactsManagerEmail::RebuildIfGrown() {
    if (m_iAddedEntries == 0) return;
    int count = 0;
    const LONG result = m_pItems != nullptr ? m_pItems->get_Count(&count) : E_FAIL;
    if (result < 0) {
        LogFailure(__LINE__, result);
        return;
    }
    const float capacity = static_cast<float>(count) * static_cast<float>(m_ciAssumedEmailsPerContact);
    const float ratio = static_cast<float>(m_iAddedEntries) / capacity;
    if (ratio < m_cfRehashThreshHold) return;
    zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_TRACE, LoggedRatio(ratio));
    DestroyHashIndex();
    CreateHashIndex();
    zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_TRACE);
}

LONG ContactsManagerEmail::ProcessPIMDeleted(HWND, UINT, WPARAM oid, LPARAM) {
    if (m_lFirstDeletedOid == 0) m_lFirstDeletedOid = static_cast<LONG>(oid);
    return S_OK;
}

LONG ContactsManagerEmail::ProcessPIMChanged(HWND, UINT, WPARAM oid, LPARAM) {
    const LONG changed = static_cast<LONG>(oid);
    IContact* contact = ItemFromOid(changed);
    if (contact == nullptr) return S_OK;
    for (const EmailGetter getter : EMAIL_GETTERS) {
        WCHAR* address = nullptr;
        LONG result = (contact->*getter)(&address);
        if (result >= 0 && address != nullptr && *address != u'\0') {
            const Candidate entry{AddressHash(address), changed};
            if (FindCandidate(entry) == nullptr) {
                result = AddCandidate(entry);
                if (result >= 0) ++m_iAddedEntries;
            }
        }
        if (address != nullptr) m_pOutlookApp->SysFreeString(address);
        if (result < 0) {
            zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), changed);
            break;
        }
    }
    contact->Release();
    return S_OK;
}
