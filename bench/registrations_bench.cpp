// What a registration costs: CPU and memory of this process for N of them, beside a bare UDP loop
// that sends and receives as many datagrams of the same size. The registrar's side runs in a
// process of its own and does not count.
//
//   registrations_bench [N]     default 10000, at most 10000

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "Brunelib/Brunelib.h"
#include "Sipcarrier/Sipcarrier.h"
#include "VorelKDCore/VorelKDCore.h"
#include "WirePeer.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kComponent[] = "{8836E13D-A307-43DF-8C88-B7783DC728BF}";

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double ResidentKiB() {
  std::ifstream file("/proc/self/statm");
  long total = 0;
  long resident = 0;
  file >> total >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

[[noreturn]] void Fail(const std::string& why) {
  std::fprintf(stderr, "registrations_bench: %s\n", why.c_str());
  std::exit(1);
}

// A registrar in a child process; it ends with the pipe.
class PeerProcess {
 public:
  PeerProcess() {
    std::array<int, 2> up{};
    std::array<int, 2> down{};
    if (pipe(up.data()) != 0 || pipe(down.data()) != 0) Fail("no pipe");
    child_ = fork();
    if (child_ == 0) {
      close(down[1]);
      const fakes::WirePeer peer;
      const std::string uri = peer.Uri() + "\n";
      if (write(up[1], uri.data(), uri.size()) < 0) _exit(1);
      char byte = 0;
      const ssize_t ended = read(down[0], &byte, 1);
      _exit(ended == 0 ? 0 : 1);
    }
    close(up[1]);
    close(down[0]);
    down_ = down[1];
    char byte = 0;
    while (read(up[0], &byte, 1) == 1 && byte != '\n') uri_ += byte;
    close(up[0]);
    if (uri_.empty()) Fail("the registrar did not start");
  }
  ~PeerProcess() {
    close(down_);
    waitpid(child_, nullptr, 0);
  }
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;
  [[nodiscard]] const std::string& uri() const { return uri_; }
  [[nodiscard]] std::uint16_t port() const {
    return static_cast<std::uint16_t>(std::stoi(uri_.substr(uri_.rfind(':') + 1)));
  }

 private:
  pid_t child_ = -1;
  int down_ = -1;
  std::string uri_;
};

// N requests of a REGISTER's size, at most 64 unanswered. CPU seconds.
double BareLoop(const PeerProcess& peer, int count) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(peer.port());
  if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) Fail("no bare socket");
  std::string request =
      "REGISTER sip:example.com SIP/2.0\r\nVia: SIP/2.0/UDP "
      "127.0.0.1:5060;branch=z9hG4bK0123456789abcdef;rport\r\n"
      "Max-Forwards: 70\r\nFrom: <sip:alice@example.com>;tag=0123456789\r\nTo: "
      "<sip:alice@example.com>\r\n"
      "Call-ID: 0123456789abcdef0123456789\r\nCSeq: 1 REGISTER\r\n"
      "Contact: <sip:alice@127.0.0.1:5060;line=1>;expires=600\r\nExpires: 600\r\nContent-Length: "
      "0\r\n\r\n";
  std::array<char, 2048> answer;
  const double before = CpuSeconds();
  int sent = 0;
  int received = 0;
  while (received < count) {
    while (sent < count && sent - received < 64) {
      if (send(fd, request.data(), request.size(), 0) < 0) Fail("sending failed");
      ++sent;
    }
    pollfd wait{fd, POLLIN, 0};
    if (poll(&wait, 1, 2000) <= 0) Fail("the bare loop lost a datagram");
    while (recv(fd, answer.data(), answer.size(), MSG_DONTWAIT) > 0) ++received;
  }
  close(fd);
  return CpuSeconds() - before;
}

std::atomic<int> g_outcomes{0};
std::atomic<int> g_deregistered{0};

int OnOutcome(const char*, int id, CXML*, void*) {
  ++(id == 0x1000 ? g_outcomes : g_deregistered);
  return 0;
}

// Commands in small groups, the loop in between, as a host would; until as many notifications have
// come.
template <typename Command>
void Drive(int count, const std::atomic<int>& done, Command command) {
  const auto end = Clock::now() + 60s;
  int sent = 0;
  while (done < count) {
    for (int i = 0; i < 32 && sent < count && sent - done < 64; ++i) command(sent++);
    kdWaitEvent(std::chrono::nanoseconds(200us).count());
    if (Clock::now() > end)
      Fail("only " + std::to_string(done) + " of " + std::to_string(count) + " came back");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::clamp(std::atoi(argv[1]), 1, 10000) : 10000;
  const PeerProcess peer;
  const double bare = BareLoop(peer, count);

  std::string error;
  sipcarrier::Config config;
  config.local_address = "127.0.0.1";
  if (sipcarrier::Start(config, error) != 0) Fail(error);
  const std::string identity = brunelib::LoadComponent("Tolvane", "TOLVANE_XSC", error);
  if (identity.empty()) Fail(error);
  XSSubNotify(kComponent, 0x1000, OnOutcome);
  XSSubNotify(kComponent, 0x1001, OnOutcome);

  std::vector<int> ids(static_cast<std::size_t>(count));
  const double memory_before = ResidentKiB();
  double cpu = CpuSeconds();
  Drive(count, g_outcomes, [&](int i) {
    CXML in;
    CXML out;
    in.SetDoc("<reg><aor>sip:user" + std::to_string(i) + "@example.com</aor><registrar>" +
              peer.uri() +
              "</registrar><expires>3600</expires><auto-refresh>true</auto-refresh></reg>");
    if (XSExecuteCommand(kComponent, 3, &in, &out) != 0) Fail("a register command failed");
    out.ResetPos();
    out.FindElem("reg");
    out.IntoElem();
    out.FindElem("id");
    ids[static_cast<std::size_t>(i)] = std::stoi(out.GetData());
  });
  const double registering = CpuSeconds() - cpu;
  const double memory = ResidentKiB() - memory_before;

  cpu = CpuSeconds();
  Drive(count, g_deregistered, [&](int i) {
    CXML in;
    CXML out;
    in.SetDoc("<reg><id>" + std::to_string(ids[static_cast<std::size_t>(i)]) + "</id></reg>");
    if (XSExecuteCommand(kComponent, 4, &in, &out) != 0) Fail("a deregister command failed");
  });
  const double deregistering = CpuSeconds() - cpu;

  brunelib::UnloadComponent(identity, 5s);
  sipcarrier::Stop(5s);
  brunelib::Shutdown(5s);

  const auto row = [&](const char* what, double seconds) {
    std::printf("%-28s %8.1f us CPU each   %5.1f x bare\n", what, 1e6 * seconds / count,
                seconds / bare);
  };
  std::printf("%d registrations over loopback\n", count);
  row("bare request and answer", bare);
  row("register, answered 200", registering);
  row("deregister, answered 200", deregistering);
  std::printf("%-28s %8.2f KiB resident each\n", "a live registration", memory / count);
  return 0;
}
