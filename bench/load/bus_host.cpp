#include "load/bus_host.h"

#include <atomic>
#include <charconv>

#include "Brunelib/Brunelib.h"
#include "Domletlib/Domletlib.h"

namespace bench {
namespace {

constexpr char kComponent[] = "{8836E13D-A307-43DF-8C88-B7783DC728BF}";
constexpr char kService[] = "{C560987C-AD84-40B7-8D17-84583CC090ED}";
constexpr int kCommandRegister = 3;
constexpr int kCommandDeregister = 4;
constexpr int kCommandLogSwitch = 0x10004;
constexpr int kNotifications[] = {kNotifyOutcome, kNotifyDeregistered, kNotifyState,
                                  kNotifyServiceLost};

std::atomic<NoticeSink*> g_sink{nullptr};

int Value(CXML& reg, const char* name, int otherwise) {
  reg.ResetMainPos();
  if (reg.FindElem(name) == 0) return otherwise;
  const std::string text = reg.GetData();
  std::from_chars(text.data(), text.data() + text.size(), otherwise);
  return otherwise;
}

bool Enter(CXML& document) {
  document.ResetPos();
  return document.FindElem("reg") != 0 && document.IntoElem() != 0;
}

int OnNotification(const char* /*source*/, int id, CXML* document, void* /*extra*/) {
  NoticeSink* const sink = g_sink.load();
  if (sink == nullptr || document == nullptr) return -1;
  Notice notice;
  notice.id = id;
  if (Enter(*document)) {
    notice.registration = Value(*document, "id", -1);
    if (id == kNotifyOutcome) {
      notice.result = Value(*document, "result", 0);
      if (notice.result != 0) notice.error_code = Value(*document, "errorcode", 0);
    } else if (id == kNotifyState) {
      document->ResetMainPos();
      notice.active = document->FindElem("state") != 0 && document->GetData() == "Active";
    }
  }
  sink->OnNotice(notice);
  return 0;
}

}  // namespace

BusHost::BusHost(NoticeSink& sink) { g_sink = &sink; }

BusHost::~BusHost() {
  Stop(std::chrono::seconds(1));
  g_sink = nullptr;
}

bool BusHost::Start(const BusSetup& setup, std::string& error) {
  if (sipcarrier::Start(setup.stack, error) != 0) return false;
  stack_runs_ = true;
  if (setup.subscriptions) {
    if (brunelib::LoadComponent("TolvaneSubscription", "SUBSCRIPTION_XSC", error).empty()) {
      return false;
    }
    service_loaded_ = true;
  }
  if (brunelib::LoadComponent("Tolvane", "TOLVANE_XSC", error).empty()) return false;
  component_loaded_ = true;
  for (const int id : kNotifications) {
    if (XSSubNotify(kComponent, id, OnNotification) != XS_OK) {
      error = "the bus takes no subscriber";
      return false;
    }
  }
  return setup.log_dir.empty() || SwitchLogOn(setup, error);
}

bool BusHost::SwitchLogOn(const BusSetup& setup, std::string& error) {
  const std::string document = "<log><log-switch path=\"file:" + CXML::Escape(setup.log_dir) +
                               "\" max-size=\"" + std::to_string(setup.log_size_mib) +
                               "\" level=\"" + std::to_string(setup.log_level) +
                               "\">TRUE</log-switch></log>";
  for (const char* const target : {kComponent, kService}) {
    if (target == kService && !service_loaded_) continue;
    CXML in;
    CXML out;
    in.SetDoc(std::string_view(document));
    if (XSExecuteCommand(target, kCommandLogSwitch, &in, &out) != 0) {
      error = "the log switch was refused";
      return false;
    }
  }
  return true;
}

int BusHost::Register(const std::string& document) {
  CXML in;
  CXML out;
  in.SetDoc(std::string_view(document));
  if (XSExecuteCommand(kComponent, kCommandRegister, &in, &out) != 0) return -1;
  return Enter(out) ? Value(out, "id", -1) : -1;
}

int BusHost::Deregister(int registration, bool no_send) {
  CXML in;
  CXML out;
  in.SetDoc("<reg><id>" + std::to_string(registration) + "</id>" +
            (no_send ? "<nosend>1</nosend>" : "") + "</reg>");
  return XSExecuteCommand(kComponent, kCommandDeregister, &in, &out);
}

void BusHost::Stop(std::chrono::milliseconds deadline) {
  if (service_loaded_) brunelib::UnloadComponent(kService, deadline);
  if (component_loaded_) brunelib::UnloadComponent(kComponent, deadline);
  if (stack_runs_) {
    for (const int id : kNotifications) XSUnsubNotify(kComponent, id, OnNotification);
    sipcarrier::Stop(deadline);
    brunelib::Shutdown(deadline);
  }
  service_loaded_ = component_loaded_ = stack_runs_ = false;
}

std::string RegisterDocument(const RegisterCommand& command) {
  std::string document = "<reg><aor>";
  document.append(command.aor).append("</aor><registrar>").append(command.registrar);
  document.append("</registrar><expires>").append(std::to_string(command.expires));
  document += "</expires><auto-refresh>true</auto-refresh>";
  if (command.subscribe) document += "<subscribe>true</subscribe>";
  if (command.reregister) {
    document += "<auto-reregister>true</auto-reregister><reregister-interval>" +
                std::to_string(command.reregister_interval) + "</reregister-interval>";
  }
  return document + "</reg>";
}

bool SplitEndpoint(const std::string& text, std::string& address, std::uint16_t& port) {
  const auto colon = text.rfind(':');
  address = text.substr(0, colon);
  port = 0;
  if (colon == std::string::npos) return true;
  const char* const end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data() + colon + 1, end, port);
  return error == std::errc() && at == end;
}

}  // namespace bench
