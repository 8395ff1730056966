// The bus's edge, faked: it keeps what the component expresses, as text. It links in place of
// Brunelib.
#pragma once

#include <string>
#include <vector>

#include "Brunelib/Brunelib.h"

namespace fakes {

struct FakeBus {
  static FakeBus& Get();
  // "1000 <reg>...</reg>": the notification's id in hexadecimal and its document.
  std::vector<std::string> expressed;
};

}  // namespace fakes
