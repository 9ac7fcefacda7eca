#pragma once

// Which fields items have and where the store keeps them.

#include <string_view>

#include "platform/pim.h"

namespace zr::platform::pim {

// The searched fields of a contact, in the order of the contact table's columns.
enum Column : unsigned {
    kFileAs,
    kTitle,
    kFirstName,
    kMiddleName,
    kLastName,
    kSuffix,
    kCompanyName,
    kEmail1Address,
    kEmail2Address,
    kEmail3Address,
    kJobTitle,
    kColumns,
};
using ColumnMask = unsigned;
inline constexpr ColumnMask kAllColumns = (1u << kColumns) - 1;

inline constexpr const char* kColumnNames[kColumns] = {"file_as",   "title",  "first_name", "middle_name",
                                                       "last_name", "suffix", "company",    "email1",
                                                       "email2",    "email3", "job_title"};

inline constexpr DWORD kFirstFieldNumber = 0x7E00;
inline constexpr DWORD kLastFieldNumber = 0x7EFF;

// The property of a named field. A contact's columns have one too (number 0x7E00 + column), which is never stored.
constexpr CEPROPID field_id(DWORD number, WORD type) {
    return (kFirstFieldNumber + number) << 16 | type;
}
constexpr CEPROPID text_field(DWORD number) {
    return field_id(number, CEVT_LPWSTR);
}
constexpr CEPROPID date_field(DWORD number) {
    return field_id(number, CEVT_R8);
}
constexpr CEPROPID number_field(DWORD number) {
    return field_id(number, CEVT_I4);
}
constexpr WORD type_of(CEPROPID id) {
    return static_cast<WORD>(id & 0xFFFF);
}
constexpr bool is_column(CEPROPID id) {
    return id >> 16 >= kFirstFieldNumber && id >> 16 < kFirstFieldNumber + kColumns;
}
constexpr unsigned column_of(CEPROPID id) {
    return (id >> 16) - kFirstFieldNumber;
}
constexpr bool is_named_field(CEPROPID id) {
    return id >> 16 >= kFirstFieldNumber && id >> 16 <= kLastFieldNumber;
}

// The stored numbers of the named fields: never changed, only added to.
namespace field {
inline constexpr CEPROPID Birthday = date_field(0x20);
inline constexpr CEPROPID Anniversary = date_field(0x21);
inline constexpr CEPROPID BusinessFaxNumber = text_field(0x22);
inline constexpr CEPROPID CompanyName = text_field(kCompanyName);
inline constexpr CEPROPID Department = text_field(0x23);
inline constexpr CEPROPID Email1Address = text_field(kEmail1Address);
inline constexpr CEPROPID MobileTelephoneNumber = text_field(0x24);
inline constexpr CEPROPID OfficeLocation = text_field(0x25);
inline constexpr CEPROPID PagerNumber = text_field(0x26);
inline constexpr CEPROPID BusinessTelephoneNumber = text_field(0x27);
inline constexpr CEPROPID JobTitle = text_field(kJobTitle);
inline constexpr CEPROPID HomeTelephoneNumber = text_field(0x28);
inline constexpr CEPROPID Email2Address = text_field(kEmail2Address);
inline constexpr CEPROPID Spouse = text_field(0x29);
inline constexpr CEPROPID Email3Address = text_field(kEmail3Address);
inline constexpr CEPROPID Home2TelephoneNumber = text_field(0x2A);
inline constexpr CEPROPID HomeFaxNumber = text_field(0x2B);
inline constexpr CEPROPID CarTelephoneNumber = text_field(0x2C);
inline constexpr CEPROPID AssistantName = text_field(0x2D);
inline constexpr CEPROPID AssistantTelephoneNumber = text_field(0x2E);
inline constexpr CEPROPID Children = text_field(0x2F);
inline constexpr CEPROPID Categories = text_field(0x30);
inline constexpr CEPROPID WebPage = text_field(0x31);
inline constexpr CEPROPID Business2TelephoneNumber = text_field(0x32);
inline constexpr CEPROPID Title = text_field(kTitle);
inline constexpr CEPROPID FirstName = text_field(kFirstName);
inline constexpr CEPROPID MiddleName = text_field(kMiddleName);
inline constexpr CEPROPID LastName = text_field(kLastName);
inline constexpr CEPROPID Suffix = text_field(kSuffix);
inline constexpr CEPROPID HomeAddressStreet = text_field(0x33);
inline constexpr CEPROPID HomeAddressCity = text_field(0x34);
inline constexpr CEPROPID HomeAddressState = text_field(0x35);
inline constexpr CEPROPID HomeAddressPostalCode = text_field(0x36);
inline constexpr CEPROPID HomeAddressCountry = text_field(0x37);
inline constexpr CEPROPID OtherAddressStreet = text_field(0x38);
inline constexpr CEPROPID OtherAddressCity = text_field(0x39);
inline constexpr CEPROPID OtherAddressState = text_field(0x3A);
inline constexpr CEPROPID OtherAddressPostalCode = text_field(0x3B);
inline constexpr CEPROPID OtherAddressCountry = text_field(0x3C);
inline constexpr CEPROPID BusinessAddressStreet = text_field(0x3D);
inline constexpr CEPROPID BusinessAddressCity = text_field(0x3E);
inline constexpr CEPROPID BusinessAddressState = text_field(0x3F);
inline constexpr CEPROPID BusinessAddressPostalCode = text_field(0x40);
inline constexpr CEPROPID BusinessAddressCountry = text_field(0x41);
inline constexpr CEPROPID RadioTelephoneNumber = text_field(0x42);
inline constexpr CEPROPID FileAs = text_field(kFileAs);
inline constexpr CEPROPID Body = text_field(0x43);
inline constexpr CEPROPID YomiCompanyName = text_field(0x44);
inline constexpr CEPROPID YomiFirstName = text_field(0x45);
inline constexpr CEPROPID YomiLastName = text_field(0x46);
inline constexpr CEPROPID AllDayEvent = number_field(0x50);
inline constexpr CEPROPID BusyStatus = number_field(0x51);
inline constexpr CEPROPID End = date_field(0x52);
inline constexpr CEPROPID Location = text_field(0x53);
inline constexpr CEPROPID MeetingStatus = number_field(0x54);
inline constexpr CEPROPID ReminderMinutesBeforeStart = number_field(0x55);
inline constexpr CEPROPID ReminderOptions = number_field(0x56);
inline constexpr CEPROPID ReminderSet = number_field(0x57);
inline constexpr CEPROPID ReminderSoundFile = text_field(0x58);
inline constexpr CEPROPID Sensitivity = number_field(0x59);
inline constexpr CEPROPID Start = date_field(0x5A);
inline constexpr CEPROPID Subject = text_field(0x5B);
inline constexpr CEPROPID StartDate = date_field(0x5C);
inline constexpr CEPROPID DueDate = date_field(0x5D);
inline constexpr CEPROPID Importance = number_field(0x5E);
inline constexpr CEPROPID Complete = number_field(0x5F);
inline constexpr CEPROPID ReminderTime = date_field(0x60);
inline constexpr CEPROPID TeamTask = number_field(0x61);
inline constexpr CEPROPID DateCompleted = date_field(0x62);
inline constexpr CEPROPID RecurrenceType = number_field(0x63);
inline constexpr CEPROPID Interval = number_field(0x64);
inline constexpr CEPROPID DayOfWeekMask = number_field(0x65);
inline constexpr CEPROPID DayOfMonth = number_field(0x66);
inline constexpr CEPROPID Instance = number_field(0x67);
inline constexpr CEPROPID MonthOfYear = number_field(0x68);
inline constexpr CEPROPID PatternEndDate = date_field(0x69);
inline constexpr CEPROPID Occurrences = number_field(0x6A);
}  // namespace field

// --- folders ---

inline constexpr int kOidShift = 24;

constexpr bool is_folder(INT folder) {
    return folder == olFolderCalendar || folder == olFolderContacts || folder == olFolderTasks;
}
// An item's identifier says which folder it is in; contacts count from 1.
constexpr LONG first_oid(INT folder) {
    return folder == olFolderContacts ? 1 : folder << kOidShift | 1;
}
constexpr LONG last_oid(INT folder) {
    return first_oid(folder) | 0x00FFFFFF;
}
// 0: no item has such an identifier.
constexpr INT folder_of(LONG oid) {
    const LONG top = oid >> kOidShift;
    if (oid <= 0 || (oid & 0x00FFFFFF) == 0) return 0;
    if (top == 0) return olFolderContacts;
    return top == olFolderCalendar || top == olFolderTasks ? top : 0;
}
constexpr LONG folder_oid(INT folder) {
    return 0x7F000000 | folder;
}

// The field that a tag "[Name]" names in a folder, ignoring case; 0 when there is none.
CEPROPID field_of_tag(INT folder, std::u16string_view tag);

}  // namespace zr::platform::pim
