#include "platform/objects.h"

#include "platform/base.h"

BOOL ZrEnumNamedObjects(ZrNamedObjectVisitor, LPVOID) {
    return TRUE;
}
