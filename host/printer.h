// Prints a session for a person, or for a program as JSON lines.
#pragma once

#include <string>

#include "host/output.h"
#include "host/session.h"

namespace host {

// Main thread only.
class EventPrinter : public SessionListener {
 public:
  explicit EventPrinter(const RegisterOptions& options) : options_(options) {}

  void OnAnswer(WallTime time, const Answer& answer) override;
  void OnNotification(WallTime time, const NotificationItem& item, const Notice& notice,
                      Circumstances circumstances) override;
  void OnTrace(WallTime time, const TraceItem& item) override;
  void OnRemark(WallTime time, const std::string& text) override;

 private:
  void Line(WallTime time, const std::string& text);

  const RegisterOptions& options_;
  Output output_;
};

}  // namespace host
