#include "host/printer.h"

#include <nlohmann/json.hpp>

#include "host/words.h"

namespace host {
namespace {

using Json = nlohmann::ordered_json;

// A peer's bytes that are not UTF-8 are replaced, so that the line is printed in any case.
std::string JsonLine(Json object, WallTime time) {
  object["time"] = Rfc3339(time);
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

void EventPrinter::OnAnswer(WallTime time, const Answer& answer) {
  if (!options_.json) return Line(time, DescribeAnswer(answer, options_));
  output_.Write(JsonLine({{"event", "answer"},
                          {"command", answer.command},
                          {"result", answer.result},
                          {"document", answer.document}},
                         time));
}

void EventPrinter::OnNotification(WallTime time, const NotificationItem& item, const Notice& notice,
                                  Circumstances circumstances) {
  if (!options_.json) return Line(time, DescribeNotice(notice, options_, circumstances));
  output_.Write(JsonLine({{"event", "notification"},
                          {"id", item.id},
                          {"source", item.source},
                          {"document", item.document}},
                         time));
}

void EventPrinter::OnTrace(WallTime time, const TraceItem& item) {
  if (options_.json) {
    output_.Write(JsonLine({{"event", "trace"},
                            {"direction", item.sent ? "sent" : "received"},
                            {"local", item.local},
                            {"remote", item.remote},
                            {"message", item.text}},
                           time));
    return;
  }
  std::string text = ClockTime(time) + "  " +
                     (item.sent ? "-> sent to " + item.remote + " from " + item.local
                                : "<- received from " + item.remote + " at " + item.local) +
                     "\n";
  for (std::size_t begin = 0; begin < item.text.size();) {
    std::size_t end = item.text.find('\n', begin);
    if (end == std::string::npos) end = item.text.size();
    std::string_view line(item.text.data() + begin, end - begin);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (!line.empty()) text += "              | " + Printable(line) + "\n";
    begin = end + 1;
  }
  output_.Write(text);
}

void EventPrinter::OnRemark(WallTime time, const std::string& text) {
  if (!options_.json) return Line(time, text);
  output_.Write(JsonLine({{"event", "remark"}, {"text", text}}, time));
}

void EventPrinter::Line(WallTime time, const std::string& text) {
  output_.Write(ClockTime(time) + "  " + text + "\n");
}

}  // namespace host
