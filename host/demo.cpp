#include "host/demo.h"

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "Domletlib/Domletlib.h"
#include "host/output.h"
#include "host/session.h"
#include "host/signals.h"
#include "host/words.h"
#include "nsip/nsip.h"
#include "registrar/registrar.h"

namespace host {
namespace {

constexpr int kRequestedExpires = 2;  // too short for this registrar
constexpr int kMinExpires = 3;        // so a refresh each second
constexpr int kRefreshes = 2;
constexpr int kComesBackAfter = 1;
constexpr std::chrono::seconds kSoon{2};
constexpr std::chrono::seconds kTimeLimit{18};
constexpr const char* kAor = "sip:alice@tolvane.example";

// The seconds that a REGISTER asks for: its Contact's parameter, else its Expires header (RFC 3261
// §10.2.1.1).
int RequestedExpires(const nsip_message& request) {
  const nsip_generic_param* parameter = nullptr;
  if (!request.contacts.empty() &&
      nsip_generic_param_get_byname(request.contacts.front()->params, "expires", &parameter) == 0) {
    return kdStrtol(parameter->value.c_str(), nullptr, 10);
  }
  nsip_header* header = nullptr;
  if (nsip_message_header_get_byname(&request, "Expires", 0, &header) < 0) return -1;
  return kdStrtol(header->hvalue.c_str(), nullptr, 10);
}

std::string HeaderValue(const nsip_message& message, const char* name) {
  nsip_header* header = nullptr;
  return nsip_message_header_get_byname(&message, name, 0, &header) < 0 ? std::string()
                                                                        : header->hvalue;
}

// What an Authorization or WWW-Authenticate header says about its algorithm; MD5 when it says
// nothing.
std::string Algorithm(const std::string& value) {
  std::string scheme;
  nsip_param_list parameters;
  if (!nsip_auth_params_parse(value, scheme, parameters)) return "?";
  const nsip_generic_param* algorithm = nullptr;
  if (nsip_generic_param_get_byname(parameters, "algorithm", &algorithm) != 0) return "MD5";
  return algorithm->value;
}

// What a reginfo document says about the one contact in it.
std::string ContactState(const std::string& body) {
  CXML document;
  if (document.SetDoc(std::string_view(body)) == 0) return "?";
  document.ResetPos();
  for (const char* name : {"reginfo", "registration"}) {
    if (document.FindElem(name) == 0 || document.IntoElem() == 0) return "?";
  }
  if (document.FindElem("contact") == 0) return "no binding";
  return "binding " + document.GetAttrib("state") + ", " + document.GetAttrib("event");
}

std::string ShortForm(const nsip_message& message, bool sent) {
  const std::string arrow = sent ? "-> " : "<- ";
  if (message.sip_method == "NOTIFY") {
    return arrow + "NOTIFY CSeq " + std::to_string(message.cseq_number) + ": " +
           Printable(ContactState(message.body)) + "; subscription " +
           Printable(HeaderValue(message, "Subscription-State"));
  }
  if (message.status_code == 0) {
    std::string text = arrow + message.sip_method + " " +
                       (message.req_uri ? nsip_uri_text(*message.req_uri) : std::string("?")) +
                       " CSeq " + std::to_string(message.cseq_number) + " Expires " +
                       std::to_string(RequestedExpires(message));
    const std::string credentials = HeaderValue(message, "Authorization");
    if (!credentials.empty()) text += " (digest " + Algorithm(credentials) + ")";
    return text;
  }
  std::string text =
      arrow + std::to_string(message.status_code) + " " + Printable(message.reason_phrase);
  if (const std::string wanted = HeaderValue(message, "Min-Expires"); !wanted.empty()) {
    text += " Min-Expires " + Printable(wanted);
  }
  if (const std::string challenge = HeaderValue(message, "WWW-Authenticate"); !challenge.empty()) {
    text += " (wants digest " + Printable(Algorithm(challenge)) + ")";
  }
  if (message.status_code / 100 == 2) {
    const int granted = RequestedExpires(message);
    if (granted >= 0) text += " expires=" + std::to_string(granted);
  }
  return text;
}

// The REGISTER requests that the registrar took, noted on its thread.
class RegistrarLog {
 public:
  struct Request {
    std::string call_id;
    std::uint32_t cseq = 0;
    int expires = 0;
    bool authorised = false;
  };
  void Add(const nsip_message& request) {
    const base::MutexLock lock(mutex_);
    requests_.push_back({request.call_id, request.cseq_number, RequestedExpires(request),
                         !HeaderValue(request, "Authorization").empty()});
  }
  [[nodiscard]] std::vector<Request> Requests() const {
    const base::MutexLock lock(mutex_);
    return requests_;
  }

 private:
  mutable base::Mutex mutex_;
  std::vector<Request> requests_ TOLVANE_GUARDED_BY(mutex_);
};

// Shows the session in short form, has the registrar remove the binding after the second refresh,
// ends the session when it is registered again, and keeps what the verdicts need.
class Demo : public SessionListener {
 public:
  Demo(const RegisterOptions& options, registrar::Registrar& registrar)
      : options_(options), registrar_(registrar), start_(std::chrono::system_clock::now()) {}

  void SetSession(Session& session) { session_ = &session; }

  void OnAnswer(WallTime time, const Answer& answer) override {
    Line(time, DescribeAnswer(answer, options_));
  }

  void OnNotification(WallTime time, const NotificationItem& /*item*/, const Notice& notice,
                      Circumstances circumstances) override {
    Line(time, DescribeNotice(notice, options_, circumstances));
    const bool bound = registrar_.Bindings(kAor).size() == 1;
    if (notice.id == reg::kNotifyOutcome && notice.result == 0) {
      if (removed_) {
        back_ = heard_ && bound;
        // Time for the subscription to be shown, too.
        session_->EndIn(std::chrono::milliseconds(500));
      } else {
        bound_ = bound;
      }
    }
    if (notice.id == reg::kNotifyState && notice.state == "Terminate" && removed_ && !back_) {
      heard_ = notice.event == "deactivated" && !bound && time - *removed_ < kSoon;
    }
    if (notice.id == reg::kNotifyDeregistered && notice.result == 0) deregistered_ = true;
  }

  void OnTrace(WallTime time, const TraceItem& item) override {
    std::string reason;
    const auto message = nsip_message_parse(item.text, reason);
    if (!message) return Line(time, "?? no SIP message: " + reason);
    Line(time, ShortForm(*message, item.sent));
    if (message->cseq_method != "REGISTER" || removed_) return;
    if (item.sent) {
      requested_ = RequestedExpires(*message);
      if (interval_too_brief_ && requested_ == kMinExpires) asked_for_longer_ = true;
      return;
    }
    if (message->status_code == 401) challenged_ = true;
    if (message->status_code == 423) interval_too_brief_ = true;
    // The first 200 is the success; those that follow belong to refreshes, until 0 is asked for.
    if (message->status_code == 200 && requested_ > 0 && ++accepted_ == 1 + kRefreshes) {
      removed_ = std::chrono::system_clock::now();
      registrar::Order order;
      order.event = registrar::ContactEvent::kDeactivated;
      order.aor = kAor;
      std::string error;
      const bool done = registrar_.Apply(order, error);
      Line(time, done ? "Two refreshes have been accepted. Now the registrar removes the "
                        "binding, and only its NOTIFY says so."
                      : "The registrar could not remove the binding: " + error);
    }
  }

  void OnRemark(WallTime time, const std::string& text) override { Line(time, text); }

  void Line(WallTime time, const std::string& text) {
    char column[32];
    std::snprintf(column, sizeof column, "%7.3f s  ",
                  std::chrono::duration<double>(time - start_).count());
    output_.Write(column + text + "\n");
  }

  // Prints each promise with its verdict; true when all were kept.
  [[nodiscard]] bool Judge(int session_status, const std::vector<RegistrarLog::Request>& requests) {
    bool all = true;
    const auto promise = [&](bool kept, const char* text) {
      output_.Write(std::string(kept ? "  yes  " : "  NO   ") + text + "\n");
      all = all && kept;
    };
    int calls = 0;
    bool rising = true;
    int authorised_refreshes = 0;
    for (std::size_t i = 0; i < requests.size(); ++i) {
      const bool new_call = i == 0 || requests[i].call_id != requests[i - 1].call_id;
      if (new_call) ++calls;
      rising = rising && (new_call || requests[i].cseq > requests[i - 1].cseq);
      if (requests[i].authorised && requests[i].expires == kMinExpires) ++authorised_refreshes;
    }
    const auto took = std::chrono::system_clock::now() - start_;
    output_.Write("\nWhat had to happen:\n");
    promise(challenged_ && !requests.empty() && !requests.front().authorised &&
                authorised_refreshes > 0,
            "the registrar's challenge was met with digest credentials");
    promise(interval_too_brief_ && asked_for_longer_, "after a 423 a longer expiry was asked for");
    promise(bound_, "the registration succeeded, and the registrar held one binding");
    promise(accepted_ >= 1 + kRefreshes && authorised_refreshes >= 1 + kRefreshes,
            "two refreshes were sent in time and accepted");
    promise(heard_, "the registrar removed the binding, and the client knew within two seconds");
    promise(back_, "it was registered again, and the registrar held one binding");
    promise(calls == 2 && rising,
            "each of the two registrations had one Call-ID and a rising CSeq");
    promise(deregistered_ && session_status == kExitOk && !requests.empty() &&
                requests.back().expires == 0 && registrar_.Bindings(kAor).empty() &&
                registrar_.Subscriptions(kAor).empty(),
            "the deregistration was accepted, and neither binding nor subscription was left");
    promise(took < std::chrono::seconds(20), "all of it took less than 20 seconds");
    return all;
  }

  [[nodiscard]] Output& output() { return output_; }

 private:
  const RegisterOptions& options_;
  registrar::Registrar& registrar_;
  const WallTime start_;
  Session* session_ = nullptr;
  Output output_;
  int requested_ = -1;
  int accepted_ = 0;
  bool challenged_ = false;
  bool interval_too_brief_ = false;
  bool asked_for_longer_ = false;
  bool bound_ = false;
  std::optional<WallTime> removed_;  // the registrar has removed the binding
  bool heard_ = false;
  bool back_ = false;
  bool deregistered_ = false;
};

}  // namespace

int RunDemo() {
  Inbox inbox;
  SignalWatch signals(inbox);
  std::string error;
  if (!signals.Start(error)) {
    std::fprintf(stderr, "tolvane: %s\n", error.c_str());
    return kExitNoStart;
  }

  RegisterOptions options;
  options.aor = kAor;
  options.expires = kRequestedExpires;
  options.display_name = "Alice";
  options.user_agent = "tolvane-demo";
  options.subscribe = true;
  options.auto_reregister = true;
  options.reregister_interval = kComesBackAfter;
  options.auth_user = "alice";
  options.auth_password = "wonderland";
  options.local_address = "127.0.0.1";
  options.duration = kTimeLimit;
  options.trace = true;

  registrar::Options registrar_options;
  registrar_options.min_expires = kMinExpires;
  registrar_options.users[options.auth_user] = options.auth_password;
  RegistrarLog log;
  registrar::Registrar registrar(registrar_options);
  registrar.OnRequest([&log](const nsip_message& request) {
    if (request.sip_method == "REGISTER") log.Add(request);
  });
  if (!registrar.Start(error)) {
    std::fprintf(stderr, "tolvane: the registrar could not be started: %s\n", error.c_str());
    return kExitNoStart;
  }
  options.registrar = registrar.uri();

  Demo demo(options, registrar);
  demo.output().Write(
      "A registrar listens at " + options.registrar +
      ", inside this process and on loopback only. It wants digest\nauthentication and grants no "
      "less than " +
      std::to_string(kMinExpires) + " s; " + options.aor + " asks it for " +
      std::to_string(kRequestedExpires) + " s.\n\n");
  Session session(options, inbox, demo);
  demo.SetSession(session);
  const int status = session.Run();
  if (status == kExitNoStart) return status;
  const bool all = demo.Judge(status, log.Requests());
  registrar.Stop();
  demo.output().Write(all ? "\nEverything happened as promised.\n"
                          : "\nThe demonstration failed: see the lines with NO above.\n");
  return all ? kExitOk : kExitFailed;
}

}  // namespace host
