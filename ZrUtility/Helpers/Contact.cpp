#include "ZrUtility/Helpers/Contact.h"

#include <initializer_list>

#include "ZrLog/ZrLog.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\Contact.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x73, kZrLogFailure);

using Getter = HRESULT (IContact::*)(BSTR*);
using Setter = HRESULT (IContact::*)(BSTR);

enum FieldIndex : int {
    FILE_AS,
    TITLE,
    FIRST_NAME,
    MIDDLE_NAME,
    LAST_NAME,
    SUFFIX,
    COMPANY_NAME,
    EMAIL1,
    EMAIL2,
    EMAIL3,
    JOB_TITLE,
};

struct FieldAccess {
    Getter get;
    Setter put;
};

constexpr FieldAccess FIELDS[] = {
    {&IContact::get_FileAs, &IContact::put_FileAs},
    {&IContact::get_Title, &IContact::put_Title},
    {&IContact::get_FirstName, &IContact::put_FirstName},
    {&IContact::get_MiddleName, &IContact::put_MiddleName},
    {&IContact::get_LastName, &IContact::put_LastName},
    {&IContact::get_Suffix, &IContact::put_Suffix},
    {&IContact::get_CompanyName, nullptr},
    {&IContact::get_Email1Address, &IContact::put_Email1Address},
    {&IContact::get_Email2Address, &IContact::put_Email2Address},
    {&IContact::get_Email3Address, &IContact::put_Email3Address},
    {&IContact::get_JobTitle, &IContact::put_JobTitle},
};

// What a bit of a field mask searches. The middle name's bit searches the file-as name once more.
struct SearchStep {
    Contact::CONTACT_FIELD bit;
    FieldIndex field;
    Contact::CONTACT_FIELD result;
};

constexpr SearchStep SEARCH[] = {
    {Contact::CONTACT_FIELD_FILE_AS, FILE_AS, Contact::CONTACT_FIELD_FILE_AS},
    {Contact::CONTACT_FIELD_TITLE, TITLE, Contact::CONTACT_FIELD_TITLE},
    {Contact::CONTACT_FIELD_FIRST_NAME, FIRST_NAME, Contact::CONTACT_FIELD_FIRST_NAME},
    {Contact::CONTACT_FIELD_MIDDLE_NAME, FILE_AS, Contact::CONTACT_FIELD_FILE_AS},
    {Contact::CONTACT_FIELD_LAST_NAME, LAST_NAME, Contact::CONTACT_FIELD_LAST_NAME},
    {Contact::CONTACT_FIELD_SUFFIX, SUFFIX, Contact::CONTACT_FIELD_SUFFIX},
    {Contact::CONTACT_FIELD_COMPANY_NAME, COMPANY_NAME, Contact::CONTACT_FIELD_COMPANY_NAME},
    {Contact::CONTACT_FIELD_EMAIL1, EMAIL1, Contact::CONTACT_FIELD_EMAIL1},
    {Contact::CONTACT_FIELD_EMAIL2, EMAIL2, Contact::CONTACT_FIELD_EMAIL2},
    {Contact::CONTACT_FIELD_EMAIL3, EMAIL3, Contact::CONTACT_FIELD_EMAIL3},
    {Contact::CONTACT_FIELD_JOB_TITLE, JOB_TITLE, Contact::CONTACT_FIELD_JOB_TITLE},
};

constexpr auto NO_FIELD = static_cast<Contact::CONTACT_FIELD>(0);

}  // namespace

Contact::Contact() : m_pOutlookApp(nullptr), m_pContact(nullptr), m_pwzFields{} {}

Contact::~Contact() {
    Uninitialize();
}

LONG Contact::Initialize(IContact* item) {
    if (item == nullptr) return E_FAIL;
    if (m_pContact != nullptr || m_pOutlookApp != nullptr) {
        zrKelDebugBinLog1(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(E_FAIL));
        return E_FAIL;
    }
    m_pContact = item;
    return item->get_Application(&m_pOutlookApp);
}

LONG Contact::Uninitialize() {
    for (WCHAR*& text : m_pwzFields) {
        if (text == nullptr) continue;
        if (m_pOutlookApp != nullptr) {
            m_pOutlookApp->SysFreeString(text);
        } else {
            ::SysFreeString(text);
        }
        text = nullptr;
    }
    if (m_pOutlookApp != nullptr) m_pOutlookApp->Release();
    m_pOutlookApp = nullptr;
    if (m_pContact != nullptr) m_pContact->Release();
    m_pContact = nullptr;
    return S_OK;
}

LONG Contact::ReadField(int field, WCHAR*& value) {
    LONG result = S_OK;
    if (m_pwzFields[field] == nullptr) {
        if (m_pContact == nullptr) return E_FAIL;
        // By a name of its own: an index inside the call is misjudged by the bounds check of some compilers.
        const Getter get = FIELDS[field].get;
        result = (m_pContact->*get)(&m_pwzFields[field]);
        if (result < 0 || m_pwzFields[field] == nullptr) return E_FAIL;
    }
    value = m_pwzFields[field];
    return result;
}

LONG Contact::WriteField(int field, WCHAR* value) {
    const Setter put = FIELDS[field].put;
    return m_pContact != nullptr ? (m_pContact->*put)(value) : E_FAIL;
}

LONG Contact::get_FileAs(WCHAR*& value) {
    return ReadField(FILE_AS, value);
}
LONG Contact::get_Title(WCHAR*& value) {
    return ReadField(TITLE, value);
}
LONG Contact::get_FirstName(WCHAR*& value) {
    return ReadField(FIRST_NAME, value);
}
LONG Contact::get_MiddleName(WCHAR*& value) {
    return ReadField(MIDDLE_NAME, value);
}
LONG Contact::get_LastName(WCHAR*& value) {
    return ReadField(LAST_NAME, value);
}
LONG Contact::get_Suffix(WCHAR*& value) {
    return ReadField(SUFFIX, value);
}
LONG Contact::get_CompanyName(WCHAR*& value) {
    return ReadField(COMPANY_NAME, value);
}
LONG Contact::get_Email1Address(WCHAR*& value) {
    return ReadField(EMAIL1, value);
}
LONG Contact::get_Email2Address(WCHAR*& value) {
    return ReadField(EMAIL2, value);
}
LONG Contact::get_Email3Address(WCHAR*& value) {
    return ReadField(EMAIL3, value);
}
LONG Contact::get_JobTitle(WCHAR*& value) {
    return ReadField(JOB_TITLE, value);
}

LONG Contact::put_FileAs(WCHAR*& value) {
    return WriteField(FILE_AS, value);
}
LONG Contact::put_Title(WCHAR*& value) {
    return WriteField(TITLE, value);
}
LONG Contact::put_FirstName(WCHAR*& value) {
    return WriteField(FIRST_NAME, value);
}
LONG Contact::put_MiddleName(WCHAR*& value) {
    return WriteField(MIDDLE_NAME, value);
}
LONG Contact::put_LastName(WCHAR*& value) {
    return WriteField(LAST_NAME, value);
}
LONG Contact::put_Suffix(WCHAR*& value) {
    return WriteField(SUFFIX, value);
}
LONG Contact::put_Email1Address(WCHAR*& value) {
    return WriteField(EMAIL1, value);
}
LONG Contact::put_Email2Address(WCHAR*& value) {
    return WriteField(EMAIL2, value);
}
LONG Contact::put_Email3Address(WCHAR*& value) {
    return WriteField(EMAIL3, value);
}
LONG Contact::put_JobTitle(WCHAR*& value) {
    return WriteField(JOB_TITLE, value);
}

LONG Contact::free_String(WCHAR*& value) {
    if (value == nullptr) return E_FAIL;
    for (WCHAR*& text : m_pwzFields) {
        if (text != value) continue;
        const LONG result = m_pOutlookApp != nullptr ? m_pOutlookApp->SysFreeString(text) : E_FAIL;
        text = nullptr;
        value = nullptr;
        return result;
    }
    return E_FAIL;
}

LONG Contact::Save() {
    return m_pContact != nullptr ? m_pContact->Save() : E_FAIL;
}

LONG Contact::Delete() {
    return m_pContact != nullptr ? m_pContact->Delete() : E_FAIL;
}

LONG Contact::Display() {
    return m_pContact != nullptr ? m_pContact->Display() : E_FAIL;
}

LONG Contact::get_Oid(LONG& oid) {
    return m_pContact != nullptr ? m_pContact->get_Oid(&oid) : E_FAIL;
}

int Contact::HasEmail(int countAll) {
    int count = 0;
    for (const int field : {EMAIL1, EMAIL2, EMAIL3}) {
        WCHAR* address = nullptr;
        const LONG result = ReadField(field, address);
        if (result < 0) {
            zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), field);
            return count;
        }
        if (*address != u'\0') ++count;
        if (count != 0 && countAll == 0) return count;
    }
    return count;
}

int Contact::IsComparable(WCHAR* pattern, ULONG fieldMask, int exact, int substrings) {
    if (pattern == nullptr) return 0;
    if (*pattern == u'\0') return 1;
    if (substrings != 0) return CheckFieldsSubstrings(pattern, fieldMask);
    return CheckFields(pattern, fieldMask,
                       exact != 0 ? StringUtilities::COMPARE_EXACT : StringUtilities::COMPARE_PREFIX);
}

// 1 and 0 for a match and none, negative when the field cannot be read.
int Contact::FieldMatches(int field, const WCHAR* pattern, StringUtilities::COMPARE_TYPE kind) {
    WCHAR* value = nullptr;
    const LONG result = ReadField(field, value);
    if (result < 0) {
        zrKelDebugBinLog2(LOG_SOURCE, __LINE__, LOG_FAILURE, static_cast<ULONG>(result), field);
        return -1;
    }
    return StringUtilities::CompareFunction(value, pattern, kind) != 0 ? 1 : 0;
}

Contact::CONTACT_FIELD Contact::CheckFields(const WCHAR* pattern, ULONG fieldMask, StringUtilities::COMPARE_TYPE kind) {
    for (const SearchStep& step : SEARCH) {
        if ((fieldMask & step.bit) == 0) continue;
        const int match = FieldMatches(step.field, pattern, kind);
        if (match != 0) return match > 0 ? step.result : NO_FIELD;
    }
    return NO_FIELD;
}

int Contact::CheckFieldsSubstrings(const WCHAR* pattern, ULONG fieldMask) {
    WCHAR* copy = StringUtilities::NewAndCopyString(pattern);
    if (copy == nullptr) {
        zrKelDebugBinLog0(LOG_SOURCE, __LINE__, LOG_FAILURE);
        return 0;
    }
    int result = 1;
    for (WCHAR* word = copy; result != 0;) {
        while (*word == u' ') {
            ++word;
        }
        if (*word == u'\0') break;
        WCHAR* end = word;
        while (*end != u'\0' && *end != u' ') {
            ++end;
        }
        const bool last = *end == u'\0';
        *end = u'\0';
        result = static_cast<int>(CheckFields(word, fieldMask, StringUtilities::COMPARE_WORD_PREFIX));
        if (last) break;
        word = end + 1;
    }
    StringUtilities::DeleteString(copy);
    return result;
}
