#include "host/config_check.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "base/text.h"
#include "host/options.h"
#include "host/words.h"

namespace host {
namespace {

constexpr const char* kConfigName = "TOLVANE";
// The kind and method that the component asks for, and the cells that it fills in.
constexpr std::string_view kKind = "REG";
constexpr std::string_view kMethod = "REGISTER";
constexpr std::array<std::string_view, 5> kKeys = {"local-uri", "remote-uri", "display-name",
                                                   "request-uri", "contact-uri"};

// The first key of a well-formed value that the component never fills in; empty when there is none.
std::string_view UnknownKey(std::string_view value) {
  std::size_t open = value.find("${");
  while (open != std::string_view::npos) {
    std::size_t next = open + 2;
    if (open == 0 || value[open - 1] != '$') {  // "$${" is a literal "${"
      next = value.find('}', open);
      const std::string_view key = value.substr(open + 2, next - open - 2);
      if (std::find(kKeys.begin(), kKeys.end(), key) == kKeys.end()) return key;
    }
    open = value.find("${", next);
  }
  return {};
}

std::string Describe(const sipcarrier::ConfMessage& message) {
  std::string text = Printable(message.kind) + " " + Printable(message.method) + " (line " +
                     std::to_string(message.line) + ")\n";
  for (const auto& header : message.headers) {
    text += "  " + header.name + ": " + Printable(header.value) + "\n";
    const std::string_view key = UnknownKey(header.value);
    if (base::EqualNoCase(header.name, "Expires")) {
      text += "    note: every REGISTER keeps its own expiry, so this value is never sent\n";
    } else if (!key.empty()) {
      text += "    note: nothing ever fills ${" + Printable(key) +
              "} in, so this header is left out of every message\n";
    }
  }
  return text;
}

std::string Describe(const std::vector<sipcarrier::ConfMessage>& messages) {
  std::string text;
  int used = 0;
  for (const auto& message : messages) {
    text += Describe(message);
    if (message.kind != kKind || message.method != kMethod) {
      text +=
          "  note: no message is ever made from this template; that takes kind \"REG\" and method "
          "\"REGISTER\"\n";
    } else if (used != 0) {
      text += "  note: this template is never used; that of line " + std::to_string(used) +
              " comes first\n";
    } else {
      used = message.line;
    }
  }
  return text;
}

}  // namespace

ConfigReading ReadConfiguration(const std::string& directory) {
  CVorelSipConf conf(kConfigName);
  conf.SetCfgPath(directory);
  ConfigReading reading;
  reading.file = directory + (directory.ends_with('/') ? "" : "/") + kConfigName + ".xml";
  if (conf.ReadConfFromFile() == 0) {
    reading.messages = conf.Messages();
    return reading;
  }
  for (const sipcarrier::ConfFault& fault : conf.Faults()) {
    const std::string line = fault.line > 0 ? ":" + std::to_string(fault.line) : std::string();
    reading.faults.push_back(Printable(fault.file + line + ": " + fault.reason));
  }
  if (reading.faults.empty()) reading.faults.push_back(reading.file + ": no memory to read it");
  return reading;
}

void PrintFaults(const ConfigReading& reading) {
  for (const std::string& fault : reading.faults) std::fprintf(stderr, "%s\n", fault.c_str());
}

int RunCheckConfig(const std::string& directory) {
  const ConfigReading reading = ReadConfiguration(directory);
  if (!reading.faults.empty()) {
    PrintFaults(reading);
    return kExitFailed;
  }
  const std::size_t count = reading.messages.size();
  std::printf("%s holds %zu template%s.\n%s", reading.file.c_str(), count, count == 1 ? "" : "s",
              Describe(reading.messages).c_str());
  return kExitOk;
}

}  // namespace host
