#include <new>

#include "failing_new.h"
#include "sipconf_support.h"

namespace {

// Each allocation of reading and filling fails once, alone and with all that follow.
TEST_F(ConfFixture, EveryAllocationMayFailAndTheFormerTemplatesStay) {
  const std::map<std::string, std::string> cells = {{"a-key-of-some-length", "a value that is no short one"}};
  const std::string former = "X-Former: a value that is no short one\n";
  const auto file = [](const std::string& name) {
    return File("<header name='" + name + "'>${a-key-of-some-length}</header>");
  };
  const std::string faulty = File("<header name='Via'>a</header><unknown-element-name/>");
  for (const bool good : {true, false}) {
    long failures = 0;
    for (const long more : {0L, 1L << 30}) {
      bool done = false;
      for (long n = 1; !done && n < 2000; ++n) {
        ASSERT_EQ(Read(file("X-Former")), 0);
        Write(good ? file("X-New") : faulty);
        ASSERT_EQ(Get("none"), "null");  // lets this thread's template go
        failing_new::TakePart(true);
        failing_new::Fail(n, n + more);
        const int result = conf.ReadConfFromFile();
        done = failing_new::Fail(0, 0) < n;
        failing_new::TakePart(false);
        failures += result != 0 ? 1 : 0;
        ASSERT_EQ(result == 0, good && done) << n;
        EXPECT_TRUE(result != 0 || conf.Faults().empty());
        conf.SetTransferCell(cells);
        EXPECT_EQ(Get(), result == 0 ? "X-New: a value that is no short one\n" : former) << n;
      }
      EXPECT_TRUE(done);
    }
    EXPECT_GT(failures, 20);
  }
  ASSERT_EQ(Read(file("X-Former")), 0);
  Get("none");
  const long alive = failing_new::Alive();
  long limit = 0;
  for (bool done = false; !done && limit < 100; ++limit) {
    conf.SetTransferCell(cells);
    failing_new::Limit(limit);
    try {
      done = conf.GetSipMsg("REG", "REGISTER", nullptr) != nullptr;
    } catch (const std::bad_alloc&) {
    }
    failing_new::Limit(-1);
  }
  EXPECT_TRUE(limit > 4 && limit < 100) << limit;
  Get("none");
  EXPECT_EQ(failing_new::Alive(), alive);
}

}  // namespace
