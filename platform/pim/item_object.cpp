#include "item_object.h"

#include "item_makers.h"

namespace zr::platform::pim {

IDispatch* make_item(const SessionRef& session, INT folder, LONG oid, RowRef row) {
    switch (folder) {
        case olFolderContacts:
            return make_contact(session, oid, std::move(row));
        case olFolderCalendar:
            return make_appointment(session, oid, std::move(row));
        default:
            return make_task(session, oid, std::move(row));
    }
}

OlItemType item_type(INT folder) {
    return folder == olFolderContacts ? olContactItem : folder == olFolderCalendar ? olAppointmentItem : olTaskItem;
}

}  // namespace zr::platform::pim
