#include "fields.h"

#include <string>

#include "platform/base.h"

namespace zr::platform::pim {
namespace {

constexpr unsigned kContacts = 1;
constexpr unsigned kCalendar = 2;
constexpr unsigned kTasks = 4;

struct Tag {
    const WCHAR* name;
    CEPROPID id;
    unsigned folders;
};

#define ZRPIM_TAG(name, folders) \
    { u"" #name, field::name, folders }
constexpr Tag kTags[] = {
    ZRPIM_TAG(FileAs, kContacts),
    ZRPIM_TAG(Title, kContacts),
    ZRPIM_TAG(FirstName, kContacts),
    ZRPIM_TAG(MiddleName, kContacts),
    ZRPIM_TAG(LastName, kContacts),
    ZRPIM_TAG(Suffix, kContacts),
    ZRPIM_TAG(CompanyName, kContacts),
    ZRPIM_TAG(Email1Address, kContacts),
    ZRPIM_TAG(Email2Address, kContacts),
    ZRPIM_TAG(Email3Address, kContacts),
    ZRPIM_TAG(JobTitle, kContacts),
    ZRPIM_TAG(Department, kContacts),
    ZRPIM_TAG(MobileTelephoneNumber, kContacts),
    ZRPIM_TAG(OfficeLocation, kContacts),
    ZRPIM_TAG(PagerNumber, kContacts),
    ZRPIM_TAG(BusinessTelephoneNumber, kContacts),
    ZRPIM_TAG(BusinessFaxNumber, kContacts),
    ZRPIM_TAG(Business2TelephoneNumber, kContacts),
    ZRPIM_TAG(HomeTelephoneNumber, kContacts),
    ZRPIM_TAG(Home2TelephoneNumber, kContacts),
    ZRPIM_TAG(HomeFaxNumber, kContacts),
    ZRPIM_TAG(CarTelephoneNumber, kContacts),
    ZRPIM_TAG(RadioTelephoneNumber, kContacts),
    ZRPIM_TAG(AssistantName, kContacts),
    ZRPIM_TAG(AssistantTelephoneNumber, kContacts),
    ZRPIM_TAG(Spouse, kContacts),
    ZRPIM_TAG(Children, kContacts),
    ZRPIM_TAG(WebPage, kContacts),
    ZRPIM_TAG(HomeAddressStreet, kContacts),
    ZRPIM_TAG(HomeAddressCity, kContacts),
    ZRPIM_TAG(HomeAddressState, kContacts),
    ZRPIM_TAG(HomeAddressPostalCode, kContacts),
    ZRPIM_TAG(HomeAddressCountry, kContacts),
    ZRPIM_TAG(OtherAddressStreet, kContacts),
    ZRPIM_TAG(OtherAddressCity, kContacts),
    ZRPIM_TAG(OtherAddressState, kContacts),
    ZRPIM_TAG(OtherAddressPostalCode, kContacts),
    ZRPIM_TAG(OtherAddressCountry, kContacts),
    ZRPIM_TAG(BusinessAddressStreet, kContacts),
    ZRPIM_TAG(BusinessAddressCity, kContacts),
    ZRPIM_TAG(BusinessAddressState, kContacts),
    ZRPIM_TAG(BusinessAddressPostalCode, kContacts),
    ZRPIM_TAG(BusinessAddressCountry, kContacts),
    ZRPIM_TAG(YomiCompanyName, kContacts),
    ZRPIM_TAG(YomiFirstName, kContacts),
    ZRPIM_TAG(YomiLastName, kContacts),
    ZRPIM_TAG(Categories, kContacts | kCalendar | kTasks),
    ZRPIM_TAG(Body, kContacts | kCalendar | kTasks),
    ZRPIM_TAG(Subject, kCalendar | kTasks),
    ZRPIM_TAG(Location, kCalendar),
    ZRPIM_TAG(Birthday, kContacts),
    ZRPIM_TAG(Anniversary, kContacts),
    ZRPIM_TAG(Start, kCalendar),
    ZRPIM_TAG(End, kCalendar),
    ZRPIM_TAG(AllDayEvent, kCalendar),
    ZRPIM_TAG(BusyStatus, kCalendar),
    ZRPIM_TAG(MeetingStatus, kCalendar),
    ZRPIM_TAG(ReminderMinutesBeforeStart, kCalendar),
    ZRPIM_TAG(ReminderSet, kCalendar | kTasks),
    ZRPIM_TAG(Sensitivity, kCalendar | kTasks),
    ZRPIM_TAG(StartDate, kTasks),
    ZRPIM_TAG(DueDate, kTasks),
    ZRPIM_TAG(DateCompleted, kTasks),
    ZRPIM_TAG(ReminderTime, kTasks),
    ZRPIM_TAG(Importance, kTasks),
    ZRPIM_TAG(Complete, kTasks),
    ZRPIM_TAG(TeamTask, kTasks),
};
#undef ZRPIM_TAG

}  // namespace

CEPROPID field_of_tag(INT folder, std::u16string_view tag) {
    if (tag.size() < 2 || tag.front() != u'[' || tag.back() != u']') return 0;
    const std::u16string name(tag.substr(1, tag.size() - 2));
    const unsigned wanted = folder == olFolderContacts ? kContacts : folder == olFolderCalendar ? kCalendar : kTasks;
    for (const Tag& known : kTags) {
        if ((known.folders & wanted) != 0 && _wcsicmp(name.c_str(), known.name) == 0) return known.id;
    }
    return 0;
}

}  // namespace zr::platform::pim
