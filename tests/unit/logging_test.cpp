// The rolling log, through its face; file names and thread records also by themselves.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
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
#include "logging/LogThreads.h"

namespace {

namespace fs = std::filesystem;

const std::string kStamp = "2024-01-31 09:05:07.008";
const std::string kBegin = "Begin Time:" + kStamp + "\r\n";
const std::string kHead = "[" + kStamp + "][P:4711/T:99]";

std::string Record(const std::string& text, const char* word = "Inf",
                   const std::string& place = "f.cpp:1 F") {
  return kHead + "[" + place + "()][" + word + "]\r\nContent:\r\n" + text + "\r\n";
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

class LogTest : public testing::Test {
 protected:
  LogTest() {
    std::string name = testing::TempDir() + "/logXXXXXX";
    dir_ = mkdtemp(name.data());
    SetLogOrigin([](LOG_ORIGIN& stOrigin) { stOrigin = {2024, 1, 31, 9, 5, 7, 8, 4711, 99}; });
  }
  ~LogTest() override { fs::remove_all(dir_); }
  std::wstring Path(const std::string& name) { return L"file:" + (dir_ / name).wstring(); }
  ILogOne* Open(const std::string& name) {
    ILogOne* log = LogOne_Open(Path(name).c_str());
    log->SetLocation("F", "/src/f.cpp", 1, E_LOG_INFO);
    return log;
  }
  // What lies in a file of the test's directory behind its "Begin Time:" line.
  std::string Body(const std::string& name) {
    const std::string all = ReadFile(dir_ / name);
    EXPECT_EQ(all.substr(0, kBegin.size()), kBegin) << name;
    return all.size() < kBegin.size() ? all : all.substr(kBegin.size());
  }
  fs::path dir_;
};

TEST_F(LogTest, RecordsByteForByte) {
  ILogOne* log = Open("sub/Tolvane.log");
  EXPECT_FALSE(fs::exists(dir_ / "sub/Tolvane.log"));  // opened by the first write
  log->SetLevel(4);
  log->Print("id %d\n", 7);
  log->PrintAt(E_LOG_ERROR, "A::B", "C:\\src\\a.cpp", 1, "%s", "caf\xc3\xa9");
  log->PrintAt(E_LOG_WARNING, nullptr, "b.cpp", 2, "there");  // stays at the former location
  log->PrintAtW(E_LOG_DEBUG, "G", "b.cpp", 2, L"%ls", L"\u00e9\u20ac\U0001F600\xD800");
  log->PrintAtW(E_LOG_INFO, "G", "b.cpp", 2, L"%d", 5);
  log->PrintAt(4, "G", "b.cpp", 3, "four");
  log->PrintAt(0, "G", "dir/", 4, "a file without a name");
  log->SetLocation("H", "c.cpp", 5, E_LOG_INFO);
  log->TraceAt("I", "d.cpp", 6, 1);
  log->TraceAt("", "d.cpp", 6, 0);
  log->TraceAt(nullptr, "d.cpp", 6, 0);
  log->Trace(0);
  EXPECT_EQ(ReadFile(dir_ / "sub/Tolvane.log"),
            kBegin + Record("id 7\n") + Record("caf\xc3\xa9", "Err", "a.cpp:1 A::B") +
                Record("there", "Err", "a.cpp:1 A::B") +
                Record("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbd", "", "b.cpp:2 G") +
                Record("5", "Inf", "b.cpp:2 G") + Record("four", "", "b.cpp:3 G") + kHead +
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
  log->SetOutputMask(2);
  log->Print("not without bit 0");
  log->Trace(1);
  log->PrintW(L"wide");
  log->SetOutputMask(0);
  log->PrintW(L"not without a head");
  EXPECT_EQ(Body("mask"), Record("wide"));
}

TEST_F(LogTest, RotationIsARingOfCopies) {
  for (const int count : {1, 2, 3}) {
    const std::string name = "T" + std::to_string(count) + ".log";
    ILogOne* log = Open(name);
    log->SetMaxSize(1);
    log->SetFileCount(count);
    log->SetFileCount(0);  // refused
    const auto fill_to = [&](std::size_t size, char mark) {
      // A "Begin Time:" line goes out with the first record behind it.
      const fs::path file = dir_ / name;
      const std::size_t now = std::max(fs::exists(file) ? fs::file_size(file) : 0, kBegin.size());
      log->Print("%s", std::string(size - now - Record("").size(), mark).c_str());
      EXPECT_EQ(fs::file_size(file), size);
    };
    for (int n = 0; n < 4; ++n) {
      const char mark = static_cast<char>('a' + n);
      fill_to(1023, '-');  // one byte below the limit is no reason to rotate
      fill_to(1200, mark);
      log->SetLevel(1);
      log->Print("rotates and is not written");
      log->SetLevel(3);
      EXPECT_EQ(ReadFile(dir_ / name), "");
      const std::string full = ReadFile(dir_ / (std::to_string(n % count + 1) + "_" + name));
      EXPECT_NE(full.find(std::string(3, mark)), std::string::npos);
    }
    EXPECT_FALSE(fs::exists(dir_ / (std::to_string(count + 1) + "_" + name)));
    fill_to(1024, 'z');  // the limit itself is one
    log->Print("next");
    EXPECT_EQ(Body(name), Record("next"));
  }
}

TEST_F(LogTest, AFileOverTheLimitAtTheStartRotatesAtTheSecondWrite) {
  const std::string old(2000, 'o');
  std::ofstream(dir_ / "T.log") << old;
  ILogOne* log = Open("T.log");
  log->SetMaxSize(1);
  log->Print("first");
  log->Print("second");
  EXPECT_EQ(ReadFile(dir_ / "1_T.log"), old + kBegin + Record("first"));
  log->SetMaxSize(4 * 1024 * 1024);  // 4 GiB: the largest limit, not a negative one
  log->Print("third");
  EXPECT_EQ(Body("T.log"), Record("second") + Record("third"));
}

TEST_F(LogTest, FailedCopiesAndVanishedDirectoriesCostOnlyRecords) {
  fs::create_directory(dir_ / "1_T.log");
  ILogOne* log = Open("T.log");
  log->SetMaxSize(0);
  const auto print = [log](const char* text) {
    testing::internal::CaptureStdout();
    log->Print("%s", text);
    return testing::internal::GetCapturedStdout();
  };
  const std::string message = kStamp + " rename [" + (dir_ / "T.log").string() + "] to [" +
                              (dir_ / "1_T.log").string() + "] failed code[";
  EXPECT_EQ(print("lost"), "");
  EXPECT_EQ(print("kept"), message + "21]\n");
  EXPECT_EQ(Body("T.log"), Record("kept"));
  fs::remove_all(dir_);
  EXPECT_EQ(print("nowhere"), message + "2]\n");
  fs::create_directory(dir_);
  EXPECT_EQ(print("a failed open is not tried again"), "");
  EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(LogTest, AFullDiskLeavesNoLatePieces) {
  ILogOne* log = Open("T.log");
  log->Print("first");
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const rlimit tight{fs::file_size(dir_ / "T.log") + 10, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
  log->Print("second");
  log->Print("%s", std::string(20000, 'x').c_str());
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
  log->Print("third");
  EXPECT_EQ(Body("T.log"), Record("first") + kHead.substr(0, 10) + Record("third"));
}

TEST_F(LogTest, PauseCloseAndOpenAgain) {
  EXPECT_EQ(LogOne_Open(nullptr), nullptr);
  ILogOne* log = Open("T.log");
  log->Pause();
  log->Print("dropped");
  EXPECT_FALSE(fs::exists(dir_ / "T.log"));  // not even opened
  log->Resume();
  log->Print("1");
  ILogOne* pointer = log;
  LogOne_Close(&pointer);
  EXPECT_EQ(pointer, log);
  log->Print("dropped");
  Open("U.log")->Print("other");
  EXPECT_EQ(Open("T.log"), log);
  log->Print("2");
  EXPECT_EQ(Body("T.log"), Record("1") + Record("2"));
  EXPECT_EQ(Body("U.log"), Record("other"));
}

TEST_F(LogTest, LongMessagesAndHeadsAreCut) {
  constexpr std::size_t kMost = 51199;
  ILogOne* log = Open("T.log");
  log->Print("%s", std::string(kMost, 'x').c_str());
  log->Print("%s", (std::string(kMost, 'y') + "z").c_str());
  log->PrintW(L"%ls", std::wstring(40000, L'\u00e9').c_str());  // cut between characters
  std::string wide;
  for (std::size_t n = 0; n < kMost / 2; ++n) wide += "\xc3\xa9";
  log->PrintAt(2, std::string(600, 'f').c_str(), "f.cpp", 1, "long head");
  const std::string head = (kHead + "[f.cpp:1 " + std::string(600, 'f')).substr(0, 259);
  EXPECT_EQ(Body("T.log"), Record(std::string(kMost, 'x')) + Record(std::string(kMost, 'y')) +
                               Record(wide) + head + "[Inf]\r\nContent:\r\nlong head\r\n");
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
  {
    char name[] = "Copied";
    const CLogOneScope scope(&log, name, "s.cpp", 3);
    const CLogOneScope unnamed(&log, nullptr, nullptr, 4);  // without a file there is no head
    name[0] = 'X';
  }
  const auto line = [](const char* text) { return kHead + "[s.cpp:" + text + "]\r\n"; };
  EXPECT_EQ(Body("T.log"), line("1 Opened()][Leave") + line("2 Closed()][Enter") +
                               line("3 Copied()][Enter") + line("3 Copied()][Leave"));
}

TEST_F(LogTest, OutOfMemoryCostsLinesOnly) {
  const std::wstring path = Path("T.log");
  std::atomic<ILogOne*> log{nullptr};
  for (long left = 0; log == nullptr; ++left) {
    failing_new::Limit(left);
    log = LogOne_Open(path.c_str());
    failing_new::Limit(-1);
    ASSERT_TRUE(left > 0 || log == nullptr);
  }
  for (long left = 0; left < 3; ++left) {  // a scope wants a block and two copies
    static const char kLong[] = "a text that is too long to be held in place";
    failing_new::Limit(left);
    const CLogOneScope scope(&log, kLong, kLong, 1);
    failing_new::Limit(-1);
  }
  failing_new::Limit(0);
  log.load()->PrintAt(0, "F", "f.cpp", 1, "no memory for the thread's record");
  failing_new::Limit(-1);
  log.load()->PrintAt(0, "F", "f.cpp", 1, "kept");
  EXPECT_EQ(Body("T.log"), Record("kept", "Err"));
}

TEST_F(LogTest, PathsFollowTheirRules) {
  static const char* const kRows[][3] = {
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
      {"C:T.log", "", ""},
  };
  for (const auto& row : kRows) {
    const LOG_PATH path = ResolveLogPath(row[0], "/opt/app");
    EXPECT_EQ(path.strDir, row[1]) << row[0];
    EXPECT_EQ(path.strFileName, row[2]) << row[0];
  }
  EXPECT_EQ(ResolveLogPath("../T.log", "").strDir, "/Log/");
}

TEST_F(LogTest, PathsThatCannotBeUsedFallBack) {
  const fs::path module = fs::read_symlink("/proc/self/exe").parent_path();
  fs::create_directory(dir_ / "taken.log");
  Open("taken.log")->Print("a");
  EXPECT_EQ(Body("MyLog.log"), Record("a"));

  std::ofstream(dir_ / "file") << "x";
  fs::remove(module / "Log/MyLog.log");
  Open("file/below/T.log")->Print("b");
  Open(std::string(5000, 'd') + "/T.log")->Print("c");
  EXPECT_EQ(ReadFile(module / "Log/MyLog.log"), kBegin + Record("b") + kBegin + Record("c"));
  fs::remove_all(module / "Log");

  fs::current_path(dir_);
  fs::remove(dir_ / "MyLog.log");
  LogOne_Open(L"C:T.log")->PrintAt(0, "F", "f.cpp", 1, "d");
  EXPECT_EQ(Body("MyLog.log"), Record("d", "Err"));
}

TEST_F(LogTest, ThreadsWriteWholeRecordsAtTheirOwnPlaces) {
  ILogOne* log = Open("T.log");
  log->SetMaxSize(64);
  log->SetFileCount(1000);
  static const char* const kNames[] = {"A", "B", "C", "D"};
  const std::string text(100, 'x');
  std::vector<std::thread> threads(4);
  for (std::size_t t = 0; t < threads.size(); ++t) {
    threads[t] = std::thread([&, name = kNames[t]] {
      log->Print("a thread without a place writes nothing");
      for (int n = 0; n < 300; ++n) {
        log->SetLocation(name, "t.cpp", n, E_LOG_INFO);
        log->Print("%s %d %s", name, n, text.c_str());
      }
    });
  }
  for (int n = 0; n < 100; ++n) {  // settings change beside them
    Open("T.log")->SetLevel(2 + n % 2);
    log->SetName("name");
  }
  for (std::thread& thread : threads) thread.join();

  std::string all;
  for (const auto& entry : fs::directory_iterator(dir_)) all += Body(entry.path().filename());
  EXPECT_TRUE(fs::exists(dir_ / "2_T.log"));
  std::size_t expected = 0;
  for (int n = 0; n < 4 * 300; ++n) {
    std::string place = "t.cpp:" + std::to_string(n % 300);
    place.append(" ").append(kNames[n / 300]);
    std::string message = kNames[n / 300];
    message.append(" ").append(std::to_string(n % 300)).append(" ").append(text);
    const std::string record = Record(message, "Inf", place);
    EXPECT_NE(all.find(record), std::string::npos) << record;
    expected += record.size();
  }
  EXPECT_EQ(all.size(), expected);  // and nothing else
}

TEST(LogThreadsTest, RecordsOfEndedThreadsGoAndAreNotInherited) {
  CLogThreads records;
  LOG_THREAD_RECORD* mine = records.Find();
  for (std::size_t n = 0; n < 10 * CLogThreads::MIN_SWEEP; ++n) {
    std::thread([&records] {
      LOG_THREAD_RECORD* record = records.Find();
      EXPECT_EQ(record->nLevel, E_LOG_INFO);
    }).join();
    ASSERT_LE(records.Count(), CLogThreads::MIN_SWEEP + 1);
  }
  EXPECT_EQ(records.Find(), mine);
  // An id of the system that comes back does not bring the location of its former thread.
  records.Find(1, 1000)->szFunction = "ended";
  EXPECT_STREQ(records.Find(1, 1000)->szFunction, "ended");
  EXPECT_EQ(records.Find(1, 1001)->szFunction, nullptr);
}

}  // namespace
