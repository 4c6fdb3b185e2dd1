#include "tools/web/metrics.h"

#include <fmt/format.h>

#include <map>

namespace tools {
namespace {

using commands::member;

// A value of a label in the text format: backslash, quote and line feed are escaped.
std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '\\' || c == '"') result += '\\';
    result += c == '\n' ? "\\n" : std::string(1, c);
  }
  return result + '"';
}

class Text {
 public:
  // All values of a metric are together, below its description.
  void add(const std::string& name, const std::string& labels, const Json& value) {
    if (value.is_number() || value.is_boolean())
      values_[name] +=
          fmt::format("{}{{{}}} {}\n", name, labels, value.is_boolean() ? (value ? "1" : "0") : value.dump());
  }

  std::string take() const {
    std::string text;
    for (const auto& [name, type, help] : kMetrics) {
      const auto values = values_.find(name);
      if (values != values_.end())
        text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n{3}", name, help, type, values->second);
    }
    return text;
  }

 private:
  struct Metric {
    const char *name, *type, *help;
  };
  static constexpr Metric kMetrics[] = {
      {"headend_up", "gauge", "Whether the headend answers."},
      {"headend_virtual_seconds", "gauge", "Virtual time since power-up."},
      {"headend_alarms", "gauge", "Active alarms."},
      {"headend_assertion_failures_total", "counter", "Failed checks of the module."},
      {"headend_heap_used_bytes", "gauge", "Memory of the cards in use."},
      {"headend_card_running", "gauge", "Whether the card of a slot runs."},
      {"headend_record_kept", "gauge", "Whether the last save of the card's record succeeded."},
      {"headend_on_air", "gauge", "Whether the channel is on the air."},
      {"headend_level_dbuv", "gauge", "Level of the channel at the connector."},
      {"headend_frequency_khz", "gauge", "Carrier of the channel."},
      {"headend_rate_bytes_per_second", "gauge",
       "Rate of the channel's packets in the last second, by kind."},
      {"headend_packets_dropped_total", "counter", "Packets from the router that found the output full."},
      {"headend_input_packets_total", "counter", "Packets of an input of a source card."},
      {"headend_input_rate_bytes_per_second", "gauge",
       "Rate of an input of a source card in the last second."},
  };
  std::map<std::string, std::string> values_;
};

// Prometheus counts in bytes.
Json bytes(const Json& bits) {
  constexpr double kBitsOfByte = 8;
  return bits.is_number() ? Json(bits.get<double>() / kBitsOfByte) : Json();
}

void addCard(Text& text, const std::string& headend, const Json& card) {
  const std::string slot = fmt::format(R"({},slot="{}")", headend, member(card, "slot").dump());
  text.add("headend_card_running", slot, member(card, "state") == "running");
  text.add("headend_record_kept", slot, member(card, "record_kept"));
  int number = 0;
  for (const Json& channel : member(card, "channels")) {
    const std::string labels = fmt::format(R"({},channel="{}")", slot, ++number);
    const Json& rf = member(channel, "rf");
    text.add("headend_on_air", labels, member(rf, "on_air"));
    text.add("headend_level_dbuv", labels, member(rf, "level_dbuv"));
    text.add("headend_frequency_khz", labels, member(rf, "frequency_khz"));
    for (const char* kind : {"psi", "routed", "null", "input"})
      text.add("headend_rate_bytes_per_second", fmt::format(R"({},kind="{}")", labels, kind),
               bytes(member(member(channel, "rates"), kind)));
    text.add("headend_packets_dropped_total", labels, member(member(channel, "packets"), "dropped"));
  }
}

void addHeadend(Text& text, const std::string& headend, const Json& report) {
  text.add("headend_virtual_seconds", headend, member(report, "virtual_seconds"));
  text.add("headend_alarms", headend, member(member(report, "alarms"), "standing").size());
  text.add("headend_assertion_failures_total", headend, member(report, "assertion_failures").size());
  text.add("headend_heap_used_bytes", headend, member(member(report, "heap"), "used"));
  for (const Json& card : member(report, "cards")) addCard(text, headend, card);
  for (const Json& source : member(report, "sources")) {
    for (const Json& input : member(source, "inputs")) {
      const std::string labels = fmt::format(R"({},slot="{}",input="{}")", headend,
                                             member(source, "slot").dump(), member(input, "input").dump());
      text.add("headend_input_packets_total", labels, member(input, "packets"));
      text.add("headend_input_rate_bytes_per_second", labels, bytes(member(input, "bit_rate")));
    }
  }
}

}  // namespace

std::string metricsOf(const std::vector<std::unique_ptr<Feed>>& feeds) {
  Text text;
  for (const auto& feed : feeds) {
    const std::string headend = "headend=" + quoted(feed->place().name);
    const Json report = feed->report();
    text.add("headend_up", headend, !report.is_null());
    if (!report.is_null()) addHeadend(text, headend, report);
  }
  return text.take();
}

}  // namespace tools
