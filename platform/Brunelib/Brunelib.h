// Brunelib: the service bus. Components (plug-ins, identified by a text such as
// "{8836E13D-A307-43DF-8C88-B7783DC728BF}") take commands and express notifications; documents are
// CXML.
//
// Threads. XSExecuteCommand runs the component's handler in the caller's thread. XSExpressNotify
// copies the document, queues it and returns; one delivery thread of the bus calls the subscribers,
// in the order in which notifications were expressed, with no lock of the bus or of the sender
// held: a subscriber may send commands, subscribe and unsubscribe from its callback.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Domletlib/Domletlib.h"
#include "visibility.h"

inline constexpr int XS_OK = 0;
inline constexpr int XS_E_INVALID = -2;  // a null or too long argument
inline constexpr int XS_E_UNKNOWN = -3;  // no component of this identity is loaded
inline constexpr int XS_E_NO_MEMORY = -4;

using XSNotifyCallback = int(const char* szSource, int nNtfId, CXML* pDoc, void* pExtra);

// The information record that a component fills: 382 bytes, packed, little-endian.
#pragma pack(push, 1)
struct XSComponentInfo {
  std::int32_t nHostUse;  // the host's; the component leaves it alone
  char szIdentity[40];
  std::int32_t nNumber;
  std::uint16_t nVersion[4];
  std::uint16_t nYear;
  std::uint16_t nMonth;
  std::uint16_t nDay;
  char szVendor[64];
  char szText[256];
};
#pragma pack(pop)
static_assert(sizeof(XSComponentInfo) == 382);

extern "C" {

// The callback gets the notifications of this source and id from now on; the same triple twice
// counts once.
TOLVANE_PUBLIC int XSSubNotify(const char* szSource, int nNtfId, XSNotifyCallback* pCallback);
// After it returns no such call comes or is under way (except the one it was called from).
TOLVANE_PUBLIC int XSUnsubNotify(const char* szSource, int nNtfId, XSNotifyCallback* pCallback);
TOLVANE_PUBLIC int XSExpressNotify(const char* szSource, int nNtfId, CXML* pDoc, void* pExtra);
// The result of the component's command handler, or one of the XS_E_ values.
TOLVANE_PUBLIC int XSExecuteCommand(const char* szTarget, int nCmdId, CXML* pIn, CXML* pOut);

}  // extern "C"

namespace brunelib {

// Loads a plug-in and initialises it on the calling thread. `name` is a path (with a '/') or a
// word: "Tolvane" stands for libTolvane.so, looked for in "../lib" beside the program and then in
// the program's folder. `prefix` is that of its five exported functions: "TOLVANE_XSC". On success
// the identity from its information record; otherwise empty, and `error` says what failed and where
// it was looked for. A component whose initialisation fails is uninitialised and unloaded again.
[[nodiscard]] TOLVANE_PUBLIC std::string LoadComponent(const std::string& name,
                                                       const std::string& prefix,
                                                       std::string& error);
// Waits until no command is under way in it (at most `deadline`; new ones are refused meanwhile),
// uninitialises it on the calling thread, takes back what it subscribed, unloads it. false when
// there is no such component, the deadline passed (it then stays loaded), or the caller is a
// notification callback, which may be the component's own.
TOLVANE_PUBLIC bool UnloadComponent(const std::string& identity,
                                    std::chrono::milliseconds deadline);
// The information record of a loaded component.
[[nodiscard]] TOLVANE_PUBLIC bool GetComponentInfo(const std::string& identity,
                                                   XSComponentInfo& info);
// Waits until every notification expressed so far has been delivered; false when the deadline
// passed, and in a notification callback.
TOLVANE_PUBLIC bool DrainNotifications(std::chrono::milliseconds deadline);
// Unloads what is loaded, last loaded first, delivers what is queued and ends the delivery thread;
// what the deadline cuts off is dropped. The bus can be used again afterwards. Does nothing in a
// notification callback.
TOLVANE_PUBLIC void Shutdown(std::chrono::milliseconds deadline);

}  // namespace brunelib
