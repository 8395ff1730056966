// nsip: SIP messages (RFC 3261 §7, §25): read, edit, write.
//
// Ownership: a message owns all that hangs on it; what an out-parameter gives stays the message's,
// except texts, which the caller frees with nsip_free. A message is used by one thread at a time.
// Functions throw nothing but std::bad_alloc.
// Strictness: reading gives a message or a reason, for every byte string. No text with CR, LF or
// NUL ever gets into a message: setting one is refused (-1). The same holds for all other control
// characters but HTAB. Bytes above 0x7F are taken as they are; whether they are UTF-8 is not looked
// at. Fields may be filled by hand: what writes them checks them again and refuses what would be
// read as something else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "visibility.h"

struct nsip_generic_param {
  std::string name;
  std::string value;  // as it stands, quotes included
  bool has_value = false;
};
using nsip_param_list = std::vector<nsip_generic_param>;

// sip:, sips: (RFC 3261 §19.1) parsed in full; any other scheme (tel: ...) keeps its rest in
// `opaque`. An empty password ("user:@host") reads as none.
struct TOLVANE_PUBLIC nsip_uri {
  std::string scheme;    // lower case
  std::string user;      // as written, escapes kept
  std::string password;  // as written
  std::string host;      // IPv6 literals with their brackets
  int port = 0;          // 0: none given
  nsip_param_list params;
  std::string headers;  // what stands behind '?', without it
  std::string opaque;   // for schemes other than sip and sips: all behind the ':'
};

// From, To, Contact, Route, P-Associated-URI ...: name-addr or addr-spec with parameters (RFC 3261
// §20.10).
struct TOLVANE_PUBLIC nsip_from {
  std::string displayname;  // without quotes and escapes
  std::unique_ptr<nsip_uri> url;
  nsip_param_list params;  // header parameters
};
using nsip_to = nsip_from;
using nsip_contact = nsip_from;
using nsip_route = nsip_from;

struct nsip_via {
  std::string protocol;   // "SIP/2.0"
  std::string transport;  // "UDP" ...
  std::string host;       // IPv6 literals with their brackets
  int port = 0;
  nsip_param_list params;  // branch, received, rport ...
};

struct nsip_header {
  std::string hname;  // the full name where a compact form came, else as it came
  std::string hvalue;
};

// A list of headers; it owns them.
struct nsip_list {
  std::vector<std::unique_ptr<nsip_header>> items;
};

struct TOLVANE_PUBLIC nsip_message {
  nsip_message();
  ~nsip_message();
  nsip_message(const nsip_message&) = delete;
  nsip_message& operator=(const nsip_message&) = delete;

  int status_code = 0;  // 0: a request
  std::string reason_phrase;
  std::string sip_method;  // of a request
  std::unique_ptr<nsip_uri> req_uri;
  std::unique_ptr<nsip_from> from;
  std::unique_ptr<nsip_to> to;
  std::vector<std::unique_ptr<nsip_via>> vias;  // topmost first
  std::vector<std::unique_ptr<nsip_route>> routes;
  std::vector<std::unique_ptr<nsip_route>> record_routes;
  std::vector<std::unique_ptr<nsip_contact>> contacts;
  bool contact_star = false;  // "Contact: *"
  std::string call_id;
  std::uint32_t cseq_number = 0;
  std::string cseq_method;
  int max_forwards = -1;  // -1: none
  // All other headers in their order, one entry for each header line (comma lists stay as they
  // stand).
  nsip_list headers;
  std::string body;

  // Parsed views that are made on demand (P-Associated-URI); they belong to the message.
  struct Cache;
  std::unique_ptr<Cache> cache;
};

// --- messages ---
inline constexpr std::size_t kNsipMaxMessage = 65535;

// Reads one message, which must fill the text (a datagram): bytes behind the body that
// Content-Length tells are dropped (RFC 3261 §18.3), a body shorter than told is refused. Null and
// a reason when it is no message. Bounds: 256 header lines, 256 entries of one kind, 64 parameters
// in one list.
[[nodiscard]] TOLVANE_PUBLIC std::unique_ptr<nsip_message> nsip_message_parse(std::string_view text,
                                                                              std::string& reason);
// Writes a message in full form names with Content-Length; 0, or -1 when a mandatory part is
// missing, a part is not well-formed, the header list holds one that has a field of its own, or the
// whole is too long.
// `first_via`, when not empty, is the value of a Via above those of the message: what the transport
// adds when it sends. It is taken as it is.
[[nodiscard]] TOLVANE_PUBLIC int nsip_message_to_str(const nsip_message& msg, std::string& text,
                                                     std::string_view first_via = {});
[[nodiscard]] TOLVANE_PUBLIC std::unique_ptr<nsip_message> nsip_message_clone(
    const nsip_message& msg);

// The position of the first header of this name (case does not matter, compact forms count as their
// full names) at or behind pos in msg->headers, and the header; -1 and null when there is none.
TOLVANE_PUBLIC int nsip_message_header_get_byname(const nsip_message* msg, const char* name,
                                                  int pos, nsip_header** hdr);
// The Contact at this position, or null; returns the position or -1.
TOLVANE_PUBLIC int nsip_message_get_contact(const nsip_message* msg, int pos,
                                            nsip_contact** contact);
// 0 and the parameter (name without regard to case), or -1 and null.
TOLVANE_PUBLIC int nsip_generic_param_get_byname(const nsip_param_list& params, const char* name,
                                                 const nsip_generic_param** param);
// The entries of all P-Associated-URI headers (RFC 7315 §4.1), comma lists taken apart. Below 0
// past the last entry; an entry that cannot be read gives its position and a null header. A walk
// starts at 0: there the headers are looked at again when they have changed, which ends what
// earlier calls gave.
TOLVANE_PUBLIC int nsip_message_get_p_associated_uri(nsip_message* msg, int pos, nsip_from** hdr);
// Replaces the first header of this name, or appends one. 0; -1 when the name is no token or one of
// those that have a field of their own, or the value holds CR, LF or NUL.
TOLVANE_PUBLIC int nsip_message_set_header(nsip_message* msg, const char* name, const char* value);

// --- header lists ---
TOLVANE_PUBLIC int nsip_list_eol(const nsip_list* list, int pos);  // non-zero at or behind the end
TOLVANE_PUBLIC nsip_header* nsip_list_get(const nsip_list* list, int pos);  // null outside
// Inserts at pos (behind the end: appends); the list owns the header from then on. Its size, or -1,
// then the header stays the caller's: the name is no token or the value holds a control character.
TOLVANE_PUBLIC int nsip_list_add(nsip_list* list, nsip_header* header, int pos);
// Takes the entry off without freeing the header, which is the caller's then. The new size, or -1.
TOLVANE_PUBLIC int nsip_list_remove(nsip_list* list, int pos);
TOLVANE_PUBLIC int nsip_header_clone(const nsip_header* header, nsip_header** copy);  // 0, or -1
TOLVANE_PUBLIC void nsip_header_free(nsip_header* header);

// --- texts ---
// 0 and a text that the caller frees with nsip_free; -1 and null.
TOLVANE_PUBLIC int nsip_from_to_str(const nsip_from* hdr, char** text);
TOLVANE_PUBLIC int nsip_uri_to_str(const nsip_uri* uri, char** text);
TOLVANE_PUBLIC void nsip_free(void* text);  // accepts null

// The same for code of the platform layer.
[[nodiscard]] TOLVANE_PUBLIC bool nsip_uri_parse(std::string_view text, nsip_uri& uri);
// name-addr or addr-spec with parameters; also bare words before "<" that would need quotes: they
// are taken as the display name and written in quotes.
[[nodiscard]] TOLVANE_PUBLIC bool nsip_from_parse(std::string_view text, nsip_from& from);
// Empty when a part is not well-formed.
[[nodiscard]] TOLVANE_PUBLIC std::string nsip_uri_text(const nsip_uri& uri);
[[nodiscard]] TOLVANE_PUBLIC std::string nsip_from_text(const nsip_from& from);
// One spelling for all texts of a URI's part that mean the same (RFC 3261 §19.1.4): an escaped
// character is equal to the bare one unless it is reserved.
[[nodiscard]] TOLVANE_PUBLIC std::string nsip_uri_normal(std::string_view text);
// RFC 3261 §19.1.4.
[[nodiscard]] TOLVANE_PUBLIC bool nsip_uri_equal(const nsip_uri& a, const nsip_uri& b);
// The key under which an address of record stands in every table, and itself a URI: equal texts
// mean the same address of record. Scheme, user with its escapes undone, and host in one spelling;
// no parameters (RFC 3261 §10.3 step 5), no password, no headers. What §19.1.4 calls equal has one
// key. A port that is the scheme's default counts as none: nobody has two accounts that differ in
// that alone. tel: numbers lose their visual separators (RFC 3966 §5.1.1) and keep their parameters.
[[nodiscard]] TOLVANE_PUBLIC std::string nsip_aor_key(const nsip_uri& uri);
[[nodiscard]] TOLVANE_PUBLIC bool nsip_is_token(std::string_view text);
// The parts of a challenge or credentials header behind the scheme word: key=value, quotes taken
// off.
[[nodiscard]] TOLVANE_PUBLIC bool nsip_auth_params_parse(std::string_view text, std::string& scheme,
                                                         nsip_param_list& params);
