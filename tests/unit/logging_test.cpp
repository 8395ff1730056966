// The rolling log, through its face; file names and thread records also by themselves.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "failing_new.h"
#include "logging/LogOne.h"
#include "logging/LogOrigin.h"
#include "logging/LogPath.h"
#include "WorkDir.h"

namespace {

namespace fs = std::filesystem;

const std::string kStamp = "2024-01-31 09:05:07.008";
const std::string kBegin = "Begin Time:" + kStamp + "\r\n";
const std::string kHead = "[" + kStamp + "][P:4711/T:99]";

std::string Record(const std::string& text, const char* word = "Inf", const std::string& place = "f.cpp:1 F") {
  return kHead + "[" + place + "()][" + word + "]\r\nContent:\r\n" + text + "\r\n";
}

class LogTest : public testing::Test {
 protected:
  LogTest() {
    SetLogOrigin([](LOG_ORIGIN& stOrigin) { stOrigin = {2024, 1, 31, 9, 5, 7, 8, 4711, 99}; });
  }
  ILogOne* Open(const std::string& name) {
    ILogOne* log = LogOne_Open((L"file:" + (dir_ / name).wstring()).c_str());
    log->SetLocation("F", "/src/f.cpp", 1, E_LOG_INFO);
    return log;
  }
  // What lies in a file of the test's directory behind its "Begin Time:" line.
  std::string Body(const std::string& name) {
    const std::string all = Read(name);
    return all.starts_with(kBegin) ? all.substr(kBegin.size()) : "No beginning: " + all;
  }
  [[nodiscard]] std::string Read(const fs::path& path) const { return work_.Read(path); }
  const fakes::WorkDir work_;
  const fs::path& dir_ = work_.Path();
};

TEST_F(LogTest, RecordsByteForByte) {
  ILogOne* log = Open("sub/Tolvane.log");
  EXPECT_FALSE(fs::exists(dir_ / "sub/Tolvane.log"));  // opened by the first write
  log->SetLevel(4);
  log->Print("id %d\n", 7);
  log->PrintAt(E_LOG_ERROR, "A::B", "C:\\src\\a.cpp", 1, "%s", "caf\xc3\xa9");
  log->PrintAt(E_LOG_WARNING, nullptr, "b.cpp", 2, "there");  // stays at the former location
  log->PrintAtW(E_LOG_DEBUG, "G", "b.cpp", 2, L"%ls%d", L"\u00e9\u20ac\U0001F600\xD800", 5);
  log->PrintAtW(E_LOG_INFO, "G", "b.cpp", 2, L"a word up to this level");
  log->PrintAt(4, "G", "b.cpp", 3, "four");
  log->PrintAt(0, "G", "dir/", 4, "a file without a name");
  std::thread([log] { log->Print("a thread without a place writes nothing"); }).join();
  log->SetLocation("H", "c.cpp", 5, E_LOG_INFO);
  log->TraceAt("I", "d.cpp", 6, 1);
  log->TraceAt("", "d.cpp", 6, 0);
  log->TraceAt(nullptr, "d.cpp", 6, 0);
  log->Trace(0);
  EXPECT_EQ(Body("sub/Tolvane.log"),
            Record("id 7\n") + Record("caf\xc3\xa9", "Err", "a.cpp:1 A::B") + Record("there", "Err", "a.cpp:1 A::B") +
                Record("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbd\x35", "", "b.cpp:2 G") +
                Record("a word up to this level", "Inf", "b.cpp:2 G") + Record("four", "", "b.cpp:3 G") + kHead +
                "[d.cpp:6 I()][Enter]\r\n" + kHead + "[c.cpp:5 H()][Leave]\r\n");
}

TEST_F(LogTest, LevelsAndMaskFilter) {
  static const char* const kWords[] = {"Err", "War", "Inf", "Dbg"};
  for (int level = -1; level <= 4; ++level) {
    ILogOne* log = Open(std::to_string(level));
    log->SetLevel(level);
    std::string expected;
    for (int n = 0; n <= 3; ++n) {
      log->PrintAt(n, "F", "f.cpp", 1, "m");
      if (n <= level) expected += Record("m", kWords[n]);
    }
    log->Trace(1);
    if (level >= 3) expected += kHead + "[f.cpp:1 F()][Enter]\r\n";
    EXPECT_EQ(Body(std::to_string(level)), expected);
  }
  ILogOne* log = Open("mask");
  for (int mask : {2, 0}) {  // without bit 0 only wide texts, and none without a head
    log->SetOutputMask(mask);
    log->Print("narrow");
    log->Trace(1);
    log->PrintW(L"wide");
  }
  EXPECT_EQ(Body("mask"), Record("wide"));
}

TEST_F(LogTest, RotationIsARingOfCopies) {
  const std::string filler(1023 - kBegin.size() - Record("").size(), '-');
  for (const int count : {1, 2, 3}) {
    const std::string name = "T" + std::to_string(count) + ".log";
    ILogOne* log = Open(name);
    log->SetLevel(2);
    log->SetMaxSize(1);
    log->SetFileCount(count);
    log->SetFileCount(0);  // refused
    for (int n = 0; n < 4; ++n) {
      log->Print("%s", filler.c_str());  // one byte below the limit is no reason to rotate
      log->Print("%d", n);
      log->Trace(1);  // rotates and is not written
      EXPECT_EQ(Read(name), "");
      EXPECT_EQ(Body(std::to_string(n % count + 1) + "_" + name), Record(filler) + Record(std::to_string(n)));
    }
    EXPECT_FALSE(fs::exists(dir_ / (std::to_string(count + 1) + "_" + name)));
    log->Print("%s-", filler.c_str());  // the limit itself is one
    log->Print("next");
    EXPECT_EQ(Body(name), Record("next"));
  }
}

TEST_F(LogTest, AFileOverTheLimitAtTheStartRotatesAtTheSecondWrite) {
  const std::string old(2000, 'o');
  std::ofstream(dir_ / "T.log") << old;
  ILogOne* log = Open("T.log");
  log->SetMaxSize(1);
  for (const char* text : {"first", "second"}) log->Print("%s", text);
  EXPECT_EQ(Read("1_T.log"), old + kBegin + Record("first"));
  log->SetMaxSize(4 * 1024 * 1024);  // 4 GiB: the largest limit, not a negative one
  log->Print("third");
  EXPECT_EQ(Body("T.log"), Record("second") + Record("third"));
}

TEST_F(LogTest, WhatStandsInTheWayOfAFileCostsOnlyRecords) {
  for (const char* pipe : {"1_T.log", "pipe.log"}) ASSERT_EQ(mkfifo((dir_ / pipe).c_str(), 0600), 0);
  ILogOne* const pipe = Open("pipe.log");
  for (int n = 0; n < 100; ++n) pipe->Print("%s", std::string(5000, 'p').c_str());  // nobody reads them
  ILogOne* log = Open("T.log");
  log->SetMaxSize(0);
  const std::string dir = dir_.string();
  const std::string failed = kStamp + " rename [" + dir + "/T.log] to [" + dir + "/1_T.log] failed code[";
  testing::internal::CaptureStdout();
  for (const char* text : {"lost", "kept"}) log->Print("%s", text);
  EXPECT_EQ(Body("T.log"), Record("kept"));
  fs::remove_all(dir_);
  log->Print("nowhere");
  fs::create_directory(dir_);
  log->Print("a failed open is not tried again");
  EXPECT_TRUE(fs::is_empty(dir_));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), failed + "6]\n" + failed + "2]\n");
}

TEST_F(LogTest, AFullDiskLeavesNoPieces) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto limit = [&](std::size_t room) {
    const rlimit now{room, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &now), 0);
  };
  std::ofstream(dir_ / "old.log") << std::string(2000, 'o');
  limit(1000);
  ILogOne* full = Open("old.log");
  full->SetMaxSize(1);
  for (const char* text : {"lost", "after the rotation"}) full->Print("%s", text);
  EXPECT_EQ(Body("old.log"), Record("after the rotation"));
  EXPECT_FALSE(fs::exists(dir_ / "1_old.log"));  // no piece of a copy
  const std::string kept = Record("kept", "Err");
  for (const std::size_t room :
       {std::size_t{0}, std::size_t{10}, kBegin.size() + 10, kBegin.size() + kept.size() + 10}) {
    const std::string name = std::to_string(room);
    limit(room);
    ILogOne* log = Open(name);
    log->SetLevel(0);
    log->Print("too verbose: the beginning waits for the next write");
    for (const std::string& text : {std::string("kept"), std::string("second"), std::string(20000, 'x')}) {
      log->PrintAt(0, "F", "f.cpp", 1, "%s", text.c_str());
    }
    limit(old.rlim_cur);
    log->PrintAt(0, "F", "f.cpp", 1, "third");
    EXPECT_EQ(Body(name), (room < kBegin.size() + kept.size() ? "" : kept) + Record("third", "Err"));
  }
}

TEST_F(LogTest, PauseCloseAndOpenAgain) {
  EXPECT_EQ(LogOne_Open(nullptr), nullptr);
  ILogOne* log = Open("T.log");
  log->Pause();
  log->Print("dropped");
  EXPECT_FALSE(fs::exists(dir_ / "T.log"));  // not even opened
  log->Resume();
  log->Print("1");
  LogOne_Close(&log);
  log->Print("dropped");
  EXPECT_EQ(Open("T.log"), log);
  log->Print("2");
  EXPECT_EQ(Body("T.log"), Record("1") + Record("2"));
}

TEST_F(LogTest, LongMessagesAndHeadsAreCut) {
  const std::string most(51199, 'x');
  ILogOne* log = Open("T.log");
  log->Print("%s", most.c_str());
  log->Print("%sz", most.c_str());
  log->PrintW(L"%ls", std::wstring(40000, L'\u00e9').c_str());  // cut between characters
  std::string wide;
  for (std::size_t n = 0; n < most.size() / 2; ++n) wide += "\xc3\xa9";
  log->PrintAt(2, std::string(600, 'f').c_str(), "f.cpp", 1, "long head");
  const std::string head = (kHead + "[f.cpp:1 " + std::string(600, 'f')).substr(0, 259);
  EXPECT_EQ(Body("T.log"), Record(most) + Record(most) + Record(wide) + head + "[Inf]\r\nContent:\r\nlong head\r\n");
}

TEST_F(LogTest, ScopesTraceWhatTheyCanSee) {
  std::atomic<ILogOne*> log{nullptr};
  int number = 0;
  const auto scope = [&](ILogOne* at_the_end) {
    static const char* const kNames[] = {"0", "1", "2", "3"};
    const CLogOneScope traced(&log, kNames[number++], "s.cpp", 1);
    log = at_the_end;
  };
  const std::size_t before = failing_new::Allocations();
  scope(nullptr);
  EXPECT_EQ(failing_new::Allocations(), before);
  ILogOne* const file = Open("T.log");
  for (ILogOne* at_the_end : {file, static_cast<ILogOne*>(nullptr)}) scope(at_the_end);
  log = file;
  scope(file);
  { const CLogOneScope unnamed(&log, nullptr, nullptr, 4); }  // without a file there is no head
  const auto line = [](const char* text) { return kHead + "[s.cpp:1 " + text + "]\r\n"; };
  EXPECT_EQ(Body("T.log"), line("1()][Leave") + line("2()][Enter") + line("3()][Enter") + line("3()][Leave"));
}

TEST_F(LogTest, OnceOpenALogNeedsNoMemory) {
  static const char kLong[] = "a text that is too long to be held in place";
  const std::wstring path = L"file:" + (dir_ / "T.log").wstring();
  std::atomic<ILogOne*> log{nullptr};
  for (long left = 0; log == nullptr; ++left) {
    failing_new::Limit(left);
    log = LogOne_Open(path.c_str());
    failing_new::Limit(-1);
    ASSERT_TRUE(left > 0 || log == nullptr);
  }
  log.load()->PrintAt(0, "F", "f.cpp", 1, "the file is open");  // its buffer is the stream's
  failing_new::Limit(0);
  {
    const CLogOneScope scope(&log, kLong, kLong, 1);
    log.load()->PrintAt(0, "F", "f.cpp", 1, "kept");
  }
  failing_new::Limit(-1);
  const auto line = [](const std::string& text) {
    return kHead + "[" + kLong + ":1 " + kLong + "()][" + text + "]\r\n";
  };
  EXPECT_EQ(Body("T.log"), Record("the file is open", "Err") + line("Enter") + Record("kept", "Err") + line("Leave"));
}

TEST_F(LogTest, PathsFollowTheirRules) {
  // clang-format off
  const struct { const char *path, *dir, *name; } rows[] = {
      {"/log/Tolvane.log", "/opt/app/log/", "Tolvane.log"},
      {"log//./a\\T.log", "/opt/app/log/a/", "T.log"},
      {"T.log", "/opt/app/", "T.log"},
      {"../T.log", "/opt/", "T.log"},
      {"../../x/T.log", "/x/", "T.log"},
      {"a/../../../../T.log", "/opt/app/Log/", "T.log"},
      {"file:/var/log/tolvane/T.log", "/var/log/tolvane/", "T.log"},
      {"C:\\log\\T.log", "/log/", "T.log"},
      {"file:log/T.log", "/log/", "T.log"},
      {"x/y:/T.log", "/", "T.log"},
      {"C:T.log", "", ""}};
  // clang-format on
  for (const auto& row : rows) {
    const LOG_PATH path = ResolveLogPath(row.path, "/opt/app");
    EXPECT_EQ(path.strDir + "|" + path.strFileName, std::string(row.dir) + "|" + row.name) << row.path;
  }
  EXPECT_EQ(ResolveLogPath("../T.log", "").strDir, "/Log/");
}

TEST_F(LogTest, PathsThatCannotBeUsedFallBack) {
  fs::create_directory(dir_ / "taken.log");
  Open("taken.log")->Print("a");
  fs::current_path(dir_);
  LogOne_Open(L"C:T.log")->PrintAt(0, "F", "f.cpp", 1, "b");
  EXPECT_EQ(Read("MyLog.log"), kBegin + Record("a") + kBegin + Record("b", "Err"));

  const fs::path module = fs::read_symlink("/proc/self/exe").parent_path();
  fs::remove(module / "Log/MyLog.log");
  std::ofstream(dir_ / "file") << "x";
  Open("file/below/T.log")->Print("c");
  Open(std::string(5000, 'd') + "/T.log")->Print("d");
  EXPECT_EQ(Read(module / "Log/MyLog.log"), kBegin + Record("c") + kBegin + Record("d"));
  fs::remove_all(module / "Log");
}

// What a statement is asked before it makes its two calls: the gate of the logger.
TEST_F(LogTest, TheGateOpensForWhatWouldDoSomething) {
  ILogOne* const file = Open("T.log");
  std::atomic<ILogOne*> log{nullptr};
  const auto takes = [&log] {  // the most verbose level that gets through, 9 for all, -1 for none
    int level = 9;
    while (level >= 0 && LogOne_For(log, level) == nullptr) --level;
    return level;
  };
  EXPECT_EQ(takes(), -1);
  log = file;
  file->SetLevel(1);
  EXPECT_EQ(takes(), 9);  // a dropped text, too, opens the file
  file->Print("dropped");
  EXPECT_EQ(takes(), 9);  // and carries the beginning out
  EXPECT_EQ(Read("T.log"), "");
  file->Print("dropped");
  EXPECT_EQ(Body("T.log"), "");
  EXPECT_EQ(takes(), 1);
  for (const int level : {0, 2, -7, 3}) {
    file->SetLevel(level);
    EXPECT_EQ(takes(), std::max(level, -1));
  }
  file->SetMaxSize(1);
  EXPECT_EQ(takes(), 9);  // a dropped text, too, measures by the new limit
  file->Print("short");
  EXPECT_EQ(takes(), 3);
  file->Print("%s", std::string(1024, '-').c_str());
  EXPECT_EQ(takes(), 9);  // and rotates
  file->SetLevel(0);
  file->Print("dropped");
  file->Print("dropped");
  EXPECT_EQ(Body("T.log"), "");
  EXPECT_EQ(takes(), 0);
  file->Pause();
  EXPECT_EQ(takes(), -1);
  file->Resume();
  EXPECT_EQ(takes(), 0);
  LogOne_Close(&const_cast<ILogOne*&>(file));
  EXPECT_EQ(takes(), -1);

  fs::create_directory(dir_ / "MyLog.log");
  fs::create_directory(dir_ / "taken");
  log = Open("taken");
  EXPECT_EQ(takes(), 9);
  log.load()->Print("a file that cannot be opened by any means");
  EXPECT_EQ(takes(), -1);
}

TEST_F(LogTest, LocationsBelongToOneThreadAndOneLogger) {
  std::vector<ILogOne*> logs;
  for (const char* name : {"a", "b", "c", "d"}) {
    logs.push_back(Open(name));
    logs.back()->SetLocation(name, "f.cpp", 1, E_LOG_INFO);
  }
  std::thread([&logs] {
    logs[1]->SetLocation("other", "f.cpp", 1, E_LOG_INFO);
    for (ILogOne* log : logs) log->Print("m");
  }).join();
  for (ILogOne* log : logs) log->Print("m");
  const auto mine = [](const std::string& name) { return Record("m", "Inf", "f.cpp:1 " + name); };
  EXPECT_EQ(Body("a"), mine("a"));
  EXPECT_EQ(Body("b"), mine("other") + mine("b"));
  EXPECT_EQ(Body("c") + Body("d"), mine("c") + mine("d"));
}

}  // namespace
