#pragma once

// Provisioning documents: what is to be set up, as XML, carried out whole or not at all.
//
//     <wap-provisioningdoc>
//       <characteristic type="CM_ProxyEntries">
//         <characteristic type="HTTP-Office">
//           <parm name="Proxy" value="proxy.example.com:8080" />
//           <parm name="Enable" value="1" />
//         </characteristic>
//       </characteristic>
//     </wap-provisioningdoc>
//
// A characteristic of the document names a service:
//   CM_ProxyEntries  each characteristic in it is an entry of the Connection Manager's HTTP proxy provider.
//   ConnectionGUID,
//                    DestId, SrcId, Proxy, UserName, Password and ExtraInfo are texts, Type and Enable numbers.
//   CM_Networks      each characteristic in it is a destination network; DestId is a text.
//   Registry         each characteristic in it is a key, HKLM\... and so on, also one within the other. A parm has a
//                    datatype: string (when none is given), integer, boolean, binary (base64) or multiplestring (its
//                    texts parted by U+F000). The name "" is the default value.
// In a key or entry: `parm` sets a value and `noparm` removes one, `nocharacteristic` removes a key or entry, and each
// is content when there was nothing to remove. A characteristic with nothing in it is made. `parm-query` and
// `characteristic-query` ask; they are answered with what stands when all of the document is done. A
// characteristic-query with recursive="false" gives the names of what is in a key, not its content.
//
// The result document says what came of it, with the characteristics of the document: the answers to its queries, as
// characteristics and parms, or noparm and nocharacteristic where there is none. When the document could not be carried
// out it is repeated, and what was at fault is a characteristic-error, parm-error, noparm-error and so on. Characters
// that XML has none for are U+FFFD there.
//
// Numbers are decimal, or hexadecimal with 0x. A text of CM_ProxyEntries and CM_Networks has at most 1,023 characters;
// one of Registry is as long as the registry allows. A document has at most 32 Mi characters, its elements lie at most
// 64 deep, and it has no document type: of entities it has the five.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/registry.h"
#include "platform/types.h"

inline constexpr DWORD CFGFLAG_PROCESS = 0x0001;
// The result document has the parms too, with their datatypes. Alone: the document is examined and nothing is changed.
inline constexpr DWORD CFGFLAG_METADATA = 0x0002;

inline constexpr HRESULT CONFIG_S_PROCESSINGCANCELED = 0x00042005;
inline constexpr HRESULT CONFIG_E_OBJECTBUSY = ZRPLATFORM_HRESULT(0x80042001);
inline constexpr HRESULT CONFIG_E_CANCELTIMEOUT = ZRPLATFORM_HRESULT(0x80042002);
inline constexpr HRESULT CONFIG_E_ENTRYNOTFOUND = ZRPLATFORM_HRESULT(0x80042004);
inline constexpr HRESULT CONFIG_E_CSPEXCEPTION = ZRPLATFORM_HRESULT(0x80042007);
inline constexpr HRESULT CONFIG_E_TRANSACTIONINGFAILURE = ZRPLATFORM_HRESULT(0x80042008);
inline constexpr HRESULT CONFIG_E_BAD_XML = ZRPLATFORM_HRESULT(0x80042009);

// Carries a document out, and returns when it has reached the disk. *result is the result document, which the caller
// gives back with delete[]; NULL when there is none, also when all is done but there was no memory for it. Any thread;
// documents are carried out one after the other, by whichever program.
//   S_OK                            done
//   E_INVALIDARG                    no document, nothing to put the result in, or no or unknown flags
//   CONFIG_E_BAD_XML                not well-formed, too large, or not of the elements above; no result document
//   CONFIG_E_CSPEXCEPTION           a service does not know or take what it is told: the result document marks it
//   CONFIG_E_TRANSACTIONINGFAILURE  the registry could not be written; the result document marks where. Unmarked: it
//   was
//                                   written, and a power cut may still lose it
//   E_OUTOFMEMORY
//   ERROR_MOD_NOT_FOUND             (as an HRESULT) the XML module or what it needs is not installed
// When it fails nothing was changed, but for the one case. ZrProvisioningLastErrorText says more.
ZRPLATFORM_API HRESULT DMProcessConfigXML(LPCWSTR document, DWORD flags, LPWSTR* result);

// ---- this system's additions ---------------------------------------------------------------------------------------

// What the document would change, in its order: `visit` is called for each; the change and what it points to is valid
// during the call, and a result other than 0 ends it. Nothing is changed. The results and the result document are those
// of CFGFLAG_METADATA; when it fails nothing is visited.
using ZrProvisioningVisitor = int (*)(const ZrRegistryChange* change, LPVOID context);
ZRPLATFORM_API HRESULT ZrProvisioningChanges(LPCWSTR document, ZrProvisioningVisitor visit, LPVOID context,
                                             LPWSTR* result);

// Loads what documents need. From then on carrying one out asks nothing of the loader: for a thread that somebody waits
// for while a library is unloaded, when the loader serves nobody else. S_OK, or ERROR_MOD_NOT_FOUND as an HRESULT. Any
// thread.
ZRPLATFORM_API HRESULT ZrPrepareProvisioning();

// What was wrong in the calling thread's last call of this header that failed: a sentence for people, with the line and
// column where there is one. Empty when none did. Valid until the thread's next call of this header.
ZRPLATFORM_API LPCWSTR ZrProvisioningLastErrorText();
