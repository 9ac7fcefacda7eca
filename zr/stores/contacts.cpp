#include "zr/stores/contacts.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "zr/base/json.h"
#include "zr/base/text.h"
#include "zr/vcard/said.h"

namespace zr {
namespace {

struct Accessors {
    Field field;
    HRESULT (IContact::*get)(BSTR*);
    HRESULT (IContact::*put)(BSTR);
};

#define ZR_FIELD(field, name) \
    { Field::field, &IContact::get_##name, &IContact::put_##name }
constexpr Accessors kAccessors[] = {
    ZR_FIELD(FileAs, FileAs),
    ZR_FIELD(Title, Title),
    ZR_FIELD(FirstName, FirstName),
    ZR_FIELD(MiddleName, MiddleName),
    ZR_FIELD(LastName, LastName),
    ZR_FIELD(Suffix, Suffix),
    ZR_FIELD(Company, CompanyName),
    ZR_FIELD(Department, Department),
    ZR_FIELD(JobTitle, JobTitle),
    ZR_FIELD(Office, OfficeLocation),
    ZR_FIELD(Email1, Email1Address),
    ZR_FIELD(Email2, Email2Address),
    ZR_FIELD(Email3, Email3Address),
    ZR_FIELD(BusinessPhone, BusinessTelephoneNumber),
    ZR_FIELD(Business2Phone, Business2TelephoneNumber),
    ZR_FIELD(BusinessFax, BusinessFaxNumber),
    ZR_FIELD(HomePhone, HomeTelephoneNumber),
    ZR_FIELD(Home2Phone, Home2TelephoneNumber),
    ZR_FIELD(HomeFax, HomeFaxNumber),
    ZR_FIELD(MobilePhone, MobileTelephoneNumber),
    ZR_FIELD(CarPhone, CarTelephoneNumber),
    ZR_FIELD(Pager, PagerNumber),
    ZR_FIELD(RadioPhone, RadioTelephoneNumber),
    ZR_FIELD(AssistantPhone, AssistantTelephoneNumber),
    ZR_FIELD(BusinessStreet, BusinessAddressStreet),
    ZR_FIELD(BusinessCity, BusinessAddressCity),
    ZR_FIELD(BusinessState, BusinessAddressState),
    ZR_FIELD(BusinessPostalCode, BusinessAddressPostalCode),
    ZR_FIELD(BusinessCountry, BusinessAddressCountry),
    ZR_FIELD(HomeStreet, HomeAddressStreet),
    ZR_FIELD(HomeCity, HomeAddressCity),
    ZR_FIELD(HomeState, HomeAddressState),
    ZR_FIELD(HomePostalCode, HomeAddressPostalCode),
    ZR_FIELD(HomeCountry, HomeAddressCountry),
    ZR_FIELD(OtherStreet, OtherAddressStreet),
    ZR_FIELD(OtherCity, OtherAddressCity),
    ZR_FIELD(OtherState, OtherAddressState),
    ZR_FIELD(OtherPostalCode, OtherAddressPostalCode),
    ZR_FIELD(OtherCountry, OtherAddressCountry),
    ZR_FIELD(WebPage, WebPage),
    ZR_FIELD(Note, Body),
    ZR_FIELD(Categories, Categories),
    ZR_FIELD(Spouse, Spouse),
    ZR_FIELD(Children, Children),
    ZR_FIELD(Assistant, AssistantName),
    ZR_FIELD(YomiFirstName, YomiFirstName),
    ZR_FIELD(YomiLastName, YomiLastName),
    ZR_FIELD(YomiCompany, YomiCompanyName),
};
#undef ZR_FIELD
static_assert(std::size(kAccessors) == static_cast<std::size_t>(Field::Count));

// Days are counted from 30 December 1899.
constexpr std::chrono::sys_days kFirstDay = std::chrono::year(1899) / 12 / 30;

DATE to_date(Day day) {
    using namespace std::chrono;
    const sys_days days = year(day.year) / month(static_cast<unsigned>(day.month)) / day.day;
    return static_cast<DATE>((days - kFirstDay).count());
}

Day to_day(DATE date) {
    using namespace std::chrono;
    if (date == ZR_PIM_NO_DATE || !(date > -110000) || !(date < 1000000)) return {};
    const year_month_day day(kFirstDay + days(static_cast<int>(date)));
    return {int(day.year()), static_cast<int>(unsigned(day.month())), static_cast<int>(unsigned(day.day()))};
}

std::string text_of(IContact* contact, HRESULT (IContact::*get)(BSTR*)) {
    BSTR text = nullptr;
    check((contact->*get)(&text), "reading a contact");
    return taken_text(text);
}

// Its name may be composed of others.
bool is_in_line(Field field) {
    constexpr Field all[] = {Field::FileAs, Field::Title,   Field::FirstName, Field::MiddleName, Field::LastName,
                             Field::Suffix, Field::Company, Field::Email1,    Field::Email2,     Field::Email3};
    return std::ranges::find(all, field) != std::end(all);
}

constexpr const char* kWritingContact = "writing a contact";

void put_text(IContact* contact, const Accessors& accessors, const std::string& value) {
    std::u16string text = to_utf16(value);
    check((contact->*accessors.put)(text.data()), kWritingContact);
}

void put_days(IContact* contact, const Card& card) {
    if (card.birthday) check(contact->put_Birthday(to_date(card.birthday)), kWritingContact);
    if (card.anniversary) check(contact->put_Anniversary(to_date(card.anniversary)), kWritingContact);
}

void put_kept(IContact* contact, const Card& card, const Card& before) {
    if (card.extras != before.extras) put_text_property(contact, ZR_PROPID_CARD_EXTRAS, card.extras);
    if (card.lines != before.lines) put_text_property(contact, ZR_PROPID_CARD_LINES, card.lines);
    if (card.uid != before.uid) put_text_property(contact, ZR_PROPID_CARD_UID, card.uid);
}

// What is kept of a card has addresses too, which the fields had no place for.
void forget_addresses(IContact* contact) {
    for (const CEPROPID id : {ZR_PROPID_CARD_EXTRAS, ZR_PROPID_CARD_LINES}) {
        const std::string kept = text_property(contact, id);
        const std::string others = without_property(kept, Property::Email);
        if (others != kept) put_text_property(contact, id, others);
    }
}

}  // namespace

IPOutlookItemCollection* Store::items() {
    if (!items_) items_ = session_.items(olFolderContacts);
    return items_.get();
}

int Store::count() {
    INT count = 0;
    check(items()->get_Count(&count), "counting the contacts");
    return count;
}

void Store::sort(const std::u16string& tag, bool descending) {
    std::u16string text = tag;
    check(items()->Sort(text.data(), descending ? VARIANT_TRUE : VARIANT_FALSE), "sorting the contacts");
}

ComPtr<IContact> Store::at(int index) {
    ComPtr<IContact> contact;
    const HRESULT result = items()->Item(index, contact.out<IDispatch>());
    if (!is_missing(result)) check(result, "reading a contact");
    return contact;
}

ComPtr<IContact> Store::with_oid(LONG oid) {
    const ComPtr<IDispatch> item = session_.with_oid(oid);
    ComPtr<IContact> contact;
    // An appointment or a task has an identifier too, and is no contact.
    if (item && FAILED(item->QueryInterface(IID_IContact, contact.out<void>()))) contact.reset();
    return contact;
}

LONG Store::save_new(const Card& card) {
    ComPtr<IContact> contact;
    check(session_.app()->CreateItem(olContactItem, contact.out<IDispatch>()), "adding a contact");
    for (const Accessors& accessors : kAccessors) {
        if (!card[accessors.field].empty()) put_text(contact.get(), accessors, card[accessors.field]);
    }
    put_days(contact.get(), card);
    put_kept(contact.get(), card, {});
    check(contact->Save(), "saving a contact");
    return oid_of(contact.get());
}

void Store::replace(IContact* contact, const Card& card) {
    const Card before = read_contact(contact, Extent::Whole);
    for (const Accessors& accessors : kAccessors) {
        if (card[accessors.field] != before[accessors.field]) {
            put_text(contact, accessors, card[accessors.field]);
        }
    }
    const auto date = [](Day day) { return day ? to_date(day) : ZR_PIM_NO_DATE; };
    check(contact->put_Birthday(date(card.birthday)), kWritingContact);
    check(contact->put_Anniversary(date(card.anniversary)), kWritingContact);
    put_kept(contact, card, before);
    check(contact->Save(), "saving a contact");
}

std::vector<Refused> Store::save(std::vector<CardToSave>& cards) {
    return session_.store_all("saving contacts", cards.size(), [&](std::size_t i) {
        auto& [card, oid] = cards[i];
        const ComPtr<IContact> contact = oid != 0 ? with_oid(oid) : ComPtr<IContact>();
        if (contact) {
            replace(contact.get(), card);
        } else {
            oid = save_new(card);
        }
    });
}

LONG Store::add(const Card& card) {
    return save_new(card);
}

void Store::change(IContact* contact, const Card& card, const std::vector<Field>& fields) {
    for (const Accessors& accessors : kAccessors) {
        const bool given = std::find(fields.begin(), fields.end(), accessors.field) != fields.end();
        if (given) put_text(contact, accessors, card[accessors.field]);
    }
    put_days(contact, card);
    if (std::find(fields.begin(), fields.end(), Field::Email1) != fields.end()) forget_addresses(contact);
    check(contact->Save(), "saving a contact");
}

void Store::remove(IContact* contact) {
    check(contact->Delete(), "removing a contact");
}

Card read_contact(IContact* contact, Extent extent) {
    Card card;
    for (const Accessors& accessors : kAccessors) {
        if (extent != Extent::Line || is_in_line(accessors.field)) {
            card[accessors.field] = text_of(contact, accessors.get);
        }
    }
    card.uid = text_property(contact, ZR_PROPID_CARD_UID);
    if (extent == Extent::Line) return card;
    DATE date = ZR_PIM_NO_DATE;
    check(contact->get_Birthday(&date), "reading a contact");
    card.birthday = to_day(date);
    check(contact->get_Anniversary(&date), "reading a contact");
    card.anniversary = to_day(date);
    if (extent == Extent::Fields) return card;
    card.extras = text_property(contact, ZR_PROPID_CARD_EXTRAS);
    card.lines = text_property(contact, ZR_PROPID_CARD_LINES);
    return card;
}

std::string uid_of(IContact* contact) {
    std::string uid = text_property(contact, ZR_PROPID_CARD_UID);
    if (!uid.empty()) return uid;
    // It was made by another program, or imported before identifiers were kept.
    uid = kept_text(text_property(contact, ZR_PROPID_CARD_EXTRAS), "UID");
    return uid.empty() ? made_uid(contact, oid_of(contact)) : uid;
}

std::string content_uid(IContact* contact) {
    const Card card = read_contact(contact, Extent::Whole);
    const std::string uid = kept_text(card.extras, "UID");
    return uid.empty() ? made_identifier(card) : uid;
}

LONG oid_of(IContact* contact) {
    LONG oid = 0;
    check(contact->get_Oid(&oid), "reading a contact");
    return oid;
}

std::string day_text(Day day) {
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", day.year, day.month, day.day);
    return text;
}

Json contact_json(LONG oid, const Card& card) {
    Json json;
    json.set("oid", oid);
    if (!card.uid.empty()) json.set("uid", card.uid);
    json.set("name", display_name(card));
    Json emails = Json::array();
    for (const Field field : {Field::Email1, Field::Email2, Field::Email3}) {
        if (!card[field].empty()) emails.add(card[field]);
    }
    json.set("emails", std::move(emails));
    for (std::size_t i = 0; i < card.text.size(); ++i) {
        if (!card.text[i].empty()) json.set(field_key(static_cast<Field>(i)), card.text[i]);
    }
    if (card.birthday) json.set("birthday", day_text(card.birthday));
    if (card.anniversary) json.set("anniversary", day_text(card.anniversary));
    if (!card.extras.empty()) json.set("extras", card.extras);
    return json;
}

std::string contact_line(LONG oid, const Card& card) {
    std::string emails;
    for (const Field field : {Field::Email1, Field::Email2, Field::Email3}) {
        if (card[field].empty()) continue;
        if (!emails.empty()) emails += ", ";
        emails += card[field];
    }
    return std::to_string(oid) + '\t' + printable(display_name(card)) + '\t' + printable(emails) + '\t' +
           printable(card[Field::Company]) + '\t' + printable(card.uid) + '\n';
}

std::vector<Column> contact_columns() {
    return {{"NUMBER", Column::Kind::Reference},
            {"NAME", Column::Kind::Text},
            {"ADDRESSES", Column::Kind::Text},
            {"COMPANY", Column::Kind::Text},
            {"UID", Column::Kind::Reference}};
}

}  // namespace zr
