#include "services/subscription/text_edits.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace subscription {

void TextEdits::Replace(TextRange range, std::string text) {
  edits_.push_back({range, std::move(text)});
}

void TextEdits::Move(TextRange range, std::size_t to) {
  std::string moved = Render(range);
  Replace(range, {});
  Replace({to, to}, std::move(moved));
}

std::string TextEdits::Render(TextRange range) {
  // An insertion comes before what is replaced from the same place on.
  std::sort(edits_.begin(), edits_.end(), [](const Edit& a, const Edit& b) {
    return std::tie(a.range.begin, a.range.end) < std::tie(b.range.begin, b.range.end);
  });
  std::string result;
  result.reserve(range.end - range.begin);
  std::size_t done = range.begin;
  auto edit = std::lower_bound(edits_.begin(), edits_.end(), range.begin,
                               [](const Edit& a, std::size_t at) { return a.range.begin < at; });
  for (; edit != edits_.end() && edit->range.end <= range.end; ++edit) {
    if (edit->range.begin < done) continue;  // inside of what has been replaced
    result.append(text_, done, edit->range.begin - done).append(edit->text);
    done = edit->range.end;
  }
  return result.append(text_, done, range.end - done);
}

}  // namespace subscription
