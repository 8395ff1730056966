#include "host/bus_client.h"

#include <atomic>
#include <charconv>
#include <new>

#include "Brunelib/Brunelib.h"
#include "Domletlib/Domletlib.h"

namespace host {
namespace {

constexpr int kNotifications[] = {reg::kNotifyOutcome, reg::kNotifyDeregistered, reg::kNotifyState,
                                  reg::kNotifyServiceLost};

// The bus calls a plain function, which finds the inbox here.
std::atomic<Inbox*> g_inbox{nullptr};

int OnNotification(const char* source, int id, CXML* document, void* /*extra*/) {
  Inbox* const inbox = g_inbox.load();
  if (inbox == nullptr) return -1;
  try {
    inbox->Push(NotificationItem{id, source == nullptr ? "" : source,
                                 document == nullptr ? std::string() : document->GetDoc()});
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return 0;
}

int Number(const std::string& text, int otherwise) {
  int value = otherwise;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

// The text of the child elements of the one root "reg".
class RegDocument {
 public:
  explicit RegDocument(const std::string& text) {
    if (document_.SetDoc(std::string_view(text)) == 0) return;
    document_.ResetPos();
    readable_ = document_.FindElem("reg") != 0 && document_.IntoElem() != 0;
  }
  [[nodiscard]] bool Has(const char* name) {
    if (!readable_) return false;
    document_.ResetMainPos();
    return document_.FindElem(name) != 0;
  }
  [[nodiscard]] std::string Text(const char* name) {
    return Has(name) ? document_.GetData() : std::string();
  }
  [[nodiscard]] int Value(const char* name, int otherwise) { return Number(Text(name), otherwise); }

 private:
  CXML document_;
  bool readable_ = false;
};

Answer Execute(int command, CXML& in, const char* target = reg::kIdentity) {
  Answer answer;
  answer.command = command;
  CXML out;
  answer.result = XSExecuteCommand(target, command, &in, &out);
  answer.document = out.GetDoc();
  return answer;
}

const char* Truth(bool value) { return value ? "true" : "false"; }

bool LoadPlugIn(const char* name, const char* prefix, const char* identity, std::string& error) {
  const std::string found = brunelib::LoadComponent(name, prefix, error);
  if (found.empty()) return false;
  if (found == identity) return true;
  error = "the plug-in calls itself " + found + " instead of " + identity +
          "; is it the right lib" + name + ".so?";
  brunelib::UnloadComponent(found, std::chrono::seconds(1));
  return false;
}

}  // namespace

Notice ReadNotice(int id, const std::string& document) {
  RegDocument reg(document);
  Notice notice;
  notice.id = id;
  notice.registration = reg.Value("id", -1);
  notice.result = reg.Value("result", 0);
  notice.error_code = reg.Value("errorcode", 0);
  notice.warn_code = reg.Value("warncode", 0);
  notice.warn_text = reg.Text("warntext");
  notice.uri = reg.Text("uri");
  // A notification because of a response has this element, which may be empty.
  notice.by_view = id == reg::kNotifyDeregistered && !reg.Has("uri");
  notice.retry_after = reg.Value("retry-after", 0);
  notice.state = reg.Text("state");
  notice.event = reg.Text("event");
  return notice;
}

int ReadRegistrationId(const Answer& answer) {
  return RegDocument(answer.document).Value("id", -1);
}

BusClient::BusClient(Inbox& inbox) : inbox_(inbox) { g_inbox.store(&inbox); }

BusClient::~BusClient() {
  UnloadSubscriptions(std::chrono::seconds(1));
  UnloadComponent(std::chrono::seconds(1));
  g_inbox.store(nullptr);
}

bool BusClient::Load(bool with_subscriptions, std::string& error) {
  subscriptions_loaded_ =
      with_subscriptions &&
      LoadPlugIn("TolvaneSubscription", "SUBSCRIPTION_XSC", sub::kIdentity, error);
  if (subscriptions_loaded_ != with_subscriptions) return false;
  loaded_ = LoadPlugIn("Tolvane", "TOLVANE_XSC", reg::kIdentity, error);
  if (!loaded_) return false;
  if (subscriptions_loaded_ &&
      XSSubNotify(sub::kIdentity, sub::kNotifyLife, OnNotification) != XS_OK) {
    error = "the bus has no memory left for a subscription";
    return false;
  }
  for (const int id : kNotifications) {
    if (XSSubNotify(reg::kIdentity, id, OnNotification) != XS_OK) {
      error = "the bus has no memory left for a subscription";
      return false;
    }
  }
  return true;
}

Answer BusClient::SwitchLogOn(const LogOptions& log) {
  std::string document = "<log><log-switch";
  const auto add = [&document](const char* name, const std::string& value) {
    document.append(" ").append(name).append("=\"").append(CXML::Escape(value)).append("\"");
  };
  add("path", "file:" + log.directory);
  if (log.max_size) add("max-size", std::to_string(*log.max_size));
  if (log.files) add("file-count", std::to_string(*log.files));
  if (log.level) add("level", std::to_string(*log.level));
  document += ">TRUE</log-switch></log>";
  const auto execute = [&document](const char* target) {
    CXML in;
    in.SetDoc(std::string_view(document));
    return Execute(reg::kCommandLogSwitch, in, target);
  };
  Answer answer = execute(reg::kIdentity);
  if (answer.result == 0 && subscriptions_loaded_) {
    answer.result = execute(sub::kIdentity).result;
  }
  return answer;
}

Answer BusClient::SetWorkDir(const std::string& directory) {
  CXML in;
  in.AddElem("system-settings", nullptr, 0);
  in.AddChildElem("work-dir", directory.c_str(), 0);
  return Execute(reg::kCommandSettings, in);
}

Answer BusClient::ReadConfig() {
  CXML in;
  return Execute(reg::kCommandReadConfig, in);
}

Answer BusClient::Register(const RegisterOptions& options) {
  CXML in;
  in.AddElem("reg", nullptr, 0);
  in.AddChildElem("aor", options.aor.c_str(), 0);
  in.AddChildElem("registrar", options.registrar.c_str(), 0);
  in.AddChildElem("expires", options.expires, 0);
  if (!options.display_name.empty()) {
    in.AddChildElem("displayname", options.display_name.c_str(), 0);
  }
  in.AddChildElem("auto-refresh", Truth(options.auto_refresh), 0);
  in.AddChildElem("subscribe", Truth(options.subscribe), 0);
  in.AddChildElem("auto-reregister", Truth(options.auto_reregister), 0);
  if (options.auto_reregister) {
    in.AddChildElem("reregister-interval", options.reregister_interval, 0);
  }
  if (!options.user_agent.empty()) in.AddChildElem("user-agent", options.user_agent.c_str(), 0);
  return Execute(reg::kCommandRegister, in);
}

Answer BusClient::RegisterAgain(int registration) {
  CXML in;
  in.AddElem("reg", nullptr, 0);
  in.AddChildElem("id", registration, 0);
  return Execute(reg::kCommandRegister, in);
}

Answer BusClient::Deregister(int registration) {
  CXML in;
  in.AddElem("reg", nullptr, 0);
  in.AddChildElem("id", registration, 0);
  return Execute(reg::kCommandDeregister, in);
}

void BusClient::UnloadComponent(std::chrono::milliseconds deadline) {
  if (!loaded_) return;
  loaded_ = false;
  brunelib::UnloadComponent(reg::kIdentity, deadline);
  for (const int id : kNotifications) XSUnsubNotify(reg::kIdentity, id, OnNotification);
}

void BusClient::UnloadSubscriptions(std::chrono::milliseconds deadline) {
  if (!subscriptions_loaded_) return;
  subscriptions_loaded_ = false;
  brunelib::UnloadComponent(sub::kIdentity, deadline);
  XSUnsubNotify(sub::kIdentity, sub::kNotifyLife, OnNotification);
}

}  // namespace host
