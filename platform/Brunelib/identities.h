// Who and what is named on the bus: the identities of its components and the numbers of their
// commands and notifications.
//
// Host, component, service, tests and benchmarks read them here. They stand beside the bus, which
// itself uses none of them, because everybody who names a component includes the bus, and nobody
// may include a plug-in's headers.
#pragma once

// The registration component. Every command and notification is a document with the root "reg",
// unless it says otherwise here.
namespace bus::registration {

inline constexpr char kIdentity[] = "{8836E13D-A307-43DF-8C88-B7783DC728BF}";

inline constexpr int kCommandReadConfig = 2;  // no document
inline constexpr int kCommandRegister = 3;
inline constexpr int kCommandDeregister = 4;
inline constexpr int kCommandSettings = 0x10000;   // root "system-settings"
inline constexpr int kCommandLogSwitch = 0x10004;  // root "log"

// Results of commands besides 0 and -1. The first is the only one of kCommandReadConfig: the command
// ran. It does not say what was read.
inline constexpr int kResultRan = 0x40000002;
inline constexpr int kResultNotParsed = 0x40000005;  // of the settings and of the log switch

inline constexpr int kNotifyOutcome = 0x1000;
inline constexpr int kNotifyDeregistered = 0x1001;
inline constexpr int kNotifyState = 0x1002;
inline constexpr int kNotifyServiceLost = 0x1003;

}  // namespace bus::registration

// The subscription service. Its documents have the root "sub", but for that of the log switch.
namespace bus::subscription {

inline constexpr char kIdentity[] = "{C560987C-AD84-40B7-8D17-84583CC090ED}";

inline constexpr int kCommandSubscribe = 2;
inline constexpr int kCommandDesubscribe = 3;
inline constexpr int kCommandLogSwitch = 0x10004;

inline constexpr int kNotifyLife = 0x1003;     // a subscription has ended for good
inline constexpr int kNotifyFailure = 0x1004;  // nobody sends it
inline constexpr int kNotifyBody = 0x1005;     // a NOTIFY has brought a document

}  // namespace bus::subscription
