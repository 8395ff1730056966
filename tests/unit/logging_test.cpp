// The rolling log, through its face; file names and thread records also by themselves.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "failing_new.h"
#include "logging/LogOne.h"
#include "logging/LogOrigin.h"
#include "logging/LogPath.h"
#include "logging/LogThreads.h"

namespace {

namespace fs = std::filesystem;

void FixedOrigin(LOG_ORIGIN& stOrigin) { stOrigin = {2024, 1, 31, 9, 5, 7, 8, 4711, 99}; }

const std::string kBegin = "Begin Time:2024-01-31 09:05:07.008\r\n";
const std::string kHead = "[2024-01-31 09:05:07.008][P:4711/T:99]";

std::string Record(const std::string& where, const std::string& word, const std::string& text) {
  return kHead + "[" + where + "()][" + word + "]\r\nContent:\r\n" + text + "\r\n";
}

std::string ReadFile(const fs::path& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "logtestXXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    dir_ = name;
    SetLogOrigin(&FixedOrigin);
  }
  void TearDown() override {
    SetLogOrigin(nullptr);
    fs::remove_all(dir_);
  }
  ILogOne* Open(const std::string& name) {
    ILogOne* log = LogOne_Open((L"file:" + (dir_ / name).wstring()).c_str());
    if (log != nullptr) log->SetLocation("CRegister::Register", "/src/Tolvane/Register.cpp", 42, 2);
    return log;
  }
  // What lies in a file of the test's directory, without its "Begin Time:" line.
  std::string Body(const std::string& name) {
    const std::string all = ReadFile(dir_ / name);
    EXPECT_EQ(all.substr(0, kBegin.size()), kBegin) << name;
    return all.size() < kBegin.size() ? all : all.substr(kBegin.size());
  }

  const std::string where_ = "Register.cpp:42 CRegister::Register";
  fs::path dir_;
};

TEST_F(LogTest, RecordsByteForByte) {
  ILogOne* log = Open("sub/Tolvane.log");
  ASSERT_NE(log, nullptr);
  EXPECT_FALSE(fs::exists(dir_ / "sub/Tolvane.log"));  // opened by the first write
  log->SetLevel(4);
  log->Print("id %d\n", 7);
  log->PrintAt(E_LOG_ERROR, "F", "C:\\src\\a.cpp", 1, "%s", "caf\xc3\xa9");
  log->PrintAt(E_LOG_WARNING, nullptr, "b.cpp", 2, "there");  // stays at the former location
  log->PrintAt(E_LOG_DEBUG, "G", "b.cpp", 2, "x");
  log->PrintAtW(E_LOG_DEBUG, "G", "b.cpp", 2, L"%ls", L"\u00e9\u20ac\U0001F600\xD800");
  log->PrintAtW(E_LOG_INFO, "G", "b.cpp", 2, L"%d", 5);
  log->PrintAt(4, "G", "b.cpp", 3, "four");
  log->PrintAt(-1, "G", "b.cpp", 4, "less");
  log->PrintAt(0, "G", "dir/", 4, "a file without a name");
  log->SetLocation("H", "c.cpp", 5, E_LOG_INFO);
  log->Trace(1);
  log->TraceAt("I", "d.cpp", 6, 0);
  log->TraceAt("", "d.cpp", 6, 0);
  log->TraceAt(nullptr, "d.cpp", 6, 0);
  log->Trace(0);
  EXPECT_EQ(ReadFile(dir_ / "sub/Tolvane.log"),
            kBegin + Record(where_, "Inf", "id 7\n") + Record("a.cpp:1 F", "Err", "caf\xc3\xa9") +
                Record("a.cpp:1 F", "Err", "there") + Record("b.cpp:2 G", "Dbg", "x") +
                Record("b.cpp:2 G", "", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbd") +
                Record("b.cpp:2 G", "Inf", "5") + Record("b.cpp:3 G", "", "four") +
                Record("b.cpp:4 G", "", "less") + kHead + "[c.cpp:5 H()][Enter]\r\n" + kHead +
                "[d.cpp:6 I()][Leave]\r\n" + kHead + "[c.cpp:5 H()][Leave]\r\n");
}

TEST_F(LogTest, LevelsAndMaskFilter) {
  for (int level = -1; level <= 4; ++level) {
    const std::string name = std::to_string(level) + ".log";
    ILogOne* log = Open(name);
    log->SetLevel(level);
    std::string expected;
    for (int n = 0; n <= 3; ++n) {
      static const char* const kWords[] = {"Err", "War", "Inf", "Dbg"};
      log->PrintAt(n, "F", "f.cpp", n, "m");
      if (n <= level) expected += Record("f.cpp:" + std::to_string(n) + " F", kWords[n], "m");
    }
    log->Trace(1);
    if (level >= 3) expected += kHead + "[f.cpp:3 F()][Enter]\r\n";
    EXPECT_EQ(Body(name), expected) << level;
  }
  ILogOne* log = Open("mask.log");
  log->SetOutputMask(2);
  log->Print("not without bit 0");
  log->Trace(1);
  log->PrintW(L"wide");
  log->SetOutputMask(0);
  log->PrintW(L"not without a head");
  EXPECT_EQ(Body("mask.log"), Record(where_, "Inf", "wide"));
}

// Fills the live file of a log with a limit of 1 KiB to exactly `size` bytes, with records that
// begin with `mark`.
void FillTo(ILogOne* log, const fs::path& file, std::size_t size, char mark) {
  // A "Begin Time:" line goes out with the first record behind it.
  const std::size_t now = std::max(fs::exists(file) ? fs::file_size(file) : 0, kBegin.size());
  const std::size_t frame = Record("r.cpp:1 R", "Inf", "").size();
  log->PrintAt(2, "R", "r.cpp", 1, "%s", std::string(size - now - frame, mark).c_str());
  ASSERT_EQ(fs::file_size(file), size);
}

TEST_F(LogTest, RotationIsARingOfCopies) {
  for (const int count : {1, 2, 3}) {
    const std::string name = "T" + std::to_string(count) + ".log";
    ILogOne* log = Open(name);
    log->SetMaxSize(1);
    log->SetFileCount(count);
    log->SetFileCount(0);  // refused
    for (char mark = 'a'; mark < 'a' + 4; ++mark) {
      // One byte below the limit is no reason to rotate, the limit itself is.
      FillTo(log, dir_ / name, 900, mark);
      FillTo(log, dir_ / name, 1023, mark);
      log->SetLevel(1);
      log->Print("the check comes before the level");
      EXPECT_EQ(fs::file_size(dir_ / name), 1023U);
      log->SetLevel(3);
      FillTo(log, dir_ / name, 1200, mark);
      log->SetLevel(1);
      log->Print("rotates and is not written");
      log->SetLevel(3);
      EXPECT_EQ(ReadFile(dir_ / name), "");
      const int copy = (mark - 'a') % count + 1;
      const std::string full = Body(std::to_string(copy) + "_" + name);
      EXPECT_EQ(full.size(), 1200 - kBegin.size());
      EXPECT_EQ(full.substr(full.size() - 3), std::string(1, mark) + "\r\n");
    }
    EXPECT_FALSE(fs::exists(dir_ / (std::to_string(count + 1) + "_" + name)));
    FillTo(log, dir_ / name, 1024, 'z');
    log->Print("next");
    EXPECT_EQ(Body(name), Record("r.cpp:1 R", "Inf", "next"));
  }
}

TEST_F(LogTest, AFileOverTheLimitAtTheStartRotatesAtTheSecondWrite) {
  const std::string old(2000, 'o');
  std::ofstream(dir_ / "T.log") << old;
  ILogOne* log = Open("T.log");
  log->SetMaxSize(1);
  log->Print("first");
  const std::string first = old + kBegin + Record(where_, "Inf", "first");
  EXPECT_EQ(ReadFile(dir_ / "T.log"), first);
  log->Print("second");
  EXPECT_EQ(ReadFile(dir_ / "1_T.log"), first);
  EXPECT_EQ(Body("T.log"), Record(where_, "Inf", "second"));
  log->SetMaxSize(4 * 1024 * 1024);  // 4 GiB: the largest limit, not a negative one
  log->Print("third");
  EXPECT_NE(Body("T.log").find("second"), std::string::npos);
}

TEST_F(LogTest, CopiesThatFailAndDirectoriesThatVanishCostOnlyRecords) {
  fs::create_directory(dir_ / "1_T.log");
  ILogOne* log = Open("T.log");
  log->SetMaxSize(0);
  log->Print("lost");
  testing::internal::CaptureStdout();
  log->Print("kept");
  const std::string pair = (dir_ / "T.log").string() + "] to [" + (dir_ / "1_T.log").string();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "2024-01-31 09:05:07.008 rename [" + pair + "] failed code[21]\n");
  EXPECT_EQ(Body("T.log"), Record(where_, "Inf", "kept"));
  fs::remove_all(dir_);
  testing::internal::CaptureStdout();
  log->Print("nowhere");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "2024-01-31 09:05:07.008 rename [" + pair + "] failed code[2]\n");
  fs::create_directory(dir_);
  log->Print("a failed open is not tried again");
  EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(LogTest, AFullDiskLeavesNoLatePieces) {
  ILogOne* log = Open("T.log");
  log->Print("first");
  const std::string first = Body("T.log");
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const rlimit tight{kBegin.size() + first.size() + 10, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
  log->Print("second");
  log->Print("%s", std::string(20000, 'x').c_str());
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
  log->Print("third");
  EXPECT_EQ(Body("T.log"), first + kHead.substr(0, 10) + Record(where_, "Inf", "third"));
}

TEST_F(LogTest, PauseCloseAndOpenAgain) {
  EXPECT_EQ(LogOne_Open(nullptr), nullptr);
  LogOne_Close(nullptr);
  ILogOne* log = Open("T.log");
  log->Pause();
  log->Print("dropped");
  log->Trace(1);
  EXPECT_FALSE(fs::exists(dir_ / "T.log"));  // not even opened
  log->Resume();
  log->Print("1");
  ILogOne* pointer = log;
  LogOne_Close(&pointer);
  EXPECT_EQ(pointer, log);
  log->Print("dropped");
  ILogOne* other = Open("U.log");
  EXPECT_NE(other, log);
  other->Print("other");
  EXPECT_EQ(Open("T.log"), log);
  log->Print("2");
  EXPECT_EQ(Body("T.log"), Record(where_, "Inf", "1") + Record(where_, "Inf", "2"));
  EXPECT_EQ(Body("U.log"), Record(where_, "Inf", "other"));
}

TEST_F(LogTest, LongMessagesAndHeadsAreCut) {
  constexpr std::size_t kMost = 51199;
  ILogOne* log = Open("T.log");
  log->Print("%s", std::string(kMost, 'x').c_str());
  log->Print("%s", (std::string(kMost, 'y') + "z").c_str());
  // A wide message is cut between characters.
  log->PrintW(L"%ls", std::wstring(40000, L'\u00e9').c_str());
  std::string wide;
  for (std::size_t n = 0; n < kMost / 2; ++n) wide += "\xc3\xa9";
  log->PrintAt(2, std::string(600, 'f').c_str(), "f.cpp", 1, "long head");
  const std::string head = (kHead + "[f.cpp:1 " + std::string(600, 'f')).substr(0, 259);
  EXPECT_EQ(Body("T.log"), Record(where_, "Inf", std::string(kMost, 'x')) +
                               Record(where_, "Inf", std::string(kMost, 'y')) +
                               Record(where_, "Inf", wide) + head +
                               "[Inf]\r\nContent:\r\nlong head\r\n");
}

TEST_F(LogTest, ScopesTraceWhatTheyCanSee) {
  std::atomic<ILogOne*> log{nullptr};
  const std::size_t before = failing_new::Allocations();
  { const CLogOneScope scope(&log, "Off", "s.cpp", 0); }
  EXPECT_EQ(failing_new::Allocations(), before);
  {
    const CLogOneScope scope(&log, "Opened", "s.cpp", 1);
    log = Open("T.log");
  }
  {
    const CLogOneScope scope(&log, "Closed", "s.cpp", 2);
    log = nullptr;
  }
  log = Open("T.log");
  char name[] = "Copied";
  {
    const CLogOneScope scope(&log, name, nullptr, 3);  // without a file there is no head
    const CLogOneScope inner(&log, name, "s.cpp", 4);
    name[0] = 'X';
    log.load()->Print("inside");
  }
  log.load()->Print("outside");  // at texts that outlive the scope: neither scope's copy
  const auto line = [](const char* text) { return kHead + "[s.cpp:" + text + "]\r\n"; };
  EXPECT_EQ(Body("T.log"),
            line("1 Opened()][Leave") + line("2 Closed()][Enter") + line("4 Copied()][Enter") +
                Record("s.cpp:4 Copied", "Inf", "inside") + line("4 Copied()][Leave"));
}

TEST_F(LogTest, OutOfMemoryCostsLinesOnly) {
  const std::wstring path = L"file:" + (dir_ / "T.log").wstring();
  std::atomic<ILogOne*> log{nullptr};
  for (long left = 0; log == nullptr; ++left) {
    failing_new::Limit(left);
    log = LogOne_Open(path.c_str());
    failing_new::Limit(-1);
    ASSERT_TRUE(left > 0 || log == nullptr);
  }
  static const char kLong[] = "a text that is too long to be held in place";
  for (long left = 0; left < 3; ++left) {  // the scope wants a block and two copies
    failing_new::Limit(left);
    {
      const CLogOneScope scope(&log, kLong, kLong, 1);
      failing_new::Limit(-1);
    }
  }
  failing_new::Limit(0);
  log.load()->SetLocation("F", "f.cpp", 1, 0);  // no memory for the thread's record
  log.load()->Print("lost");
  failing_new::Limit(-1);
  log.load()->PrintAt(0, "F", "f.cpp", 1, "kept");
  EXPECT_EQ(Body("T.log"), Record("f.cpp:1 F", "Err", "kept"));
}

TEST(LogPathTest, EachRule) {
  struct Row {
    const char* path;
    const char* dir;
    const char* name;
  };
  const Row rows[] = {
      {"/log/Tolvane.log", "/opt/app/log/", "Tolvane.log"},
      {"\\log\\Tolvane.log", "/opt/app/log/", "Tolvane.log"},
      {"log//./a\\T.log", "/opt/app/log/a/", "T.log"},
      {"T.log", "/opt/app/", "T.log"},
      {"/T.log", "/opt/app/", "T.log"},
      {"log/", "/opt/app/log/", ""},
      {"../T.log", "/opt/", "T.log"},
      {"../../x/T.log", "/x/", "T.log"},
      {"a/../../../../T.log", "/opt/app/Log/", "T.log"},
      {"file:/var/log/tolvane/T.log", "/var/log/tolvane/", "T.log"},
      {"C:\\log\\T.log", "/log/", "T.log"},
      {"file:///var/T.log", "/var/", "T.log"},
      {"file:log/T.log", "/log/", "T.log"},
      {"x/y:/T.log", "/", "T.log"},
      {"C:T.log", "", ""},
  };
  for (const Row& row : rows) {
    const LOG_PATH path = ResolveLogPath(row.path, "/opt/app");
    EXPECT_EQ(path.strDir, row.dir) << row.path;
    EXPECT_EQ(path.strFileName, row.name) << row.path;
  }
  EXPECT_EQ(ResolveLogPath("../T.log", "").strDir, "/Log/");
  EXPECT_EQ(GetModuleDir(), fs::read_symlink("/proc/self/exe").parent_path());
}

TEST_F(LogTest, PathsThatCannotBeUsedFallBack) {
  const fs::path module = GetModuleDir();
  std::ofstream(dir_ / "file") << "x";
  fs::create_directory(dir_ / "taken.log");
  Open("taken.log")->Print("a");
  EXPECT_EQ(Body("MyLog.log"), Record(where_, "Inf", "a"));

  fs::remove(module / "Log/MyLog.log");
  ILogOne* log = Open("file/below/T.log");
  log->Print("b");
  EXPECT_EQ(ReadFile(module / "Log/MyLog.log"), kBegin + Record(where_, "Inf", "b"));
  log = Open(std::string(5000, 'd') + "/T.log");
  log->Print("c");
  EXPECT_NE(ReadFile(module / "Log/MyLog.log").find(Record(where_, "Inf", "c")), std::string::npos);
  fs::remove_all(module / "Log");

  fs::current_path(dir_);
  fs::remove(dir_ / "MyLog.log");
  log = LogOne_Open(L"C:T.log");
  log->PrintAt(0, "F", "f.cpp", 1, "d");
  EXPECT_EQ(Body("MyLog.log"), Record("f.cpp:1 F", "Err", "d"));
}

TEST_F(LogTest, ThreadsWriteWholeRecordsAtTheirOwnPlaces) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 300;
  ILogOne* log = Open("T.log");
  log->SetMaxSize(64);
  log->SetFileCount(1000);
  static const char* const kNames[kThreads] = {"A", "B", "C", "D"};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([log, t] {
      log->Print("a thread without a place writes nothing");
      for (int n = 0; n < kRecords; ++n) {
        log->SetLocation(kNames[t], "t.cpp", n, E_LOG_INFO);
        log->Print("%s %d %s", kNames[t], n, std::string(100, 'x').c_str());
      }
    });
  }
  for (int n = 0; n < 100; ++n) {  // settings change beside them
    log->SetLevel(2 + n % 2);
    Open("T.log");
    log->SetName("name");
  }
  for (std::thread& thread : threads) thread.join();

  std::vector<std::string> bodies{Body("T.log")};
  for (int n = 1; fs::exists(dir_ / (std::to_string(n) + "_T.log")); ++n) {
    bodies.push_back(Body(std::to_string(n) + "_T.log"));
  }
  EXPECT_GT(bodies.size(), 3U);
  std::size_t total = 0;
  for (const std::string& body : bodies) total += body.size();
  for (int t = 0; t < kThreads; ++t) {
    for (int n = 0; n < kRecords; ++n) {
      const std::string place = "t.cpp:" + std::to_string(n) + " " + kNames[t];
      const std::string text = kNames[t] + (" " + std::to_string(n) + " ") + std::string(100, 'x');
      const std::string record = Record(place, "Inf", text);
      bool found = false;
      for (const std::string& body : bodies) found |= body.find(record) != std::string::npos;
      EXPECT_TRUE(found) << place;
      total -= record.size();
    }
  }
  EXPECT_EQ(total, 0U);  // and nothing else
}

TEST(LogThreadsTest, RecordsOfEndedThreadsGoAndAreNotInherited) {
  CLogThreads records;
  LOG_THREAD_RECORD* mine = records.Find();
  mine->szFunction = "mine";
  for (std::size_t n = 0; n < 10 * CLogThreads::MIN_SWEEP; ++n) {
    std::thread([&records] {
      LOG_THREAD_RECORD* record = records.Find();
      EXPECT_EQ(record->szFunction, nullptr);
      EXPECT_EQ(record->nLevel, E_LOG_INFO);
      record->szFunction = "ended";
    }).join();
    ASSERT_LE(records.Count(), CLogThreads::MIN_SWEEP + 1);
  }
  EXPECT_EQ(records.Find(), mine);
  EXPECT_STREQ(mine->szFunction, "mine");
}

}  // namespace
