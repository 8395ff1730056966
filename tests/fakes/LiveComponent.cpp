#include "LiveComponent.h"

#include <gtest/gtest.h>

#include "Brunelib/Brunelib.h"
#include "Brunelib/identities.h"
#include "RegisterProcess.h"
#include "RegisterSipProcess.h"
#include "VorelKDCore/VorelKDCore.h"

namespace fakes {

namespace {

int OnNotification(const char*, int id, CXML* document, void*) noexcept {
  ++LiveComponent::heard[static_cast<std::size_t>(id - 0x1000)];
  if (id == 0x1000) {
    // Without memory of its own: this runs while memory runs out.
    document->ResetPos();
    const bool good = document->FindElem("reg") != 0 && document->FindChildElem("uri") != 0;
    ++(good ? LiveComponent::succeeded : LiveComponent::failed);
    if (!good) return 0;
  }
  document->ResetPos();
  if (document->FindElem("reg") != 0 && document->IntoElem() != 0 && document->FindElem("id") != 0) {
    ++LiveComponent::told.at(std::stoul(document->GetData()))[static_cast<std::size_t>(id - 0x1000)];
  }
  return 0;
}

// Runs the call, with word of its begin and end.
template <typename Call>
int Inside(Call call) {
  if (LiveComponent::on_call != nullptr) LiveComponent::on_call(true);
  const int result = call();
  if (LiveComponent::on_call != nullptr) LiveComponent::on_call(false);
  return result;
}

int Send(int id, CXML& in, CXML& out) {
  return Inside([&] { return TOLVANE_XSCCmdCallBack(id, &in, &out); });
}

constexpr int kNotifications[] = {0x1000, 0x1001, 0x1002, 0x1003};

}  // namespace

LiveComponent::LiveComponent(std::chrono::milliseconds t1) {
  succeeded = failed = 0;
  for (auto& count : heard) count = 0;
  for (auto& registration : told) {
    for (auto& count : registration) count = 0;
  }
  sipcarrier::Config config;
  config.local_address = "127.0.0.1";
  config.t1 = t1;
  config.t2 = 8 * t1;
  config.t4 = t1;
  if (on_trace != nullptr) config.trace = on_trace;
  std::string error;
  EXPECT_EQ(sipcarrier::Start(config, error), 0) << error;
  for (const int id : kNotifications) XSSubNotify(bus::registration::kIdentity, id, OnNotification);
  EXPECT_EQ(TOLVANE_XSCInitialize(nullptr), 0);
}

LiveComponent::~LiveComponent() {
  EXPECT_EQ(TOLVANE_XSCUninitialize(), 0);
  sipcarrier::Stop(std::chrono::seconds(5));
  for (const int id : kNotifications) XSUnsubNotify(bus::registration::kIdentity, id, OnNotification);
  brunelib::Shutdown(std::chrono::seconds(5));
}

int LiveComponent::Register(const std::string& registrar, int expires, bool reregister) {
  return Register(
      "<reg><aor>sip:alice@example.com</aor><registrar>" + registrar + "</registrar><expires>" +
      std::to_string(expires) + "</expires><auto-refresh>true</auto-refresh>" +
      (reregister ? "<auto-reregister>true</auto-reregister><reregister-interval>1</reregister-interval>" : "") +
      "</reg>");
}

int LiveComponent::Register(const std::string& document) {
  CXML in;
  in.SetDoc(document);
  CXML out;
  if (Send(3, in, out) != 0) return -1;
  out.ResetPos();
  out.FindElem("reg");
  out.IntoElem();
  return out.FindElem("id") != 0 ? std::stoi(out.GetData()) : -1;
}

int LiveComponent::Command(int id, const std::string& document) {
  CXML in;
  in.SetDoc(document);
  CXML out;
  return Send(id, in, out);
}

int LiveComponent::Deregister(int id, bool no_send) {
  return Command(4, "<reg><id>" + std::to_string(id) + "</id><nosend>" + (no_send ? "1" : "0") + "</nosend></reg>");
}

void LiveComponent::PumpFor(std::chrono::milliseconds time) {
  Inside([time] {
    const auto end = std::chrono::steady_clock::now() + time;
    do {
      kdWaitEvent(std::chrono::nanoseconds(time).count());
    } while (std::chrono::steady_clock::now() < end);
    return 0;
  });
}

}  // namespace fakes
