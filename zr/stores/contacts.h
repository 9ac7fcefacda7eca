#pragma once

// The contacts of the store as zr uses them. Every function throws Failure when the store fails.

#include <string>
#include <vector>

#include "zr/base/table.h"
#include "zr/stores/session.h"
#include "zr/vcard/card.h"

namespace zr {

class Json;

struct CardToSave {
    Card card;
    LONG oid = 0;  // the contact that it replaces; 0: it is a new one
};

// The contacts, open as long as the object. For one thread.
class Store {
public:
    int count();
    void sort(const std::u16string& tag, bool descending);  // "[LastName]"
    // The contact at a place of the order, from 1; empty when it is gone meanwhile.
    ComPtr<IContact> at(int index);
    ComPtr<IContact> with_oid(LONG oid);  // empty when there is none
    // The first contact behind the number `after` with this lasting identifier, or without any where it is empty; 0:
    // there is none.
    LONG with_uid(const std::string& uid, LONG after = 0) { return session_.with_uid(olFolderContacts, uid, after); }

    // The first contact behind the number `after` that has this address, in any letter case; 0: there is none.
    LONG with_email(const std::string& address, LONG after = 0) { return session_.with_email(address, after); }

    // Saves all of the cards at once, and tells the numbers of new ones; one that the store refuses stops none of the
    // others. A contact that is gone meanwhile is a new one.
    std::vector<Refused> save(std::vector<CardToSave>& cards);
    // Saves one new contact and returns its identifier.
    LONG add(const Card& card);
    // Stores these fields of `card`, empty ones too, in an existing contact, and its days where it has any. Addresses
    // are replaced together with those that are kept beside the fields.
    void change(IContact* contact, const Card& card, const std::vector<Field>& fields);
    void remove(IContact* contact);

private:
    LONG save_new(const Card& card);
    void replace(IContact* contact, const Card& card);

    IPOutlookItemCollection* items();

    Session session_;
    ComPtr<IPOutlookItemCollection> items_;  // empty until asked for: it knows the number of every contact
};

// How much of a contact is read.
enum class Extent {
    Line,    // what contact_line shows, and the identifier
    Fields,  // and its other fields
    Whole,   // and what is kept beside them
};
Card read_contact(IContact* contact, Extent extent);
LONG oid_of(IContact* contact);
// What tells a contact from all others for good.
std::string uid_of(IContact* contact);
// What a card without an identifier that says the same as the contact is known by.
std::string content_uid(IContact* contact);

std::string day_text(Day day);  // such as 2009-07-15
// The contact as JSON: identifier, name, addresses and every field that is not empty.
Json contact_json(LONG oid, const Card& card);
// The contact as a line of text with tabs: number, name, addresses, company, lasting identifier.
std::string contact_line(LONG oid, const Card& card);
std::vector<Column> contact_columns();

}  // namespace zr
