// A request of any bytes through the server side of the stack, without sockets: every response can be read, repeats
// what RFC 3261 §8.2.6.2 tells, goes to the source of the request, and is the same for a copy.
#include <cstdlib>

#include "Sipcarrier/server_layer.h"

namespace {

using namespace sipcarrier;

void Require(bool holds) {
  if (!holds) std::abort();
}

struct Wire final : Transport {
  [[nodiscard]] std::string_view name() const override { return "UDP"; }
  [[nodiscard]] const SocketAddress* bound(int /*family*/) const override { return &local; }
  void Send(Outgoing& message) noexcept override {
    sent.emplace_back(message.text);
    to = message.to;
    message.sender.OnSent(message);
  }
  void Flush() noexcept override {}
  SocketAddress local, to;
  std::vector<std::string> sent;
};

bool HasTag(const nsip_from& address) { return nsip_generic_param_get_byname(address.params, "tag", nullptr) == 0; }

// What a response takes over as it is.
std::string Repeated(const nsip_message& message) {
  std::string text = nsip_from_text(*message.from) + '\n' + message.to->displayname + '\n' +
                     nsip_uri_text(*message.to->url) + '\n' + message.call_id + '\n' +
                     std::to_string(message.cseq_number) + message.cseq_method + '\n';
  for (const auto& via : message.vias) text += via->host + std::to_string(via->port) + '\n';
  return text;
}

void CheckResponse(const nsip_message& request, const Wire& wire, SocketAddress from) {
  std::string reason;
  const auto response = nsip_message_parse(wire.sent.front(), reason);
  Require(response != nullptr && response->status_code >= 200 && HasTag(*response->to));
  Require(Repeated(*response) == Repeated(request));
  Require(response->to->params.size() == request.to->params.size() + (HasTag(*request.to) ? 0 : 1));
  const nsip_via& via = *response->vias.front();
  const nsip_generic_param* param = nullptr;
  if (nsip_generic_param_get_byname(via.params, "rport", &param) == 0) {
    Require(param->value == std::to_string(from.port()));
  } else {
    from.set_port(static_cast<std::uint16_t>(via.port == 0 ? 5060 : via.port));
  }
  Require(wire.to == from);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string reason;
  const auto request = nsip_message_parse(text, reason);
  if (request == nullptr || request->status_code != 0) return 0;
  LiveCounters counters;
  Wire wire;
  TimerQueue timers;
  LocalAddressFinder finder;
  Tracer tracer([](const TraceRecord& /*record*/) {}, counters);
  ServerLayer layer(std::chrono::milliseconds(1), timers, finder, tracer, counters);
  layer.Attach(wire);
  SocketAddress from;
  Require(SocketAddress::FromLiteral("192.0.2.5", 5071, from));
  Require(SocketAddress::FromLiteral("192.0.2.1", 5060, wire.local));
  int calls = 0;
  const auto handler = [&](std::unique_ptr<nsip_message> given, ServerTransactionId id, const Endpoint& /*local*/) {
    ++calls;
    const bool fine = !given->body.empty();
    const bool responded = layer.Respond(id, fine ? 200 : 400, "Word", {{"X-Note", "a"}}, fine ? "mine" : "");
    Require(responded || !HasTag(*given->to));  // no room for a tag of ours
  };
  Require(layer.handlers().Set("NOTIFY", handler));
  for (int copy = 0; copy < 2; ++copy) layer.Receive(nsip_message_parse(text, reason), text, from, wire.local);
  Require(calls <= 1 && wire.sent.size() <= 2 && wire.sent.size() % 2 == 0);
  Require(wire.sent.size() == 2 || request->sip_method == "ACK" || counters.dropped_garbage == 2 ||
          request->to->params.size() == 64);
  if (!wire.sent.empty()) {
    Require(wire.sent.front() == wire.sent.back());
    CheckResponse(*request, wire, from);
  }
  while (timers.NextDue() != Clock::time_point::max()) timers.Run(Clock::time_point::max());
  Require(counters.server_transactions == 0);
  return 0;
}
