#include "service.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <new>
#include <utility>
#include <vector>

#include "base/text.h"
#include "Brunelib/Brunelib.h"
#include "Brunelib/identities.h"
#include "logging/LogOne.h"
#include "nsip/nsip.h"
#include "reginfo_sequence.h"
#include "Vorelkit/Vorelkit.h"

#define SUB_LOG(level, text) Log(level, __func__, __LINE__, text)

namespace subscription {
namespace {

constexpr const char* kEvent = "reg";
constexpr const char* kAccept = "application/reginfo+xml";  // RFC 3680 §4.2

// Down into the root element, when it has this name.
bool Enter(CXML& document, const char* root) {
  document.ResetPos();
  return document.FindElem(root) != 0 && document.IntoElem() != 0;
}

std::string Text(CXML& document, const char* name) {
  document.ResetMainPos();
  return document.FindElem(name) != 0 ? document.GetData() : std::string();
}

long Number(CXML& document, const char* name) {
  return std::strtol(Text(document, name).c_str(), nullptr, 10);
}

// The key of an address of record; empty when the text is no SIP address.
std::string KeyOf(const std::string& address) {
  nsip_from from;
  if (!nsip_from_parse(address, from) || from.url == nullptr || from.url->host.empty()) return {};
  return nsip_aor_key(*from.url);
}

void Express(int notification, long id,
             std::initializer_list<std::pair<const char*, const char*>> children) {
  CXML document;
  document.AddElem("sub", nullptr, 0);
  document.AddChildElem("id", static_cast<int>(id), 0);
  for (const auto& child : children) document.AddChildElem(child.first, child.second, 0);
  document.ResetPos();
  if (XSExpressNotify(bus::subscription::kIdentity, notification, &document, nullptr) != XS_OK)
    throw std::bad_alloc();
}

std::string Name(long id) { return "subscription " + std::to_string(id); }

}  // namespace

struct Service::Follower {
  Follower(std::string address_of_record, std::string address_key)
      : address(std::move(address_of_record)), key(std::move(address_key)), sequence(address) {}

  const std::string address;
  const std::string key;
  std::atomic<bool> closing{false};  // only the end of the client's own contact is still reported
  ReginfoSequence sequence;          // the I/O thread's
};

int Service::OnCommand(int command, CXML* in, CXML* out) {
  if (in == nullptr || (command == bus::subscription::kCommandSubscribe && out == nullptr))
    return -1;
  switch (command) {
    case bus::subscription::kCommandSubscribe:
      return OnSubscribe(*in, *out);
    case bus::subscription::kCommandDesubscribe:
      return OnDesubscribe(*in);
    case bus::subscription::kCommandLogSwitch:
      return OnLogSwitch(*in);
    default:
      return -1;
  }
}

int Service::OnSubscribe(CXML& in, CXML& out) {
  if (!Enter(in, "sub") || Text(in, "event") != kEvent) return -1;
  sivra::SubscriptionInfo info;
  info.from = Text(in, "from");
  info.to = Text(in, "to");
  info.event = kEvent;
  info.accept = kAccept;
  info.expires = static_cast<int>(std::clamp(Number(in, "expires"), -1L, 0x7fffffffL));
  info.refresh = Text(in, "ifrefresh") != "0";
  std::string key = KeyOf(info.to);
  if (key.empty()) return -1;

  // The row is made first: what lacks memory fails before there is a subscription without a row.
  Followers rows;
  rows.emplace(0, std::make_shared<Follower>(info.to, key));
  auto row = rows.extract(0);
  long former = 0;
  long id = -1;
  {
    const base::MutexLock lock(mutex_);
    followers_.reserve(followers_.size() + 1);
    const auto newest = newest_.try_emplace(std::move(key), 0).first;
    id = sivra::Subscribe(info, weak_from_this().lock());
    if (id > 0) {
      row.key() = id;
      followers_.insert(std::move(row));
      former = std::exchange(newest->second, id);
    } else if (newest->second == 0) {
      newest_.erase(newest);
    }
  }
  if (id < 0) return -1;
  if (former > 0) Close(former);
  try {
    SUB_LOG(E_LOG_INFO, (Name(id) + " begins: " + info.to).c_str());
    out.AddElem("sub", nullptr, 0);
    out.AddChildElem("id", static_cast<int>(id), 0);
    out.ResetPos();
  } catch (const std::bad_alloc&) {
    Close(id);  // a client without the id could not end it
    throw;
  }
  return 0;
}

int Service::OnDesubscribe(CXML& in) {
  return Enter(in, "sub") && Close(Number(in, "id")) ? 0 : -1;
}

int Service::OnLogSwitch(CXML& in) {
  if (!Enter(in, "log")) return -1;
  const std::string on = Text(in, "log-switch");
  if (!base::EqualNoCase(on, "TRUE") && on != "1") {
    log_ = nullptr;
    return 0;
  }
  std::string path = in.GetAttrib("path");
  if (path.empty()) path = "/log";
  if (path.back() != '/') path += '/';
  ILogOne* const log = LogOne_Open(VkStrBuilder::Utf8ToUnicodeW(path + "Tolvane.log").c_str());
  if (log == nullptr) return -1;
  log_ = log;
  return 0;
}

void Service::OnNotify(long id, const std::string& body, bool new_dialog) {
  try {
    const auto follower = Find(id);
    if (follower == nullptr) return;
    if (follower->closing) follower->sequence.Close();
    const auto result =
        follower->sequence.Process(body, new_dialog, sivra::RegisteredContacts(follower->address));
    if (result.full_wanted) {
      SUB_LOG(E_LOG_WARNING,
              (Name(id) + ": " + result.reason + "; a full document is asked for").c_str());
      (void)sivra::RefreshSubscription(id);
    }
    if (result.verdict == ReginfoSequence::Verdict::kHandedOn) {
      Express(bus::subscription::kNotifyBody, id,
              {{"event", kEvent}, {"msgbody", result.document.c_str()}});
    }
  } catch (const std::bad_alloc&) {
    // The document is lost; a full one replaces it.
    (void)sivra::RefreshSubscription(id);
  }
}

void Service::OnEnd(long id, int status, const std::string& reason) {
  try {
    Express(bus::subscription::kNotifyLife, id, {{"final", "SUB_STOP"}});
    SUB_LOG(E_LOG_INFO, (Name(id) + " has ended: " + reason +
                         (status > 0 ? " (" + std::to_string(status) + ")" : ""))
                            .c_str());
  } catch (const std::bad_alloc&) {
    SUB_LOG(E_LOG_ERROR, "no memory to report the end of a subscription");
  }
  const base::MutexLock lock(mutex_);
  const auto found = followers_.find(id);
  if (found == followers_.end()) return;
  const auto newest = newest_.find(found->second->key);
  if (newest != newest_.end() && newest->second == id) newest_.erase(newest);
  followers_.erase(found);
  if (followers_.empty()) none_left_.NotifyAll();
}

// Begins to end a subscription. False: it is unknown.
bool Service::Close(long id) {
  const auto follower = Find(id);
  if (follower == nullptr) return false;
  follower->closing = true;
  return sivra::Unsubscribe(id);
}

std::shared_ptr<Service::Follower> Service::Find(long id) {
  const base::MutexLock lock(mutex_);
  const auto found = followers_.find(id);
  return found != followers_.end() ? found->second : nullptr;
}

void Service::Stop(std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  std::vector<long> ids;
  {
    const base::MutexLock lock(mutex_);
    for (const auto& [id, follower] : followers_) ids.push_back(id);
  }
  for (const long id : ids) Close(id);
  {
    const base::MutexLock lock(mutex_);
    while (!followers_.empty() && none_left_.WaitUntil(mutex_, end)) {
    }
  }
  sivra::ForgetListener(this);
}

void Service::Log(int level, const char* function, int line, const char* text) const noexcept {
  if (ILogOne* const log = log_) log->PrintAt(level, function, __FILE__, line, "%s\n", text);
}

}  // namespace subscription
