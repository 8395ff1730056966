#include "Sipcarrier/branch_table.h"

#include <algorithm>
#include <new>
#include <span>

#include "base/random.h"

namespace sipcarrier {
namespace {

constexpr std::string_view kCookie = "z9hG4bK";
constexpr std::string_view kHex = "0123456789abcdef";

char* PutHex(char* at, unsigned char byte) {
  *at++ = kHex[byte >> 4U];
  *at++ = kHex[byte & 15U];
  return at;
}

// The bytes that hexadecimal digits in lower case stand for.
bool ReadHex(std::string_view text, std::span<unsigned char> bytes) {
  if (text.size() != 2 * bytes.size()) return false;
  unsigned value = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    unsigned digit = 0;
    if (c >= '0' && c <= '9') {
      digit = static_cast<unsigned>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<unsigned>(c - 'a') + 10;
    } else {
      return false;
    }
    value = value << 4U | digit;
    if (i % 2 == 1) bytes[i / 2] = static_cast<unsigned char>(value);
    value &= 15U;
  }
  return true;
}

}  // namespace

std::uint32_t BranchTable::Add(ClientTransaction& transaction, BranchText& branch) {
  Key key;
  if (!base::FillRandom(key)) return kNowhere;
  std::uint32_t index = first_free_;
  if (index == kNowhere) {
    index = static_cast<std::uint32_t>(places_.size());
    places_.emplace_back();
  } else {
    first_free_ = places_[index].next_free;
  }
  Place& place = places_[index];
  place.key = key;
  place.used = true;
  place.transaction = &transaction;
  char* at = std::copy(kCookie.begin(), kCookie.end(), branch.data());
  for (const unsigned char byte : key) at = PutHex(at, byte);
  for (int shift = 24; shift >= 0; shift -= 8) {
    at = PutHex(at, static_cast<unsigned char>(index >> static_cast<unsigned>(shift)));
  }
  return index;
}

BranchTable::Found BranchTable::Find(std::string_view branch) const {
  Key key;
  std::array<unsigned char, 4> number{};
  if (branch.size() != BranchText().size() || !branch.starts_with(kCookie)) return {};
  branch.remove_prefix(kCookie.size());
  if (!ReadHex(branch.substr(0, 2 * key.size()), key) ||
      !ReadHex(branch.substr(2 * key.size()), number)) {
    return {};
  }
  const std::uint32_t index = std::uint32_t{number[0]} << 24U | std::uint32_t{number[1]} << 16U |
                              std::uint32_t{number[2]} << 8U | number[3];
  if (index >= places_.size() || !places_[index].used || places_[index].key != key) return {};
  return {true, places_[index].transaction};
}

void BranchTable::Remove(std::uint32_t place) noexcept {
  if (place == kNowhere) return;
  places_[place] = {};
  places_[place].next_free = first_free_;
  first_free_ = place;
}

bool BranchTable::Complete(std::uint32_t place, base::Clock::time_point due) noexcept {
  try {
    completed_.push_back({due, place});
  } catch (const std::bad_alloc&) {
    Remove(place);
    return false;
  }
  places_[place].transaction = nullptr;
  return true;
}

std::size_t BranchTable::Expire(base::Clock::time_point now) noexcept {
  std::size_t count = 0;
  while (!completed_.empty() && completed_.front().due <= now) {
    Remove(completed_.front().place);
    completed_.pop_front();
    ++count;
  }
  return count;
}

}  // namespace sipcarrier
