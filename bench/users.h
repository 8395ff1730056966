// The accounts of a measurement.
#pragma once

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace bench {

struct User {
  std::string name;
  std::string password;
};

// A line "user;password" each; empty lines count for nothing. With no file: user00001, user00002
// ... with the password "secret". At most `count` of them; 0: as many as the file has. False and a
// text when there are none, or fewer than asked for.
[[nodiscard]] inline bool ReadUsers(const std::string& file, std::size_t count,
                                    std::vector<User>& users, std::string& error) {
  if (file.empty()) {
    users.reserve(count);
    for (std::size_t i = 1; i <= count; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "user%05zu", i);
      users.push_back({name, "secret"});
    }
    if (users.empty()) error = "give --users FILE or --count N";
    return !users.empty();
  }
  std::ifstream in(file);
  for (std::string line; (count == 0 || users.size() < count) && std::getline(in, line);) {
    if (line.empty()) continue;
    const auto semicolon = line.find(';');
    users.push_back({line.substr(0, semicolon),
                     semicolon == std::string::npos ? "" : line.substr(semicolon + 1)});
  }
  if (!users.empty() && users.size() >= count) return true;
  error = file + " holds " + std::to_string(users.size()) +
          " users, too few; a line is \"user;password\"";
  return false;
}

}  // namespace bench
