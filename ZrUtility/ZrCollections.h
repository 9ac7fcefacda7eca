#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/ZrList.h"

// Frees the items of a list whose items were all allocated with malloc (or calloc, realloc). NULL items are harmless.
class ZRUTILITY_API ZrCollections {
public:
    // Frees the items. The list, which must not be NULL, keeps its nodes, and they now point at freed memory: clear or
    // delete it next.
    static void freeListItems(ZrList* list);
    // Frees the items, then deletes the list. `list` must not be NULL.
    static void deleteListAndFreeItems(ZrList* list);
};
