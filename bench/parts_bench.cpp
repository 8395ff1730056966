// The parts that a registration's cost is made of, each by itself: reading a response, writing a
// REGISTER, the documents of the bus, the digest, timers, and the way of a notification.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Brunelib/Brunelib.h"
#include "Domletlib/Domletlib.h"
#include "nsip/nsip.h"
#include "sivra/authenticator.h"
#include "VorelKDCore/VorelKDCore.h"
#include "XMLParserImpl.h"

namespace {

constexpr char kRequest[] =
    "REGISTER sip:127.0.0.1:5060 SIP/2.0\r\n"
    "Via: SIP/2.0/UDP 127.0.0.1:57699;branch=z9hG4bK8157171c8b42aefc0c3c3dc28975d8e9;rport\r\n"
    "From: <sip:user00001@example.com>;tag=a8ea66c1a84a2050\r\n"
    "To: <sip:user00001@example.com>\r\n"
    "Call-ID: 8e2a612707397dd520a465d59bd1e6e3\r\n"
    "CSeq: 2 REGISTER\r\n"
    "Max-Forwards: 70\r\n"
    "Contact: <sip:user00001@127.0.0.1:57699;line=1>;expires=3600\r\n"
    "Expires: 3600\r\n"
    "Content-Length: 0\r\n\r\n";

// What all responses begin with.
constexpr char kAnswer[] =
    "Via: SIP/2.0/UDP 127.0.0.1:57699;branch=z9hG4bK8157171c8b42aefc0c3c3dc28975d8e9;rport=57699;"
    "received=127.0.0.1\r\n"
    "From: <sip:user00001@example.com>;tag=a8ea66c1a84a2050\r\n"
    "To: <sip:user00001@example.com>;tag=f100r\r\n"
    "Call-ID: 8e2a612707397dd520a465d59bd1e6e3\r\n"
    "CSeq: 2 REGISTER\r\n";

std::string Success() {
  return std::string("SIP/2.0 200 OK\r\n") + kAnswer +
         "Contact: <sip:user00001@127.0.0.1:57699;line=1>;expires=3600\r\n"
         "Content-Length: 0\r\n\r\n";
}

std::string Challenge() {
  return std::string("SIP/2.0 401 Unauthorized\r\n") + kAnswer +
         "WWW-Authenticate: Digest realm=\"floor\", nonce=\"0000000000000001910a2dec89025cc1\", "
         "qop=\"auth\", algorithm=MD5\r\nContent-Length: 0\r\n\r\n";
}

void Expect(bool holds) {
  if (!holds) std::abort();
}

std::unique_ptr<nsip_message> Read(const std::string& text) {
  std::string reason;
  auto message = nsip_message_parse(text, reason);
  Expect(message != nullptr);
  return message;
}

void ReadSuccess(benchmark::State& state) {
  const std::string text = Success();
  for (auto _ : state) benchmark::DoNotOptimize(Read(text));
}
BENCHMARK(ReadSuccess);

void WriteRegister(benchmark::State& state) {
  const auto message = Read(kRequest);
  std::string text;
  for (auto _ : state) {
    Expect(nsip_message_to_str(*message, text) == 0);
    benchmark::DoNotOptimize(text.data());
  }
}
BENCHMARK(WriteRegister);

constexpr char kCommand[] =
    "<reg><aor>sip:user00001@example.com</aor><registrar>sip:127.0.0.1:5060</registrar>"
    "<expires>3600</expires><auto-refresh>true</auto-refresh></reg>";

// A register command's document: read by the bus's side, understood by the component, and the
// result written.
void RegisterCommand(benchmark::State& state) {
  for (auto _ : state) {
    CXML in;
    CXML out;
    Expect(in.SetDoc(kCommand) != 0);
    CXMLCRegMsg message;
    Expect(message.Parse(&in) == 0);
    message.m_nId = 4711;
    message.Result(&out);
    benchmark::DoNotOptimize(out.GetDoc());
  }
}
BENCHMARK(RegisterCommand);

void ReadCommandOnly(benchmark::State& state) {
  for (auto _ : state) {
    CXML in;
    Expect(in.SetDoc(kCommand) != 0);
    benchmark::DoNotOptimize(in);
  }
}
BENCHMARK(ReadCommandOnly);

// The first success as a notification's document.
void OutcomeDocument(benchmark::State& state) {
  for (auto _ : state) {
    CXML out;
    CXMLCRegNtfRsp message;
    message.m_nId = 4711;
    message.m_nResult = 0;
    message.m_strUri = "sip:user00001@example.com";
    message.Result(&out);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(OutcomeDocument);

// From a 401 to an authorised request: what each registration has to do once.
void AnswerChallenge(benchmark::State& state) {
  const auto challenge = Read(Challenge());
  const auto request = Read(kRequest);
  const auto lookup = [](std::string_view, sipcarrier::Credential& found) {
    found.user = "user00001";
    found.password = "secret";
    return true;
  };
  for (auto _ : state) {
    sivra::Authenticator authenticator;
    authenticator.Start();
    const auto copy = nsip_message_clone(*request);
    Expect(authenticator.Answer(*challenge, lookup));
    Expect(authenticator.Authorize(*copy));
    benchmark::DoNotOptimize(copy->headers.items.size());
  }
}
BENCHMARK(AnswerChallenge);

// The same nonce once more: what each refresh has to do.
void AuthorizeAgain(benchmark::State& state) {
  const auto challenge = Read(Challenge());
  const auto request = Read(kRequest);
  sivra::Authenticator authenticator;
  authenticator.Start();
  Expect(authenticator.Answer(*challenge, [](std::string_view, sipcarrier::Credential& found) {
    found.user = "user00001";
    found.password = "secret";
    return true;
  }));
  for (auto _ : state) {
    const auto copy = nsip_message_clone(*request);
    Expect(authenticator.Authorize(*copy));
    benchmark::DoNotOptimize(copy->headers.items.size());
  }
}
BENCHMARK(AuthorizeAgain);

// A timer is set and cancelled beside as many others.
void SetAndCancelTimer(benchmark::State& state) {
  constexpr KDint64 kHour = KDint64{3600} * 1'000'000'000;
  std::vector<KDTimer*> others;
  int names = 0;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    others.push_back(kdSetTimer(kHour + i, KD_TIMER_PERIODIC_AVERAGE, &names));
    Expect(others.back() != nullptr);
  }
  for (auto _ : state) {
    KDTimer* const timer = kdSetTimer(kHour / 2, KD_TIMER_PERIODIC_AVERAGE, &names);
    Expect(kdCancelTimer(timer) == 0);
  }
  for (KDTimer* const timer : others) Expect(kdCancelTimer(timer) == 0);
}
BENCHMARK(SetAndCancelTimer)->Arg(0)->Arg(100)->Arg(1000)->Arg(10000);

constexpr char kSource[] = "parts_bench";
std::atomic<int> g_heard{0};

int OnNotification(const char* /*source*/, int /*id*/, CXML* /*document*/, void* /*extra*/) {
  ++g_heard;
  return 0;
}

// A notification from the sender's call to the subscriber's, in groups of so many.
void Notify(benchmark::State& state) {
  Expect(XSSubNotify(kSource, 1, OnNotification) == XS_OK);
  CXML document;
  document.AddElem("reg", nullptr, 0);
  document.AddChildElem("result", 0, 0);
  document.AddChildElem("id", 4711, 0);
  document.AddChildElem("uri", "sip:user00001@example.com", 0);
  for (auto _ : state) {
    g_heard = 0;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      Expect(XSExpressNotify(kSource, 1, &document, nullptr) == XS_OK);
    }
    Expect(brunelib::DrainNotifications(std::chrono::seconds(10)));
    Expect(g_heard == state.range(0));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  XSUnsubNotify(kSource, 1, OnNotification);
}
// The CPU of both threads counts, not only the sender's.
BENCHMARK(Notify)->Arg(1)->Arg(64)->Arg(1000)->UseRealTime()->MeasureProcessCPUTime();

// A document made by the sender for each, as the component does it.
void MakeAndNotify(benchmark::State& state) {
  Expect(XSSubNotify(kSource, 1, OnNotification) == XS_OK);
  for (auto _ : state) {
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      CXML document;
      CXMLCRegNtfRsp message;
      message.m_nId = 4711;
      message.m_strUri = "sip:user00001@example.com";
      message.Result(&document);
      Expect(XSExpressNotify(kSource, 1, &document, nullptr) == XS_OK);
    }
    Expect(brunelib::DrainNotifications(std::chrono::seconds(10)));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  XSUnsubNotify(kSource, 1, OnNotification);
}
BENCHMARK(MakeAndNotify)->Arg(64)->UseRealTime()->MeasureProcessCPUTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  brunelib::Shutdown(std::chrono::seconds(1));
}
