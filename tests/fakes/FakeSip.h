// The SIP libraries' edge, faked: it records each REGISTER that the component sends and lets a test
// respond to it. It links in place of sivra and Sipcarrier; messages are the real library's.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Sipcarrier/Sipcarrier.h"

namespace fakes {

struct SentRegister {
  long stack_id = 0;
  int expires = 0;  // as asked for at the build
  std::string from;
  std::string registrar;
  std::string expires_header;
  std::string user_agent;
  std::string headers;  // those without a field of their own, each with a line feed
};

struct FakeSip {
  static FakeSip& Get();

  // What the component did. Entries: stack id to From text; released ones are gone.
  std::vector<SentRegister> sent;
  std::map<long, std::string> entries;
  ISipStackEvent* handler = nullptr;
  bool locked = false;

  // What it shall meet.
  int build_result = 0;
  int send_result = 0;
  std::vector<nsip_header> built_headers;  // of each message that is built
  bool refuse_addresses = false;
  int register_handler_result = 0;
  std::function<void()> before_lock;  // once, when somebody is about to take the library's lock

  // A final response to this entry's REGISTER; headers are whole lines, each with its CRLF.
  int Respond(long stack_id, int status, const std::string& headers = {});
  int Error(long stack_id, int event_id);

  long last_id = 0;
  std::map<long, std::string> registrars;
};

}  // namespace fakes
