#include "headend/page_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "client/chassis_services.h"
#include "commands/command.h"
#include "commands/panel.h"
#include "commands/status.h"
#include "headend/report.h"
#include "tools/web/page.h"

namespace headend {
namespace {

using tools::Json;

constexpr std::size_t kMostBytes = 500'000;  // of the file
constexpr std::size_t kMostEvents = 1000;    // of the alarm log, the newest

// Requests are served at once, and no time passes meanwhile.
class DirectLink final : public client::Link {
 public:
  explicit DirectLink(BackEnd& backEnd) : backEnd_(backEnd) {}
  void wait(std::chrono::milliseconds /*time*/) override {}

 private:
  protocol::Reply exchange(protocol::Request request) override { return backEnd_.replyAtOnce(request); }

  BackEnd& backEnd_;
};

class DirectSession final : public commands::Session {
 public:
  explicit DirectSession(BackEnd& backEnd) : link_(backEnd) {}

  client::Link& link() override { return link_; }
  client::CalibrationLink& calibration() override { client::fail("no calibration in a report"); }
  std::string chassis() const override { return "this chassis"; }
  void print(const std::string& text) override { printed_ += text; }
  void note(const std::string& /*text*/) override {}
  std::filesystem::path rescueFolder() const override { return {}; }
  std::optional<client::InputCounts> inputs() override { return std::nullopt; }
  bool pause(std::chrono::milliseconds /*time*/) override { return true; }
  void showPanel(std::chrono::seconds /*patience*/) override { client::fail("there is no terminal"); }

  std::string take() { return std::exchange(printed_, {}); }

 private:
  DirectLink link_;
  std::string printed_;
};

// What qamweb would give for a path, as an object; {"error": TEXT} where it would refuse.
Json answerOf(DirectSession& session, const std::string& path) try {
  const tools::Question question = tools::questionOf(path).value();
  std::vector<std::string> words = question.words;
  words.emplace_back("--json");
  commands::LineParser parser;
  commands::Surroundings surroundings;
  const commands::Call call = parser.parse(words);
  call.command->prepare(surroundings);
  session.take();
  call.command->carryOut(session);
  return Json::parse(tools::answerText(question, session.take()));
} catch (const std::exception& e) {
  return {{"error", e.what()}};
}

// ---- Long lists take less room than the page gets. report.js makes them whole again.

// Each number is the difference to the one before.
Json asDifferences(const Json& numbers) {
  Json list = Json::array();
  std::int64_t before = 0;
  for (const Json& number : numbers)
    list.push_back(number.get<std::int64_t>() - std::exchange(before, number.get<std::int64_t>()));
  return list;
}

Json packedHistory(Json history) {
  for (Json& channel : history["channels"]) {
    for (Json& rates : channel) rates = asDifferences(rates);
  }
  return history;
}

// Of objects with the same members the values in rows; texts in two languages are kept once.
Json packedEvents(const Json& answer) {
  if (!answer.contains("events")) return answer;
  const Json& events = answer["events"];
  Json columns = Json::array(), rows = Json::array(), texts = Json::array();
  std::map<std::string, std::size_t> known;
  const std::size_t leftOut = events.size() - std::min(events.size(), kMostEvents);
  for (std::size_t i = leftOut; i < events.size(); ++i) {
    Json row = Json::array();
    const bool isFirst = i == leftOut;
    for (const auto& [name, value] : events[i].items()) {
      if (isFirst) columns.push_back(name);
      if (!value.is_object()) {
        row.push_back(value);
        continue;
      }
      const auto [text, isNew] = known.try_emplace(tools::compactText(value), texts.size());
      if (isNew) texts.push_back(value);
      row.push_back(Json::array({text->second}));
    }
    rows.push_back(std::move(row));
  }
  return {{"left_out", leftOut}, {"columns", columns}, {"texts", texts}, {"rows", rows}};
}

// ---- The file

// The answers by path, as the text of a JSON object without '<', so that nothing in it ends the script
// element.
class Answers {
 public:
  explicit Answers(std::size_t room) : room_(room) {}

  void add(const std::string& path, const Json& answer, bool mustFit = false) {
    std::string text = fmt::format("{}\n\"{}\":", text_.empty() ? "" : ",", path);
    for (const char c : tools::compactText(answer)) text += c == '<' ? "\\u003c" : std::string(1, c);
    if (mustFit && text_.size() + text.size() + kErrorRoom > room_)
      return add(path, {{"error", "it is left out, so that the report is not longer than 500 kB"}});
    text_ += text;
  }
  std::string text() const { return text_; }

 private:
  static constexpr std::size_t kErrorRoom = 5000;  // for those that do not fit

  std::size_t room_;
  std::string text_;
};

}  // namespace

void PageReport::update() {
  const Nanos measured = headend_.rates.measuredAt();
  if (measured == keptAt_) return;
  keptAt_ = measured;
  for (const int slot : headend_.options.slots) {
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      rates_.add(fmt::format("{}.{}", slot + 1, port + 1), ratesReport(headend_.rates.output(slot, port)));
    }
  }
}

std::string PageReport::text() {
  using std::chrono::milliseconds;
  const auto made =
      std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch());
  Answers all(kMostBytes - tools::reportPage("").size());
  all.add("/api/headends",
          {{"version", QAM_VERSION}, {"headends", {{{"id", "1"}, {"name", "headend"}, {"server", ""}}}}});
  DirectSession session(headend_.backEnd);
  all.add("/api/1/state", tools::stateJson(1, made.count(), "", {}, report(headend_),
                                           commands::lcdJson(client::readLcd(session.link()))));
  const auto add = [&](const std::string& path, const Json& answer) {
    all.add("/api/1/" + path, answer, true);
  };
  add("history", packedHistory(rates_.json()));
  add("alarms", packedEvents(answerOf(session, "alarms")));
  for (const char* part : {"programmes", "pidmap", "psi"}) {
    for (const int slot : headend_.options.slots) {
      for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
        const std::string path = fmt::format("{}/{}.{}", part, slot + 1, port + 1);
        add(path, answerOf(session, path));
      }
    }
  }
  return tools::reportPage(fmt::format("{{\"answers\":{{{}\n}}}}", all.text()));
}

}  // namespace headend
