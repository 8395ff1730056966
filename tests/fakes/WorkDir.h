// A directory of the operator's, for one test: the templates' file and the log lie in it.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

namespace fakes {

class WorkDir {
 public:
  WorkDir() {
    std::string name = testing::TempDir() + "/tolvaneXXXXXX";
    path_ = mkdtemp(name.data());
  }
  ~WorkDir() { std::filesystem::remove_all(path_); }
  WorkDir(const WorkDir&) = delete;
  WorkDir& operator=(const WorkDir&) = delete;

  // The file, with a template for REGISTER that has these headers: "name: value", each in a line.
  void Template(const std::string& lines) const {
    Write("<sip-messages>\n<message kind=\"REG\" method=\"REGISTER\">\n" +
          std::regex_replace(lines, std::regex("([^:\n]+): ([^\n]*)\n?"), "<header name=\"$1\">$2</header>\n") +
          "</message>\n</sip-messages>\n");
  }
  // In one step, for who reads it meanwhile.
  void Write(const std::string& text) const {
    std::ofstream(path_ / "new", std::ios::binary) << text;
    std::filesystem::rename(path_ / "new", path_ / "TOLVANE.xml");
  }
  [[nodiscard]] const std::filesystem::path& Path() const { return path_; }
  [[nodiscard]] std::string Read(const std::string& name = "Tolvane.log") const {
    std::ifstream in(path_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  // The command documents that name it.
  [[nodiscard]] std::string Settings() const {
    return "<system-settings><work-dir>" + path_.string() + "</work-dir></system-settings>";
  }
  [[nodiscard]] std::string LogOn(const std::string& attributes, const std::string& below = {}) const {
    return "<log><log-switch path=\"file:" + (path_ / below).string() + "\" " + attributes + ">1</log-switch></log>";
  }
  static constexpr char kLogOff[] = "<log/>";

 private:
  std::filesystem::path path_;
};

}  // namespace fakes
