#include "item_object.h"

#include "item_makers.h"

namespace zr::platform::pim {

IDispatch* make_item(const SessionRef& session, INT folder, Given&& given) {
    switch (folder) {
        case olFolderContacts:
            return make_contact(session, std::move(given));
        case olFolderCalendar:
            return make_appointment(session, std::move(given));
        default:
            return make_task(session, std::move(given));
    }
}

OlItemType item_type(INT folder) {
    return folder == olFolderContacts ? olContactItem : folder == olFolderCalendar ? olAppointmentItem : olTaskItem;
}

}  // namespace zr::platform::pim
