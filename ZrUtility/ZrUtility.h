#pragma once

// Every public header of the library.

#include "ZrUtility/BufferStream.h"
#include "ZrUtility/Enumerator.h"
#include "ZrUtility/Export.h"
#include "ZrUtility/FileEnumerator.h"
#include "ZrUtility/Helpers/AddressUtilities.h"
#include "ZrUtility/Helpers/Contact.h"
#include "ZrUtility/Helpers/ContactsManager.h"
#include "ZrUtility/Helpers/ContactsManagerEmail.h"
#include "ZrUtility/Helpers/KeywordTable.h"
#include "ZrUtility/Helpers/OutlookManager.h"
#include "ZrUtility/Helpers/StringUtilities.h"
#include "ZrUtility/ZrCollections.h"
#include "ZrUtility/ZrIterator.h"
#include "ZrUtility/ZrLinkList.h"
#include "ZrUtility/ZrList.h"
#include "ZrUtility/ZrTypedList.h"
