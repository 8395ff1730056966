// A configuration in a directory of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Sipcarrier/Sipcarrier.h"

struct ConfFixture : testing::Test {
  ConfFixture() { conf.SetCfgPath(dir); }
  ~ConfFixture() override { std::filesystem::remove_all(dir); }

  static std::string MakeDirectory() {
    std::string name = testing::TempDir() + "sipconf-XXXXXX";
    return mkdtemp(name.data());
  }
  void Write(const std::string& text) const { std::ofstream(dir + "/TOLVANE.xml") << text; }
  int Read(const std::string& text) {
    Write(text);
    return conf.ReadConfFromFile();
  }
  // The headers of this thread's next template, "name: value" in lines; "null" without one.
  std::string Get(const std::string& method = "REGISTER") {
    const nsip_message* message = conf.GetSipMsg("REG", method, nullptr);
    if (message == nullptr) return "null";
    std::string text;
    for (int i = 0; nsip_list_eol(&message->headers, i) == 0; ++i) {
      const nsip_header* header = nsip_list_get(&message->headers, i);
      text += header->hname + ": " + header->hvalue + "\n";
    }
    return text;
  }
  static std::string File(const std::string& headers) {
    return "<sip-messages>\n<message kind='REG' method='REGISTER'>\n" + headers + "\n</message>\n</sip-messages>";
  }

  const std::string dir = MakeDirectory();
  CVorelSipConf conf{"TOLVANE"};
};
