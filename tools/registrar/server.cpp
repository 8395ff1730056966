#include "registrar/server.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <new>

namespace registrar {
namespace {

constexpr int kDatagramsPerTurn = 256;
constexpr std::chrono::milliseconds kPurgeInterval{250};

std::string HeaderValue(const nsip_message& message, const char* name) {
  nsip_header* header = nullptr;
  if (nsip_message_header_get_byname(&message, name, 0, &header) < 0) return {};
  return header->hvalue;
}

}  // namespace

int Registrar::Impl::PollTimeout() const {
  const Clock::time_point now = Now();
  Clock::time_point next = now + kPurgeInterval;
  if (!delayed.empty()) next = std::min(next, delayed.begin()->first);
  {
    const base::MutexLock lock(mutex);
    next = std::min(next, notifier.NextDue());
  }
  if (next <= now) return 0;
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now);
  return static_cast<int>(wait.count());
}

void Registrar::Impl::Wake() const {
  if (!wake.valid()) return;
  const std::uint64_t one = 1;
  // The counter cannot be full, so the write goes through.
  [[maybe_unused]] const ssize_t written = write(wake.get(), &one, sizeof one);
}

void Registrar::Impl::Run() {
  while (!stopping) {
    pollfd fds[2] = {{socket.fd(), POLLIN, 0}, {wake.get(), POLLIN, 0}};
    const int ready = poll(fds, 2, PollTimeout());
    if (stopping) break;
    if (ready > 0 && fds[1].revents != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const ssize_t taken = read(wake.get(), &count, sizeof count);
    }
    if (ready > 0 && (fds[0].revents & (POLLIN | POLLERR)) != 0) HandleAll();
    MoveOn(Now());
  }
}

void Registrar::Impl::MoveOn(Clock::time_point now) {
  try {
    SendDue(now);
    if (now >= next_purge) {
      next_purge = now + kPurgeInterval;
      responses.Expire(now);
      Purge(now);
    }
    std::deque<Datagram> notifies;
    {
      const base::MutexLock lock(mutex);
      notifies = notifier.Due(now);
    }
    for (const Datagram& item : notifies) socket.Send(item.text, item.target);
  } catch (const std::bad_alloc&) {
    // As in HandleAll: the datagrams that were due are lost.
  }
}

void Registrar::Impl::Purge(Clock::time_point now) {
  const base::MutexLock lock(mutex);
  for (const auto& [aor, gone] : location.Purge(now)) notifier.Publish(aor, gone, now);
}

void Registrar::Impl::HandleAll() {
  try {
    Peer from;
    for (int i = 0; i < kDatagramsPerTurn && socket.Receive(datagram, from); ++i) Handle(from);
  } catch (const std::bad_alloc&) {
    // The datagram is lost, as on any network: tests of others let allocations fail beside this
    // thread.
  }
}

void Registrar::Impl::SendDue(Clock::time_point now) {
  while (!delayed.empty() && delayed.begin()->first <= now) {
    const Delayed item = std::move(delayed.begin()->second);
    delayed.erase(delayed.begin());
    const ResponseCache::Entry* entry = responses.Find(item.key);
    if (entry == nullptr) continue;
    for (int i = 0; i < item.copies; ++i) socket.Send(entry->text, entry->target);
    responses.Settle(item.key);
  }
}

void Registrar::Impl::Handle(const Peer& from) {
  std::string reason;
  const std::unique_ptr<nsip_message> request = nsip_message_parse(datagram, reason);
  if (request && request->status_code != 0) {
    const base::MutexLock lock(mutex);
    notifier.OnResponse(*request);
    return;
  }
  if (!request || !HasWhatAResponseNeeds(*request)) {
    const base::MutexLock lock(mutex);
    ++counters.garbage;
    return;
  }
  if (request->sip_method == "ACK") return;  // it gets no response (RFC 3261 §17)
  const std::string key = TransactionKey(*request);
  const bool is_register = request->sip_method == "REGISTER";
  if (const ResponseCache::Entry* entry = responses.Find(key)) {
    if (is_register) {
      const base::MutexLock lock(mutex);
      ++counters.retransmissions;
    }
    if (entry->settled) socket.Send(entry->text, entry->target);
    return;
  }
  if (is_register || request->sip_method == "SUBSCRIBE") {
    Serve(*request, key, from);
    return;
  }
  Response response;
  response.status = request->sip_method == "OPTIONS" ? 200 : 405;
  response.headers.emplace_back("Allow", "REGISTER, SUBSCRIBE, OPTIONS");
  Reply(*request, key, from, std::move(response), Script{});
}

void Registrar::Impl::Serve(const nsip_message& request, const std::string& key, const Peer& from) {
  std::function<void(const nsip_message&)> before;
  std::function<void(const nsip_message&, int)> after;
  {
    const base::MutexLock lock(mutex);
    if (request.sip_method == "REGISTER") {
      ++counters.requests;
    } else {
      notifier.CountSubscribe();
    }
    before = on_request;
    after = on_response;
  }
  if (before) before(request);
  const Script script = TakeScript(request);
  if (script.drop) {
    responses.Put(key, {}, Now());
    if (after) after(request, 0);
    return;
  }
  Response response;
  if (script.status != 0) {
    response.status = script.status;
    response.reason = script.reason;
  } else {
    response = OwnResponse(request);
  }
  response.headers.insert(response.headers.end(), script.headers.begin(), script.headers.end());
  const int status = response.status;
  Reply(request, key, from, std::move(response), script);
  if (after) after(request, status);
}

void Registrar::Impl::Reply(const nsip_message& request, const std::string& key, const Peer& from,
                            Response response, const Script& script) {
  response.headers.emplace_back("Server", "tolvane-registrar (test double)");
  const Clock::time_point now = Now();
  ResponseCache::Entry entry;
  entry.target = ResponseTarget(request, from);
  entry.text = WriteResponse(request, std::move(response), from);
  entry.settled = script.delay.count() <= 0;
  if (entry.settled) {
    for (int i = 0; i < script.copies; ++i) socket.Send(entry.text, entry.target);
  } else {
    delayed.emplace(now + script.delay, Delayed{key, script.copies});
  }
  responses.Put(key, std::move(entry), now);
}

Script Registrar::Impl::TakeScript(const nsip_message& request) {
  const base::MutexLock lock(mutex);
  if (scripts.empty()) return {};
  const std::string aor = nsip_aor_key(*request.to->url);
  const auto found = std::find_if(scripts.begin(), scripts.end(), [&](const Script& script) {
    return script.method == request.sip_method && (script.aor.empty() || script.aor == aor);
  });
  if (found == scripts.end()) return {};
  Script script = *found;
  if (found->repeat > 0 && --found->repeat == 0) scripts.erase(found);
  return script;
}

// RFC 3261 §10.3, in its order; RFC 6665 §4.2.1 begins the same way.
Response Registrar::Impl::OwnResponse(const nsip_message& request) {
  Response response;
  if (!request.req_uri || (request.req_uri->scheme != "sip" && request.req_uri->scheme != "sips")) {
    response.status = 416;
    return response;
  }
  if (request.cseq_method != request.sip_method) {
    response.status = 400;
    response.reason = "CSeq names another method";
    return response;
  }
  if (const std::string require = HeaderValue(request, "Require"); !require.empty()) {
    response.status = 420;
    response.headers.emplace_back("Unsupported", require);
    return response;
  }
  if (digest.enabled()) {
    const Digest::Verdict verdict = digest.Check(request);
    if (verdict != Digest::Verdict::kAccepted) {
      response.status = digest.status();
      for (std::string& challenge : digest.Challenges(verdict == Digest::Verdict::kStale)) {
        response.headers.emplace_back(digest.challenge_header(), std::move(challenge));
      }
      return response;
    }
  }
  if (request.sip_method == "REGISTER") return Bind(request);
  const base::MutexLock lock(mutex);
  return notifier.Subscribe(request, Now());
}

Response Registrar::Impl::Bind(const nsip_message& request) {
  Response response;
  const Clock::time_point now = Now();
  const base::MutexLock lock(mutex);
  std::vector<ContactRecord> changes;
  Location::Result result = location.Update(request, now, changes);
  notifier.Publish(nsip_aor_key(*request.to->url), changes, now);
  response.status = result.status;
  response.reason = std::move(result.reason);
  if (response.status == 423) {
    response.headers.emplace_back("Min-Expires", std::to_string(options.min_expires));
  }
  if (response.status == 200) {
    response.contacts = location.Contacts(*request.to->url, now);
    for (const std::string& uri : options.p_associated_uri) {
      response.headers.emplace_back("P-Associated-URI", uri);
    }
  }
  return response;
}

}  // namespace registrar
