// The public functions: what finds the one stack of the process and passes calls on to it.
#include "Sipcarrier/Sipcarrier.h"

#include <cstring>
#include <new>
#include <utility>

#include "base/mutex.h"
#include "Sipcarrier/stack.h"

ISipStackEvent::~ISipStackEvent() = default;

namespace {

template <std::size_t N>
void CopyName(char (&to)[N], const char* from) {
  const std::size_t length = from == nullptr ? 0 : strnlen(from, N - 1);
  if (length > 0) std::memmove(to, from, length);
  to[length] = '\0';
}

const char* ReadName(const char* name, unsigned int* length) {
  if (length != nullptr) *length = static_cast<unsigned int>(std::strlen(name));
  return name;
}

// Lock order: lifecycle, quiet, current_mutex; the last is a leaf, held for a copy of the pointer
// only.
struct Process {
  base::Mutex lifecycle;  // one Start or Stop at a time
  // Held while a stack comes or goes, and while a thread looks into an inbox because there is none.
  base::Mutex quiet;
  base::Mutex current_mutex;
  std::shared_ptr<sipcarrier::Stack> current TOLVANE_GUARDED_BY(current_mutex);
  sipcarrier::Counters last TOLVANE_GUARDED_BY(current_mutex);  // of the run before

  std::shared_ptr<sipcarrier::Stack> Get() {
    const base::MutexLock lock(current_mutex);
    return current;
  }
};

Process& TheProcess() {
  static Process process;
  return process;
}

std::shared_ptr<sipcarrier::Stack> TheStack() { return TheProcess().Get(); }

}  // namespace

void ISipStackEvent::SetServerName(const char* szName) { CopyName(m_szServerName, szName); }
const char* ISipStackEvent::GetServerName(unsigned int* pnLength) {
  return ReadName(m_szServerName, pnLength);
}
void ISipStackEvent::SetComponentName(const char* szName) { CopyName(m_szComponentName, szName); }
const char* ISipStackEvent::GetComponentName(unsigned int* pnLength) {
  return ReadName(m_szComponentName, pnLength);
}

int Sipcarrier_RegisterHandler(ISipStackEvent* pHandler) {
  const auto stack = TheStack();
  return stack == nullptr ? -1 : stack->delivery().Register(pHandler);
}

int Sipcarrier_DeRegisterHandler(ISipStackEvent* pHandler) {
  const auto stack = TheStack();
  return stack == nullptr ? -1 : stack->delivery().DeRegister(pHandler);
}

namespace sipcarrier {

int Start(const Config& config, std::string& error) {
  try {
    Process& process = TheProcess();
    const base::MutexLock lifecycle(process.lifecycle);
    if (process.Get() != nullptr) {
      error = "the SIP stack has been started already; stop it first";
      return -1;
    }
    auto stack = std::make_shared<Stack>(config);
    if (!stack->Open(config, error)) return -1;
    const base::MutexLock quiet(process.quiet);
    const base::MutexLock lock(process.current_mutex);
    process.current = std::move(stack);
    return 0;
  } catch (const std::exception& failure) {
    error.assign("cannot start: ");
    error.append(failure.what());
    return -1;
  }
}

void Stop(std::chrono::milliseconds deadline) {
  Process& process = TheProcess();
  const std::shared_ptr<Stack> called_from = process.Get();
  // A thread cannot wait for its own end.
  if (called_from == nullptr || Stack::OfThisThread() != nullptr ||
      called_from->delivery().OnThisThread()) {
    return;
  }
  const base::MutexLock lifecycle(process.lifecycle);
  const std::shared_ptr<Stack> stack = process.Get();
  if (stack == nullptr) return;
  stack->Stop(deadline);
  const base::MutexLock quiet(process.quiet);
  stack->LookIntoInboxes();  // what was rung since the I/O thread ended
  const base::MutexLock lock(process.current_mutex);
  process.last = stack->counters().Read();
  process.current = nullptr;
}

Counters GetCounters() {
  Process& process = TheProcess();
  const base::MutexLock lock(process.current_mutex);
  return process.current == nullptr ? process.last : process.current->counters().Read();
}

std::vector<std::string> LocalEndpoints() {
  std::vector<std::string> result;
  if (const auto stack = TheStack()) {
    for (const SocketAddress& bound : stack->bound()) result.push_back(bound.Text());
  }
  return result;
}

bool RunOnIoThread(std::function<void()> task) {
  if (Stack* stack = Stack::OfThisThread()) return stack->Post(std::move(task));
  const auto stack = TheStack();
  return stack != nullptr && stack->Post(std::move(task));
}

void Ring(IoInbox& inbox) noexcept {
  if (Stack* stack = Stack::OfThisThread()) return stack->Ring(inbox);
  Process& process = TheProcess();
  const base::MutexLock quiet(process.quiet);
  if (const auto stack = process.Get()) return stack->Ring(inbox);
  inbox.OnIoInbox();
}

bool IsRunning() noexcept { return Stack::OfThisThread() != nullptr || TheStack() != nullptr; }

IoTimer::IoTimer(IoTimerSink& sink) : impl_(std::make_unique<Impl>(sink)) {}

IoTimer::~IoTimer() = default;

bool IoTimer::Set(std::chrono::milliseconds delay) noexcept {
  Stack* stack = Stack::OfThisThread();
  return stack != nullptr && stack->SetIoTimer(*impl_, delay);
}

void IoTimer::Cancel() noexcept {
  if (Stack* stack = Stack::OfThisThread()) stack->CancelIoTimer(*impl_);
}

std::chrono::milliseconds TimerT1() {
  const auto stack = TheStack();
  return stack == nullptr ? std::chrono::milliseconds(0) : stack->t1();
}

void SendRequest(std::unique_ptr<nsip_message> request, PrepareFn prepare, OutcomeFn done) {
  if (Stack* stack = Stack::OfThisThread()) {
    stack->Submit(std::move(request), std::move(prepare), std::move(done));
  } else if (done) {
    Outcome outcome;
    outcome.request = std::move(request);
    outcome.reason = "a request was sent from a thread that is not the I/O thread";
    done(std::move(outcome));
  }
}

bool SetRequestHandler(const std::string& method, RequestFn handler) {
  try {
    const auto stack = TheStack();
    return stack != nullptr && stack->server().handlers().Set(method, std::move(handler));
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool Respond(ServerTransactionId id, int status, std::string_view reason,
             const std::vector<nsip_header>& headers, std::string_view to_tag) {
  Stack* stack = Stack::OfThisThread();
  return stack != nullptr && stack->server().Respond(id, status, reason, headers, to_tag);
}

bool GuessLocalEndpoint(const nsip_uri& target, Endpoint& local) {
  const auto stack = TheStack();
  return stack != nullptr && stack->GuessLocalEndpoint(target, local);
}

void PostStackEvent(int nEventId, std::unique_ptr<nsip_message> message, std::string reason,
                    long nStackId) {
  if (Stack* own = Stack::OfThisThread()) {
    own->delivery().Collect(nEventId, std::move(message), std::move(reason), nStackId);
  } else if (const auto stack = TheStack()) {
    stack->delivery().Post(nEventId, std::move(message), std::move(reason), nStackId);
  }
}

bool FindCredential(const nsip_uri& aor, std::string_view realm, Credential& found) {
  const auto stack = TheStack();
  return stack != nullptr && stack->credentials().Find(aor, realm, found);
}

}  // namespace sipcarrier
