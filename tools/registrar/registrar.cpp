#include "registrar/registrar.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "registrar/answer.h"
#include "registrar/digest.h"
#include "registrar/location.h"
#include "registrar/loopback_socket.h"

namespace registrar {
namespace {

constexpr int kDatagramsPerTurn = 256;
constexpr std::chrono::seconds kPurgeInterval{1};

std::string HeaderValue(const nsip_message& message, const char* name) {
  nsip_header* header = nullptr;
  if (nsip_message_header_get_byname(&message, name, 0, &header) < 0) return {};
  return header->hvalue;
}

}  // namespace

// The socket, the digest and the answers belong to the registrar's thread; the mutex guards what
// callers share with it: bindings, scripts, counters, observers. No observer is called with the
// mutex held.
struct Registrar::Impl {
  explicit Impl(Options given) : options(std::move(given)), digest(options), location(options) {}

  const Options options;

  LoopbackSocket socket;
  Digest digest;
  AnswerCache answers;
  struct Delayed {
    std::string key;
    int copies = 1;
  };
  std::multimap<Clock::time_point, Delayed> delayed;
  std::string datagram;
  Clock::time_point next_purge{};

  FileDescriptor wake;
  std::thread thread;
  std::atomic<bool> stopping{false};
  std::atomic<std::uint16_t> port{0};

  mutable std::mutex mutex;
  Location location;
  std::deque<Script> scripts;
  Counters counters;
  std::function<void(const nsip_message&)> on_request;
  std::function<void(const nsip_message&, int)> on_answer;

  void Run();
  void HandleAll();
  void SendDue(Clock::time_point now);
  void Handle(const Peer& from);
  void Register(const nsip_message& request, const std::string& key, const Peer& from);
  void Reply(const nsip_message& request, const std::string& key, const Peer& from, Answer answer,
             const Script& script);
  Script TakeScript(const nsip_message& request);
  Answer OwnAnswer(const nsip_message& request);
  Answer Bind(const nsip_message& request);
  int PollTimeout() const;
};

int Registrar::Impl::PollTimeout() const {
  const Clock::time_point now = Clock::now();
  Clock::time_point next = now + kPurgeInterval;
  if (!delayed.empty()) next = std::min(next, delayed.begin()->first);
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now);
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(0, wait.count()));
}

void Registrar::Impl::Run() {
  while (!stopping) {
    pollfd fds[2] = {{socket.fd(), POLLIN, 0}, {wake.get(), POLLIN, 0}};
    const int ready = poll(fds, 2, PollTimeout());
    if (stopping) break;
    if (ready > 0 && (fds[0].revents & (POLLIN | POLLERR)) != 0) HandleAll();
    const Clock::time_point now = Clock::now();
    SendDue(now);
    if (now >= next_purge) {
      next_purge = now + kPurgeInterval;
      answers.Expire(now);
      const std::lock_guard<std::mutex> lock(mutex);
      location.Purge(now);
    }
  }
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
    const AnswerCache::Entry* entry = answers.Find(item.key);
    if (entry == nullptr) continue;
    for (int i = 0; i < item.copies; ++i) socket.Send(entry->text, entry->target);
    answers.Settle(item.key);
  }
}

void Registrar::Impl::Handle(const Peer& from) {
  std::string reason;
  const std::unique_ptr<nsip_message> request = nsip_message_parse(datagram, reason);
  if (!request || !CanBeAnswered(*request)) {
    const std::lock_guard<std::mutex> lock(mutex);
    ++counters.garbage;
    return;
  }
  if (request->sip_method == "ACK") return;  // never answered (RFC 3261 §17)
  const std::string key = TransactionKey(*request);
  const bool is_register = request->sip_method == "REGISTER";
  if (const AnswerCache::Entry* entry = answers.Find(key)) {
    if (is_register) {
      const std::lock_guard<std::mutex> lock(mutex);
      ++counters.retransmissions;
    }
    if (entry->settled) socket.Send(entry->text, entry->target);
    return;
  }
  if (is_register) {
    Register(*request, key, from);
    return;
  }
  Answer answer;
  answer.status = request->sip_method == "OPTIONS" ? 200 : 405;
  answer.headers.emplace_back("Allow", "REGISTER, OPTIONS");
  Reply(*request, key, from, std::move(answer), Script{});
}

void Registrar::Impl::Register(const nsip_message& request, const std::string& key,
                               const Peer& from) {
  std::function<void(const nsip_message&)> before;
  std::function<void(const nsip_message&, int)> after;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    ++counters.requests;
    before = on_request;
    after = on_answer;
  }
  if (before) before(request);
  const Script script = TakeScript(request);
  if (script.drop) {
    answers.Put(key, {}, Clock::now());
    if (after) after(request, 0);
    return;
  }
  Answer answer;
  if (script.status != 0) {
    answer.status = script.status;
    answer.reason = script.reason;
  } else {
    answer = OwnAnswer(request);
  }
  answer.headers.insert(answer.headers.end(), script.headers.begin(), script.headers.end());
  const int status = answer.status;
  Reply(request, key, from, std::move(answer), script);
  if (after) after(request, status);
}

void Registrar::Impl::Reply(const nsip_message& request, const std::string& key, const Peer& from,
                            Answer answer, const Script& script) {
  answer.headers.emplace_back("Server", "tolvane-registrar (test double)");
  const Clock::time_point now = Clock::now();
  AnswerCache::Entry entry;
  entry.target = AnswerTarget(request, from);
  entry.text = WriteAnswer(request, std::move(answer), from);
  entry.settled = script.delay.count() <= 0;
  if (entry.settled) {
    for (int i = 0; i < script.copies; ++i) socket.Send(entry.text, entry.target);
  } else {
    delayed.emplace(now + script.delay, Delayed{key, script.copies});
  }
  answers.Put(key, std::move(entry), now);
}

Script Registrar::Impl::TakeScript(const nsip_message& request) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (scripts.empty()) return {};
  const std::string aor = CanonicalAor(*request.to->url);
  const auto found = std::find_if(scripts.begin(), scripts.end(), [&aor](const Script& script) {
    return script.aor.empty() || script.aor == aor;
  });
  if (found == scripts.end()) return {};
  Script script = *found;
  if (found->repeat > 0 && --found->repeat == 0) scripts.erase(found);
  return script;
}

// RFC 3261 §10.3, in its order.
Answer Registrar::Impl::OwnAnswer(const nsip_message& request) {
  Answer answer;
  if (!request.req_uri || (request.req_uri->scheme != "sip" && request.req_uri->scheme != "sips")) {
    answer.status = 416;
    return answer;
  }
  if (request.cseq_method != request.sip_method) {
    answer.status = 400;
    answer.reason = "CSeq names another method";
    return answer;
  }
  if (const std::string require = HeaderValue(request, "Require"); !require.empty()) {
    answer.status = 420;
    answer.headers.emplace_back("Unsupported", require);
    return answer;
  }
  if (digest.enabled()) {
    const Digest::Verdict verdict = digest.Check(request);
    if (verdict != Digest::Verdict::kAccepted) {
      answer.status = digest.status();
      for (std::string& challenge : digest.Challenges(verdict == Digest::Verdict::kStale)) {
        answer.headers.emplace_back(digest.challenge_header(), std::move(challenge));
      }
      return answer;
    }
  }
  return Bind(request);
}

Answer Registrar::Impl::Bind(const nsip_message& request) {
  Answer answer;
  const Clock::time_point now = Clock::now();
  const std::lock_guard<std::mutex> lock(mutex);
  Location::Result result = location.Update(request, now);
  answer.status = result.status;
  answer.reason = std::move(result.reason);
  if (answer.status == 423) {
    answer.headers.emplace_back("Min-Expires", std::to_string(options.min_expires));
  }
  if (answer.status == 200) {
    answer.contacts = location.Contacts(*request.to->url, now);
    for (const std::string& uri : options.p_associated_uri) {
      answer.headers.emplace_back("P-Associated-URI", uri);
    }
  }
  return answer;
}

Registrar::Registrar(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Registrar::~Registrar() { Stop(); }

bool Registrar::Start(std::string& error) {
  Impl& impl = *impl_;
  if (impl.thread.joinable()) {
    error = "the registrar runs already";
    return false;
  }
  if (!impl.digest.Init(error)) return false;
  const std::uint16_t wanted = impl.port != 0 ? impl.port.load() : impl.options.port;
  if (!impl.socket.Open(impl.options.address, wanted, error)) return false;
  impl.port = impl.socket.Port();
  impl.wake = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!impl.wake.valid()) {
    error = "no event descriptor: " + std::generic_category().message(errno);
    impl.socket.Close();
    return false;
  }
  impl.stopping = false;
  try {
    impl.thread = std::thread([&impl] { impl.Run(); });
  } catch (const std::system_error& failure) {
    error = std::string("no thread: ") + failure.what();
    impl.socket.Close();
    return false;
  }
  return true;
}

void Registrar::Stop() {
  Impl& impl = *impl_;
  if (!impl.thread.joinable()) return;
  impl.stopping = true;
  const std::uint64_t one = 1;
  // The counter cannot be full, so the write goes through.
  [[maybe_unused]] const ssize_t written = write(impl.wake.get(), &one, sizeof one);
  impl.thread.join();
  impl.socket.Close();
  impl.delayed.clear();
  impl.answers.Clear();
}

std::uint16_t Registrar::port() const { return impl_->port; }

std::string Registrar::uri() const {
  const std::string& address = impl_->options.address;
  const bool v6 = address.find(':') != std::string::npos;
  return "sip:" + (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port());
}

void Registrar::Add(Script script) {
  if (script.repeat == 0) return;
  if (!script.aor.empty()) script.aor = CanonicalAor(script.aor);
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->scripts.push_back(std::move(script));
}

std::vector<Binding> Registrar::Bindings(std::string_view aor) const {
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->location.List(aor, Clock::now());
}

bool Registrar::Remove(std::string_view aor) {
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->location.Remove(aor);
}

Counters Registrar::GetCounters() const {
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->counters;
}

void Registrar::OnRequest(std::function<void(const nsip_message&)> observer) {
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->on_request = std::move(observer);
}

void Registrar::OnAnswer(std::function<void(const nsip_message&, int)> observer) {
  const std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->on_answer = std::move(observer);
}

}  // namespace registrar
