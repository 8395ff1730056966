// From a text to a tree.
#pragma once

#include <string>
#include <string_view>

#include "tree.h"

namespace domlet {

// Reads a document in one pass. True with the tree filled; false with a reason, "line L, column C:
// ...", and the tree in no useful state. Throws std::bad_alloc.
[[nodiscard]] bool Parse(std::string_view text, Tree& tree, std::string& error);

}  // namespace domlet
