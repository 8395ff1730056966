#include "registrar/orders.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>
#include <vector>

namespace registrar {
namespace {

constexpr char kHelp[] =
    "  create AOR CONTACT [SECONDS]        a binding by the operator, or \"created\" of one\n"
    "  refresh AOR [SECONDS] [CONTACT]     without CONTACT: all bindings of AOR\n"
    "  shorten AOR SECONDS [CONTACT]       that much is left\n"
    "  probation AOR [SECONDS] [CONTACT]   gone; SECONDS: retry-after\n"
    "  expire, deactivate, unregister, reject AOR [CONTACT]   gone\n"
    "  notify AOR [empty] [foreign] [twice] [cseq=N] [event=TEXT] [state=TEXT]\n"
    "  notify-body AOR TYPE TEXT           TEXT: the rest of the line\n"
    "  end-subscription AOR [REASON [RETRY-AFTER]]\n"
    "  forget-subscription AOR             without a word to the subscriber\n"
    "  approve AOR                         pending subscriptions become active\n"
    "  drop-subscribe [COUNT], delay-subscribe MS, refuse-subscribe STATUS   for the next ones\n"
    "  list [AOR]                          bindings and subscriptions\n";

// The next word; the text goes on behind it.
std::string_view Word(std::string_view& text) {
  const auto first = std::min(text.find_first_not_of(" \t\r"), text.size());
  text.remove_prefix(first);
  const std::string_view word = text.substr(0, text.find_first_of(" \t\r"));
  text.remove_prefix(word.size());
  return word;
}

template <class Number>
bool ParseNumber(std::string_view text, Number& number) {
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
  return code == std::errc{} && end == text.data() + text.size();
}

struct Failure {
  std::string why;
};

[[noreturn]] void Fail(std::string why) { throw Failure{std::move(why)}; }

template <class Number>
Number NumberOf(std::string_view word, Number least, Number most) {
  Number number{};
  if (!ParseNumber(word, number) || number < least || number > most) {
    Fail("\"" + std::string(word) + "\" is not a number from " + std::to_string(least) + " to " +
         std::to_string(most));
  }
  return number;
}

void ExpectEnd(std::string_view rest) {
  if (const std::string_view word = Word(rest); !word.empty()) {
    Fail("\"" + std::string(word) + "\" is too much");
  }
}

std::string AorOf(std::string_view& rest) {
  std::string aor(Word(rest));
  nsip_uri uri;
  if (!nsip_uri_parse(aor, uri))
    Fail("an address of record is missing, such as sip:alice@a.example");
  return aor;
}

std::string Count(std::size_t count) {
  if (count == 0) Fail("no subscription that this could reach");
  return std::to_string(count) + (count == 1 ? " subscription" : " subscriptions");
}

std::string ChangeBindings(Registrar& registrar, ContactEvent event, std::string_view rest) {
  Order order;
  order.event = event;
  order.aor = AorOf(rest);
  for (std::string_view word = Word(rest); !word.empty(); word = Word(rest)) {
    int seconds = 0;
    if (!order.seconds && ParseNumber(word, seconds)) {
      order.seconds = seconds;
    } else if (order.contact.empty()) {
      order.contact = word;
    } else {
      Fail("\"" + std::string(word) + "\" is too much");
    }
  }
  std::string error;
  if (!registrar.Apply(order, error)) Fail(error);
  return std::string(registrar::Word(event)) + " " + order.aor;
}

std::string Notify(Registrar& registrar, std::string_view rest) {
  NotifyOrder order;
  order.aor = AorOf(rest);
  for (std::string_view word = Word(rest); !word.empty(); word = Word(rest)) {
    const std::string_view value = word.substr(std::min(word.size(), word.find('=') + 1));
    if (word == "empty") {
      order.body = "";
    } else if (word == "foreign") {
      order.foreign = true;
    } else if (word == "twice") {
      order.copies = 2;
    } else if (word.starts_with("cseq=")) {
      order.cseq = NumberOf<std::uint32_t>(value, 0, 0x7fffffff);
    } else if (word.starts_with("event=")) {
      order.event = value;
    } else if (word.starts_with("state=")) {
      order.subscription_state = value;
    } else {
      Fail("\"" + std::string(word) + "\" is nothing that a NOTIFY could be");
    }
  }
  return Count(registrar.Notify(order));
}

std::string NotifyBody(Registrar& registrar, std::string_view rest) {
  NotifyOrder order;
  order.aor = AorOf(rest);
  order.content_type = Word(rest);
  if (!rest.empty()) rest.remove_prefix(1);
  if (rest.empty()) Fail("TYPE or TEXT is missing");
  order.body = rest;
  return Count(registrar.Notify(order));
}

std::string EndSubscriptions(Registrar& registrar, std::string_view rest) {
  const std::string aor = AorOf(rest);
  const std::string reason(Word(rest));
  if (!reason.empty() && !nsip_is_token(reason)) Fail("the reason must be one plain word");
  int retry_after = -1;
  if (const std::string_view word = Word(rest); !word.empty()) {
    retry_after = NumberOf(word, 0, 0x7fffffff);
  }
  ExpectEnd(rest);
  return Count(registrar.EndSubscriptions(aor, reason, retry_after));
}

std::string ForAor(std::string_view rest,
                   const std::function<std::size_t(const std::string&)>& what) {
  const std::string aor = AorOf(rest);
  ExpectEnd(rest);
  return Count(what(aor));
}

std::string RespondToSubscribe(Registrar& registrar, std::string_view name, std::string_view rest) {
  Script script;
  script.method = "SUBSCRIBE";
  const std::string_view word = Word(rest);
  if (name == "drop-subscribe") {
    script.drop = true;
    if (!word.empty()) script.repeat = NumberOf(word, 1, 1000);
  } else if (name == "delay-subscribe") {
    script.delay = std::chrono::milliseconds(NumberOf(word, 1, 60000));
  } else {
    script.status = NumberOf(word, 300, 699);
  }
  ExpectEnd(rest);
  registrar.Add(std::move(script));
  return std::string(name);
}

std::string List(Registrar& registrar, std::string_view rest, std::string& lines) {
  std::string aor;
  if (rest.find_first_not_of(" \t\r") != std::string_view::npos) aor = AorOf(rest);
  ExpectEnd(rest);
  const std::vector<Binding> bindings = registrar.Bindings(aor);
  for (const Binding& binding : bindings) {
    lines += "binding " + binding.aor + " " + binding.contact + ", " +
             std::to_string(binding.left) + " s left, " + registrar::Word(binding.event) + "\n";
  }
  const std::vector<SubscriptionView> subscriptions = registrar.Subscriptions(aor);
  for (const SubscriptionView& view : subscriptions) {
    lines += "subscription " + view.aor + " " + view.target + ", " + registrar::Word(view.state) +
             ", " + std::to_string(view.left) + " s left, " + std::to_string(view.notifies) +
             " notifies, " + std::to_string(view.waiting) + " waiting, last response " +
             (view.last_status == 0 ? "none" : std::to_string(view.last_status)) + "\n";
  }
  return std::to_string(bindings.size()) + " bindings, " + std::to_string(subscriptions.size()) +
         " subscriptions";
}

std::string Run(Registrar& registrar, std::string_view name, std::string_view rest,
                std::string& lines) {
  constexpr std::pair<std::string_view, ContactEvent> kBindingOrders[] = {
      {"create", ContactEvent::kCreated},          {"refresh", ContactEvent::kRefreshed},
      {"shorten", ContactEvent::kShortened},       {"expire", ContactEvent::kExpired},
      {"deactivate", ContactEvent::kDeactivated},  {"probation", ContactEvent::kProbation},
      {"unregister", ContactEvent::kUnregistered}, {"reject", ContactEvent::kRejected},
  };
  for (const auto& [word, event] : kBindingOrders) {
    if (word == name) return ChangeBindings(registrar, event, rest);
  }
  if (name == "notify") return Notify(registrar, rest);
  if (name == "notify-body") return NotifyBody(registrar, rest);
  if (name == "end-subscription") return EndSubscriptions(registrar, rest);
  if (name == "forget-subscription") {
    return ForAor(rest, [&](const std::string& aor) { return registrar.ForgetSubscriptions(aor); });
  }
  if (name == "approve") {
    return ForAor(rest, [&](const std::string& aor) { return registrar.Approve(aor); });
  }
  if (name == "drop-subscribe" || name == "delay-subscribe" || name == "refuse-subscribe") {
    return RespondToSubscribe(registrar, name, rest);
  }
  if (name == "list") return List(registrar, rest, lines);
  if (name == "help") {
    lines = kHelp;
    return "help";
  }
  Fail("unknown order \"" + std::string(name) + "\"; \"help\" lists them");
}

}  // namespace

std::string Printable(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
  }
  return text;
}

std::string RunOrder(Registrar& registrar, std::string_view line) {
  std::string_view rest = line;
  const std::string_view name = Word(rest);
  if (name.empty() || name.starts_with('#')) return {};
  std::string lines;
  try {
    const std::string what = Run(registrar, name, rest, lines);
    return lines + "done: " + Printable(what) + "\n";
  } catch (const Failure& failure) {
    return "error: " + Printable(failure.why) + "\n";
  }
}

LineReader::LineReader(std::function<void(std::string_view)> take, std::function<void()> refuse)
    : take_(std::move(take)), refuse_(std::move(refuse)) {}

void LineReader::Feed(std::string_view bytes) {
  for (const char c : bytes) {
    if (c == '\n') {
      Line();
    } else if (line_.size() >= kMaxLine) {
      too_long_ = true;
    } else {
      line_ += c;
    }
  }
}

void LineReader::End() {
  if (!line_.empty()) Line();
}

void LineReader::Line() {
  if (too_long_) {
    refuse_();
  } else {
    take_(line_);
  }
  line_.clear();
  too_long_ = false;
}

}  // namespace registrar
