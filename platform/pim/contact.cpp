#include "item_makers.h"
#include "item_object.h"

namespace zr::platform::pim {

// A contact: all of its fields are as they are stored.
class Contact final : public ItemObject<IContact, IID_IContact> {
public:
    using ItemObject::ItemObject;

    ZRPIM_FIELD(DATE, Birthday)
    ZRPIM_FIELD(DATE, Anniversary)
    ZRPIM_FIELD(BSTR, BusinessFaxNumber)
    ZRPIM_FIELD(BSTR, CompanyName)
    ZRPIM_FIELD(BSTR, Department)
    ZRPIM_FIELD(BSTR, Email1Address)
    ZRPIM_FIELD(BSTR, MobileTelephoneNumber)
    ZRPIM_FIELD(BSTR, OfficeLocation)
    ZRPIM_FIELD(BSTR, PagerNumber)
    ZRPIM_FIELD(BSTR, BusinessTelephoneNumber)
    ZRPIM_FIELD(BSTR, JobTitle)
    ZRPIM_FIELD(BSTR, HomeTelephoneNumber)
    ZRPIM_FIELD(BSTR, Email2Address)
    ZRPIM_FIELD(BSTR, Spouse)
    ZRPIM_FIELD(BSTR, Email3Address)
    ZRPIM_FIELD(BSTR, Home2TelephoneNumber)
    ZRPIM_FIELD(BSTR, HomeFaxNumber)
    ZRPIM_FIELD(BSTR, CarTelephoneNumber)
    ZRPIM_FIELD(BSTR, AssistantName)
    ZRPIM_FIELD(BSTR, AssistantTelephoneNumber)
    ZRPIM_FIELD(BSTR, Children)
    ZRPIM_FIELD(BSTR, Categories)
    ZRPIM_FIELD(BSTR, WebPage)
    ZRPIM_FIELD(BSTR, Business2TelephoneNumber)
    ZRPIM_FIELD(BSTR, Title)
    ZRPIM_FIELD(BSTR, FirstName)
    ZRPIM_FIELD(BSTR, MiddleName)
    ZRPIM_FIELD(BSTR, LastName)
    ZRPIM_FIELD(BSTR, Suffix)
    ZRPIM_FIELD(BSTR, HomeAddressStreet)
    ZRPIM_FIELD(BSTR, HomeAddressCity)
    ZRPIM_FIELD(BSTR, HomeAddressState)
    ZRPIM_FIELD(BSTR, HomeAddressPostalCode)
    ZRPIM_FIELD(BSTR, HomeAddressCountry)
    ZRPIM_FIELD(BSTR, OtherAddressStreet)
    ZRPIM_FIELD(BSTR, OtherAddressCity)
    ZRPIM_FIELD(BSTR, OtherAddressState)
    ZRPIM_FIELD(BSTR, OtherAddressPostalCode)
    ZRPIM_FIELD(BSTR, OtherAddressCountry)
    ZRPIM_FIELD(BSTR, BusinessAddressStreet)
    ZRPIM_FIELD(BSTR, BusinessAddressCity)
    ZRPIM_FIELD(BSTR, BusinessAddressState)
    ZRPIM_FIELD(BSTR, BusinessAddressPostalCode)
    ZRPIM_FIELD(BSTR, BusinessAddressCountry)
    ZRPIM_FIELD(BSTR, RadioTelephoneNumber)
    ZRPIM_FIELD(BSTR, FileAs)
    ZRPIM_FIELD(BSTR, Body)
    ZRPIM_FIELD(BSTR, YomiCompanyName)
    ZRPIM_FIELD(BSTR, YomiFirstName)
    ZRPIM_FIELD(BSTR, YomiLastName)
};

IDispatch* make_contact(const SessionRef& session, Given&& given) {
    return static_cast<IContact*>(new (std::nothrow) Contact(session, olFolderContacts, std::move(given)));
}

}  // namespace zr::platform::pim
