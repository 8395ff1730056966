#include "host/output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

namespace host {

void Output::Write(std::string_view lines) {
  if (closed_) return;
  std::string resumed;
  if (torn_) {
    resumed = "\n" + std::string(lines);
    lines = resumed;
  }
  const std::size_t whole = lines.size();
  while (!lines.empty()) {
    pollfd fd = {fd_, POLLOUT, 0};
    const int ready = poll(&fd, 1, stalled_ ? 0 : 500);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      if (!stalled_) std::fputs("tolvane: the output is not read; going on without it\n", stderr);
      stalled_ = true;
      torn_ = torn_ || lines.size() != whole;
      return;
    }
    // A pipe that is ready takes PIPE_BUF bytes without blocking.
    const ssize_t written =
        write(fd_, lines.data(), std::min(lines.size(), static_cast<std::size_t>(PIPE_BUF)));
    if (written < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      closed_ = true;
      std::fputs("tolvane: the output has been closed; going on without it\n", stderr);
      return;
    }
    lines.remove_prefix(static_cast<std::size_t>(written));
    stalled_ = false;
  }
  torn_ = false;
}

}  // namespace host
