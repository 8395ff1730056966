// The end of a registration's object by itself, with the real queues of threads.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "RegisterEnd.h"
#include "VorelKDCore/VorelKDCore.h"

namespace {

constexpr KDint kHold = 0x40000001;
constexpr KDint kDone = 0x40000002;

int g_freed = 0;
std::promise<void>* g_inside = nullptr;
std::future<void>* g_go_on = nullptr;

void Post(KDint type, void* userptr, KDThread* thread) {
  KDEvent* const event = kdCreateEvent();
  event->type = type;
  event->userptr = userptr;
  ASSERT_EQ(kdPostThreadEvent(event, thread), 0);
}

// A callback that has given its hold back and is about to return keeps the object for so long, and
// a later sweep frees it although the thread lives on.
TEST(RegisterEnd, ACallbackAboutToReturnKeepsTheObjectAndASweepFreesIt) {
  int object = 0;
  CRegisterEnd end([](CRegister* pRegister) { g_freed += pRegister != nullptr ? 1 : 0; });
  CRegisterEnd::CNode node(end, reinterpret_cast<CRegister*>(&object));
  g_freed = 0;

  std::promise<KDThread*> started;
  std::promise<void> inside;
  std::promise<void> go_on;
  std::future<void> going_on = go_on.get_future();
  g_inside = &inside;
  g_go_on = &going_on;
  std::thread thread([&] {
    kdInstallCallback(
        [](const KDEvent*) {
          g_inside->set_value();
          g_go_on->wait();
        },
        kHold, &object);
    started.set_value(kdThreadSelf());
    while (kdWaitEvent(-1)->type != kDone) {
    }
    kdWaitEvent(-1);
  });
  KDThread* const handle = started.get_future().get();
  CRegisterEnd::RememberThread(node, handle);
  Post(kHold, &object, handle);
  inside.get_future().wait();
  end.Retire(node);
  end.Sweep();
  EXPECT_EQ(g_freed, 0);
  go_on.set_value();
  Post(kDone, nullptr, handle);
  while (kdForgetUserPtr(handle, &object) != 0) std::this_thread::yield();
  end.Sweep();
  EXPECT_EQ(g_freed, 1);
  end.FreeAll();
  EXPECT_EQ(g_freed, 1);
  Post(kDone, nullptr, handle);
  thread.join();
}

}  // namespace
