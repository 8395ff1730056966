// Sipcarrier: the SIP stack service. It owns the sockets, the SIP transactions and two threads: the
// I/O thread (sockets, timers, transactions) and the delivery thread (stack events). One stack per
// process.
//
// Three faces: what the component needs (handler, events), what the host needs (configuration,
// start, stop, trace, counters), what user agents such as sivra build on (requests, tasks on the
// I/O thread).
//
// Functions throw nothing but std::bad_alloc.
// UDP is the one transport; a name without a port stands for its A and AAAA records and port 5060
// (NAPTR and SRV, RFC 3263 §4.1 and §4.2, are not asked).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "nsip/nsip.h"
#include "visibility.h"

// --- for the component
// ---------------------------------------------------------------------------------

inline constexpr int SIP_EVENT_REGISTER_RESPONSE = 26;  // a final response to a REGISTER
inline constexpr int SIP_EVENT_REGISTER_TIMEOUT =
    74;  // no answer in time (RFC 3261 §17.1.2, timer F)
inline constexpr int SIP_EVENT_REGISTER_UNSENT =
    78;  // could not be sent: address, transport, memory

// The record and all that it points to are valid during OnStackEvent only.
struct SipStackEvent {
  int nEventId;            // one of the above
  nsip_message* pMessage;  // the response; null with 74 and 78; it stays the stack's
  int nReserved;           // 0
  const char* szReason;    // with 74 and 78: why, for a person; otherwise null
  long nStackId;           // the id that sivra_register_set_info gave
};

// A handler of stack events. OnStackEvent runs on the stack's delivery thread with no lock of the
// stack held.
class TOLVANE_PUBLIC ISipStackEvent {
 public:
  virtual ~ISipStackEvent();
  virtual int OnStackEvent(SipStackEvent* pEvent) = 0;
  virtual std::string GetServiceName() = 0;
  virtual void SetServerName(const char* szName);
  virtual const char* GetServerName(unsigned int* pnLength);
  virtual void SetComponentName(const char* szName);
  virtual const char* GetComponentName(unsigned int* pnLength);

 protected:
  char m_szServerName[256] = {};
  char m_szComponentName[256] = {};
};

// From a result of 0 on stack events reach the handler. Non-zero: null handler, one is registered
// already, or the stack has not been started.
TOLVANE_PUBLIC int Sipcarrier_RegisterHandler(ISipStackEvent* pHandler);
// After it returns no further call comes (it waits for one under way, except when called from it).
// 0, or -1.
TOLVANE_PUBLIC int Sipcarrier_DeRegisterHandler(ISipStackEvent* pHandler);

namespace sipcarrier {

// What is wrong with a configuration file, for a person.
struct ConfFault {
  std::string file;
  int line = 0;  // from 1; 0: the file as a whole
  std::string reason;
};

// A template as it stands in the file.
struct ConfMessage {
  struct Header {
    std::string name;
    std::string value;  // cells not filled in
    int line = 0;
  };
  std::string kind;
  std::string method;
  std::vector<Header> headers;
  int line = 0;
};

}  // namespace sipcarrier

// Templates for outgoing messages, read from a file (docs/configuration.md tells its form).
//
// Threads: everything may be called by any thread at any time. SetTransferCell and GetSipMsg are
// one step of one thread; a file that another thread reads meanwhile counts from the next step on.
class TOLVANE_PUBLIC CVorelSipConf {
 public:
  // The file is this name with ".xml" behind it.
  explicit CVorelSipConf(const std::string& strName);
  virtual ~CVorelSipConf();
  CVorelSipConf(const CVorelSipConf&) = delete;
  CVorelSipConf& operator=(const CVorelSipConf&) = delete;

  // The directory of the file, for the next ReadConfFromFile, with or without a "/" at its end; a
  // relative one is looked for from the process's current directory. Empty: there is none, and
  // reading fails until another one is set.
  virtual void SetCfgPath(const std::string& strPath);
  // 0: the file's templates are in force. Non-zero: it is missing, unreadable or faulty, Faults
  // tells why, and what was in force before still is. Of calls at the same time the last one to end
  // counts. Does not throw.
  virtual int ReadConfFromFile();

  // The values for the next GetSipMsg of this thread, and for no further one; the map must live
  // until then.
  void SetTransferCell(const std::map<std::string, std::string>& mapCell);
  // The first template of this kind and method with its cells filled in, or null when there is
  // none. A header whose cell is missing, or whose value no header may hold, is left out; Expires
  // is spelled "expires", however the file has it. The message has its header list only. It stays
  // the library's and is good until this thread's next GetSipMsg. pSipMessage is not looked at. May
  // throw std::bad_alloc.
  nsip_message* GetSipMsg(const std::string& strFirst, const std::string& strSecond,
                          nsip_message* pSipMessage);
  // Whether there is a template of this kind and method now: without one nobody needs to make cells.
  [[nodiscard]] bool HasSipMsg(const std::string& strFirst, const std::string& strSecond) const;

  // Of the last ReadConfFromFile, in the order of lines; empty when it succeeded, and when memory
  // ran out.
  [[nodiscard]] std::vector<sipcarrier::ConfFault> Faults() const;
  // What is in force.
  [[nodiscard]] std::vector<sipcarrier::ConfMessage> Messages() const;

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

namespace sipcarrier {

// --- for the host --------------------------------------------------------------------------------

// A username and password for digest. It applies to registrations of `aor` (compared by RFC 3261
// §19.1.4) when that is not empty, and to challenges of `realm` when that is not empty; the most
// exact one wins.
struct Credential {
  std::string aor;
  std::string realm;
  std::string user;
  std::string password;
};

struct TraceRecord {
  bool sent = false;  // false: received
  std::string local;  // "127.0.0.1:5060", "[::1]:5060"
  std::string remote;
  std::string_view text;  // the message; the secrets of Authorization headers are masked
};

struct Config {
  // What to bind: an address literal, or empty for every address. 0: a free port.
  std::string local_address;
  std::uint16_t local_port = 0;
  // RFC 3261 §17.1.2.2 and table 4; timers F is 64 * t1.
  std::chrono::milliseconds t1{500};
  std::chrono::milliseconds t2{4000};
  std::chrono::milliseconds t4{5000};
  std::vector<Credential> credentials;
  // Called on the I/O thread for each message, in the order of the wire. Must not call back into
  // the stack.
  std::function<void(const TraceRecord&)> trace;
};

struct Counters {
  std::uint64_t sent = 0;             // datagrams, retransmissions included
  std::uint64_t received = 0;         // datagrams
  std::uint64_t retransmitted = 0;    // requests
  std::uint64_t dropped_garbage = 0;  // no SIP message
  std::uint64_t dropped_stray = 0;    // answers to nobody, ACKs
  std::uint64_t timeouts = 0;
  std::uint64_t lost_no_memory = 0;
  std::size_t transactions = 0;  // client transactions alive now, completed ones included
  // Of requests from outside.
  std::uint64_t requests = 0;           // new ones
  std::uint64_t requests_answered = 0;  // the stack's own answers included
  std::uint64_t requests_repeated = 0;  // copies: absorbed, or answered with the same bytes
  std::uint64_t dropped_overload = 0;   // more unanswered ones than the stack keeps (4,096)
  std::size_t server_transactions = 0;  // alive now, answered ones included
};

// Binds the sockets and starts the threads. 0; or -1 and a text that says what failed and what to
// do. May be called again after Stop.
[[nodiscard]] TOLVANE_PUBLIC int Start(const Config& config, std::string& error);
// No new work; waits for requests in flight (challenges included) up to the deadline, then ends the
// threads. No callback comes afterwards; the handler of stack events is registered no more.
// Harmless when not started; does nothing on the stack's own threads. It outlasts the deadline only
// while a callback does.
TOLVANE_PUBLIC void Stop(std::chrono::milliseconds deadline);
[[nodiscard]] TOLVANE_PUBLIC Counters GetCounters();
// What is bound: "127.0.0.1:5060" ...; empty when not started.
[[nodiscard]] TOLVANE_PUBLIC std::vector<std::string> LocalEndpoints();

// --- for user agents -----------------------------------------------------------------------------

struct Endpoint {
  std::string host;  // literal; IPv6 in brackets, as it stands in a URI
  std::uint16_t port = 0;
  std::string transport = "UDP";
};

struct Outcome {
  enum class Kind { kResponse, kTimeout, kUnsent };
  Kind kind = Kind::kUnsent;
  std::unique_ptr<nsip_message> response;  // with kResponse: a final response (2xx-6xx)
  std::string reason;                      // otherwise
  // What was sent, given back; null only when memory was so short that it is lost.
  std::unique_ptr<nsip_message> request;
};

// Runs the task on the I/O thread, in order of the calls; false when the stack is not running or
// memory is exhausted (the task will not run). Tasks must not throw.
[[nodiscard]] TOLVANE_PUBLIC bool RunOnIoThread(std::function<void()> task);

// A user agent's queue into the I/O thread, which the user agent keeps itself; static, since it
// outlives every stack.
class TOLVANE_PUBLIC IoInbox {
 public:
  // On the I/O thread: takes out of the queue what is in it. Must not throw.
  virtual void OnIoInbox() noexcept = 0;

 protected:
  ~IoInbox() = default;

 private:
  friend class Stack;
  std::atomic<bool> rung_{false};
  IoInbox* next_rung_ = nullptr;
};

// Has the inbox looked at, once for all calls before that look, and before any task that is given
// to RunOnIoThread after this call. Needs no memory and never refuses: while the stack stops the
// I/O thread still comes; while none runs, OnIoInbox is called before this returns, on this thread,
// and no stack starts meanwhile. Any thread; that last case takes a lock of its own.
TOLVANE_PUBLIC void Ring(IoInbox& inbox) noexcept;

// Whether a stack has been started and Stop has not returned. Any thread.
[[nodiscard]] TOLVANE_PUBLIC bool IsRunning() noexcept;

// T1 of the running stack (RFC 3261 §17.1.1.1), the measure of what user agents wait for; 0 when
// not started. Any thread.
[[nodiscard]] TOLVANE_PUBLIC std::chrono::milliseconds TimerT1();

// Whom a timer calls, on the I/O thread; either call may destroy the timer.
class IoTimerSink {
 public:
  virtual void OnIoTimer() noexcept = 0;  // the time is over; the timer may be set again
  // Stop has begun: comes once to each timer that was ever set, whether it is set now or not. What
  // is sent from here is still waited for; the timer cannot be set any more.
  virtual void OnIoStop() noexcept = 0;

 protected:
  ~IoTimerSink() = default;
};

// A one-shot timer of the I/O thread, which alone may use it, and destroy it once it has been set.
// The time in which the machine sleeps counts.
class TOLVANE_PUBLIC IoTimer {
 public:
  explicit IoTimer(IoTimerSink& sink);  // any thread; may throw std::bad_alloc
  IoTimer(const IoTimer&) = delete;
  IoTimer& operator=(const IoTimer&) = delete;
  ~IoTimer();

  // Takes the place of what was set. false: not on the I/O thread, or the stack stops.
  [[nodiscard]] bool Set(std::chrono::milliseconds delay) noexcept;
  void Cancel() noexcept;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// Called on the I/O thread when the destination and with it the local endpoint are known, before
// the request is written: the place for Contact. false gives the request up (kUnsent).
// It may run again when the address could not be reached and the name has another one.
using PrepareFn = std::function<bool(nsip_message& request, const Endpoint& local)>;
using OutcomeFn = std::function<void(Outcome outcome)>;

// Starts a client transaction (RFC 3261 §17.1.2) for a request of any method but INVITE and ACK,
// complete but for Via. I/O thread only. Destination: the topmost Route, else the Request-URI (RFC
// 3261 §8.1.2), `maddr`, `transport` and port heeded; names are looked up asynchronously. A new
// branch and `rport` (RFC 3581) go into the Via. `done` runs exactly once on the I/O thread, also
// when sending fails at once (then from a later turn of the loop) and at Stop: kTimeout when the
// request had left, else kUnsent. Only when memory is so short that not even this can be noted, it
// runs before SendRequest returns. 1xx are consumed.
TOLVANE_PUBLIC void SendRequest(std::unique_ptr<nsip_message> request, PrepareFn prepare,
                                OutcomeFn done);

// A request from outside that waits for its answer. Never used twice; 0 stands for none.
using ServerTransactionId = std::uint64_t;

// Called on the I/O thread for each new request; retransmissions are the stack's affair (RFC 3261
// §17.2.2). The answer is given with Respond, from the call or later: without one the transaction
// ends after 64 * T1 unanswered.
using RequestFn = std::function<void(std::unique_ptr<nsip_message> request, ServerTransactionId id,
                                     const Endpoint& local)>;

// From a result of true on, requests of this method reach the handler. An empty handler takes it
// away: no call comes afterwards (it waits for one under way, except on the I/O thread). Stop takes
// all handlers away. false: somebody handles the method already, not started, memory. Without a
// handler OPTIONS is answered 200, a method that nobody handles 405 with Allow (RFC 3261 §8.2.1),
// CANCEL 481; ACK and what is no proper request are dropped. What a handler gets demands no
// extension (420 otherwise) and has a sip or sips URI (416). A handler that throws std::bad_alloc
// has not seen the request; its next copy counts as new. INVITE, ACK and CANCEL cannot be handled.
[[nodiscard]] TOLVANE_PUBLIC bool SetRequestHandler(const std::string& method, RequestFn handler);

// Sends the final answer (RFC 3261 §8.2.6): Via, From, To (with a tag of ours when it has none),
// Call-ID and CSeq are the request's; `to_tag`, when not empty, is the tag of ours. The headers are
// those that have no field of their own in nsip_message. I/O thread only. false: no such
// transaction, it has been answered, a part of the answer is not well-formed, or memory (then the
// transaction is gone, and the next copy of the request counts as new).
TOLVANE_PUBLIC bool Respond(ServerTransactionId id, int status, std::string_view reason,
                            const std::vector<nsip_header>& headers = {},
                            std::string_view to_tag = {});

// The local endpoint that a request to this URI would come from, as far as it can be told without a
// lookup (address literals); otherwise the bound address or, when none is bound, an address of this
// machine. Any thread. false when not started.
[[nodiscard]] TOLVANE_PUBLIC bool GuessLocalEndpoint(const nsip_uri& target, Endpoint& local);

// Queues a stack event for the handler; it is dropped when no handler is registered. Any thread;
// what the I/O thread queues in one turn of its loop goes over together at the end of it.
TOLVANE_PUBLIC void PostStackEvent(int nEventId, std::unique_ptr<nsip_message> message,
                                   std::string reason, long nStackId);

// The credential for this address of record and realm, or false. Any thread.
[[nodiscard]] TOLVANE_PUBLIC bool FindCredential(const nsip_uri& aor, std::string_view realm,
                                                 Credential& found);

}  // namespace sipcarrier
