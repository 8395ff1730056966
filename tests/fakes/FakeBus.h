// The bus's edge, faked: it keeps what the component expresses, as text, and plays the subscription
// service. It links in place of Brunelib.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Brunelib/Brunelib.h"

namespace fakes {

struct FakeBus {
  static FakeBus& Get();
  // "1000 <reg>...</reg>": the notification's id in hexadecimal and its document; and each command
  // to the service: "service 2 <sub>...</sub>".
  std::vector<std::string> expressed;

  // How the service answers its next subscribe commands; empty: a refusal. Then ids from 1.
  std::deque<std::string> answers;
  int last_id = 0;
  std::function<void()> at_command;  // once, while a command is at the service
  std::map<int, XSNotifyCallback*> subscribers;
  // A notification of the service; what the component's callback gives.
  int Notify(int id, CXML& document);
};

}  // namespace fakes
