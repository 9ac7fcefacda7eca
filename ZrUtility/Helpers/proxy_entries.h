#pragma once

// Where the Connection Manager and the client keep proxy entries.

#include "platform/types.h"

constexpr const WCHAR* PROXY_PROVIDER_KEY = u"Comm\\ConnMgr\\Providers\\{EF097F4C-DC4B-4c98-8FF6-AEF805DC0E8E}\\";
constexpr const WCHAR* PROXY_BACKUP_KEY = u"SOFTWARE\\Kelvane\\Halcyon\\PyxBrowser\\";

// The client's destination network, which is also in the names of its own entries.
constexpr GUID HALCYON_DESTINATION = {0x3584769F, 0x41FC, 0x4035, {0xBE, 0x97, 0x32, 0x0D, 0xA1, 0x1E, 0x0F, 0x02}};
constexpr const WCHAR* HALCYON_DESTINATION_TEXT = u"{3584769F-41FC-4035-BE97-320DA11E0F02}";

// The head and the tail of a document of proxy entries, with room to spare.
constexpr ULONG PROXY_DOCUMENT_CHARS = 112;
#define PROXY_DOCUMENT_HEAD u"<wap-provisioningdoc>\r\n <characteristic type=\"CM_ProxyEntries\">\r\n"
#define PROXY_DOCUMENT_TAIL u" </characteristic>\r\n</wap-provisioningdoc>\r\n"
