#include "report.h"

#include <time.h>

#include <algorithm>
#include <list>
#include <nlohmann/json.hpp>
#include <utility>

#include "charencoding.h"
#include "format.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr char kStartIt[] = "See the log, and start the service: systemctl restart vocastra";
constexpr char kSeeHelper[] = "See what its helper says in the log";

constexpr size_t kShownMessages = 10;  // The last ones in the table; JSON has all.

// The first message; null if there is none.
const XMLElement* MessageOf(const XMLElement& directory_) {
  const XMLElement* child = directory_.GetFirstChild();
  while (child != nullptr && !child->HasName("message")) {
    child = child->GetNextSibling();
  }
  return child;
}

bool IsUpdated(const XMLElement& directory_) {
  return directory_.GetAttributeString("status") == "1";
}

Json JsonString(const XMLElement& element_, const char* name_) {
  return Utf8ReplaceInvalid(element_.GetAttributeString(name_));
}

Json JsonDirectory(const XMLElement& directory_) {
  Json message;
  if (const XMLElement* element = MessageOf(directory_)) {
    message = {{"id", element->GetAttributeInteger("id")},
               {"filename", JsonString(*element, "filename")},
               {"plays", element->GetAttributeInteger("plays")}};
  }
  return {{"id", JsonString(directory_, "id")},
          {"path", JsonString(directory_, "path")},
          {"status", IsUpdated(directory_)},
          {"total-file-count", directory_.GetAttributeInteger("total-file-count")},
          {"updated-file-count", directory_.GetAttributeInteger("updated-file-count")},
          {"message", message}};
}

// The value as valid UTF-8 without control characters, which a terminal could obey.
std::string Printable(const std::string& value_) {
  std::string text;
  const std::string valid = Utf8ReplaceInvalid(value_);
  for (size_t i = 0; i < valid.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(valid[i]);
    const bool is_c1 = byte == 0xC2 && static_cast<unsigned char>(valid[i + 1]) < 0xA0;
    if (byte < 0x20 || byte == 0x7F || is_c1) {
      text += '?';
      i += is_c1 ? 1 : 0;
    } else {
      text += valid[i];
    }
  }
  return text;
}

// The width in code points, which is about the number of columns.
size_t WidthOf(const std::string& text_) {
  return static_cast<size_t>(
      std::count_if(text_.begin(), text_.end(), [](char c_) { return (c_ & 0xC0) != 0x80; }));
}

using Row = std::vector<std::string>;

std::string ToColumns(const std::vector<Row>& rows_) {
  std::vector<size_t> widths(rows_.front().size());
  for (const Row& row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], WidthOf(row[i]));
    }
  }
  std::string text;
  for (const Row& row : rows_) {
    for (size_t i = 0; i + 1 < row.size(); ++i) {
      text += row[i] + std::string(widths[i] - WidthOf(row[i]) + 2, ' ');
    }
    text += row.back() + "\n";
  }
  return text;
}

Row RowOf(const XMLElement& directory_) {
  const XMLElement* message = MessageOf(directory_);
  const auto of_message = [message](const char* name_) {
    return message == nullptr ? "-" : Printable(message->GetAttributeString(name_));
  };
  return {Printable(directory_.GetAttributeString("id")),
          IsUpdated(directory_) ? "yes" : "NO",
          directory_.GetAttributeString("total-file-count"),
          directory_.GetAttributeString("updated-file-count"),
          of_message("id"),
          of_message("plays"),
          of_message("filename"),
          Printable(directory_.GetAttributeString("path"))};
}

Json JsonProblem(const Problem& problem_) {
  return {{"id", Utf8ReplaceInvalid(problem_.id)},
          {"sentence", Utf8ReplaceInvalid(problem_.sentence)},
          {"remedy", Utf8ReplaceInvalid(problem_.remedy)},
          {"since", problem_.since}};
}

Json JsonPlayer(const PlayerState& player_) {
  Json waiting = Json::array();
  for (const std::string& name : player_.waiting) {
    waiting.push_back(Utf8ReplaceInvalid(name));
  }
  return {{"pid", player_.pid},
          {"running", IsPlayerRunning(player_)},
          {"playing", Utf8ReplaceInvalid(player_.playing)},
          {"since", player_.since},
          {"waiting", waiting},
          {"device", Utf8ReplaceInvalid(player_.device)},
          {"device-ok", player_.device_ok},
          {"rate", player_.rate},
          {"problem", Utf8ReplaceInvalid(player_.problem)},
          {"problem-time", player_.problem_time}};
}

void AddHealth(const Health& health_, Json& json_) {
  json_["station"] = health_.station;
  json_["daemon"] = health_.daemon;
  json_["hung"] = health_.is_hung;
  json_["saying"] = Utf8ReplaceInvalid(health_.saying);
  json_["counters"] = Json::object();
  for (const auto& [name, value] : health_.counters) {
    json_["counters"][name] = value;
  }
  json_["messages"] = Json::array();
  for (const MessageRecord& record : health_.messages) {
    json_["messages"].push_back({{"directory", Utf8ReplaceInvalid(record.directory)},
                                 {"file", Utf8ReplaceInvalid(record.file)},
                                 {"state", NameOf(record.state)},
                                 {"pieces", record.pieces},
                                 {"failed", record.failed},
                                 {"arrived", record.arrived},
                                 {"ended", record.ended}});
  }
}

std::string PlayerLine(const std::string& zone_, const PlayerState& player_) {
  std::string line = zone_.empty() ? "player:  " : "player " + Printable(zone_) + ": ";
  if (!IsPlayerRunning(player_)) {
    return line + "does not run\n";
  }
  line += player_.playing.empty() ? "plays nothing" : "plays " + Printable(player_.playing);
  return line + Format(", %d waiting\n", static_cast<int>(player_.waiting.size()));
}

std::string MessageTable(const std::vector<MessageRecord>& messages_) {
  std::vector<Row> rows = {{"MESSAGE", "STATE", "PIECES", "FAILED", "ARRIVED"}};
  const size_t first = messages_.size() - std::min(messages_.size(), kShownMessages);
  for (size_t i = first; i < messages_.size(); ++i) {
    const MessageRecord& record = messages_[i];
    rows.push_back({Printable(record.directory + "/" + record.file), NameOf(record.state),
                    Format("%d", record.pieces), Format("%d", record.failed),
                    TimeText(record.arrived)});
  }
  return rows.size() > 1 ? "\n" + ToColumns(rows) : "";
}

std::string ProblemLines(const Problem& problem_) {
  std::string text = "PROBLEM: " + Printable(problem_.sentence) + "\n";
  if (!problem_.remedy.empty()) {
    text += "  remedy: " + Printable(problem_.remedy) + "\n";
  }
  if (problem_.since != 0) {
    text += "  since:  " + TimeText(problem_.since) + " (" + Printable(problem_.id) + ")\n";
  }
  return text;
}

}  // namespace

Report NoDaemon(const std::string& why_) {
  Report report;
  report.problems.push_back({"no-daemon", "no daemon: " + why_, kStartIt, 0});
  return report;
}

Report MakeReport(std::unique_ptr<XMLElement> status_, bool is_stale_, int limit_) {
  Report report;
  report.is_running = !is_stale_;
  if (is_stale_) {
    report.problems.push_back(
        {"stale", Format("stale: not rewritten for %d seconds", limit_), kStartIt, 0});
  }
  for (const XMLElement* directory : status_->GetChildren("directory")) {
    if (!IsUpdated(*directory)) {
      const std::string id = directory->GetAttributeString("id");
      report.problems.push_back({"remote:" + id, "no updates: directory " + id, kSeeHelper, 0});
    }
  }
  report.status = std::move(status_);
  return report;
}

Report MakeReport(Health health_, std::unique_ptr<XMLElement> status_,
                  std::map<std::string, PlayerState> players_) {
  Report report;
  const bool has_station = IsStationRunning(health_);
  const bool is_stopped = IsStationStopped(health_);
  report.is_running = has_station && health_.daemon != 0 && !health_.is_hung;
  if (is_stopped) {
    report.problems.push_back(
        {"station-stopped",
         Format("The station, process %d, is stopped and watches nothing", health_.station),
         Format("Let it go on: kill -CONT %d; or restart the service", health_.station), 0});
  } else if (has_station) {
    report.problems = health_.problems;
  }
  if (!report.is_running && report.problems.empty()) {
    report.problems.push_back({"no-daemon",
                               !has_station          ? "no daemon: the station has ended"
                               : health_.daemon == 0 ? "no daemon: the station has not started it"
                                                     : "the daemon hangs",
                               kStartIt, 0});
  }
  report.status = std::move(status_);
  report.health = std::move(health_);
  report.players = std::move(players_);
  return report;
}

std::string TimeText(long long time_) {
  const auto time = static_cast<time_t>(time_);
  struct tm parts {};
  char text[64];
  localtime_r(&time, &parts);
  return std::string(text, strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts));
}

std::string ToJson(const Report& report_, bool has_time_) {
  Json json;
  if (has_time_) {
    json["time"] = time(nullptr);
  }
  json["running"] = report_.is_running;
  if (report_.status) {
    const XMLElement& status = *report_.status;
    if (has_time_) {
      json["timestamp"] = status.GetAttributeInteger("timestamp");
    }
    json["now-playing"] = status.GetAttributeInteger("now-playing");
    json["state"] = JsonString(status, "state");
    json["output-bound"] = status.GetAttributeInteger("output-bound") != 0;
    json["directories"] = Json::array();
    for (const XMLElement* directory : status.GetChildren("directory")) {
      json["directories"].push_back(JsonDirectory(*directory));
    }
  }
  if (report_.health) {
    AddHealth(*report_.health, json);
  }
  for (const auto& [zone, player] : report_.players) {
    (zone.empty() ? json["player"] : json["players"][Utf8ReplaceInvalid(zone)]) =
        JsonPlayer(player);
  }
  json["problems"] = Json::array();
  for (const Problem& problem : report_.problems) {
    json["problems"].push_back(JsonProblem(problem));
  }
  return json.dump() + "\n";
}

std::string ToTable(const Report& report_) {
  std::string text;
  if (report_.status) {
    const XMLElement& status = *report_.status;
    const int playing = status.GetAttributeInteger("now-playing");
    text += "state:   " + Printable(status.GetAttributeString("state")) + "\n";
    text += "playing: " + (playing == 0 ? "nothing" : Format("message %d", playing)) + "\n";
  }
  if (report_.health && !report_.health->saying.empty()) {
    text += "saying:  " + Printable(report_.health->saying) + "\n";
  }
  for (const auto& [zone, player] : report_.players) {
    text += PlayerLine(zone, player);
  }
  if (report_.status) {
    std::vector<Row> rows = {
        {"DIRECTORY", "UPDATES", "FILES", "WAITING", "MESSAGE", "PLAYS", "NAME", "PATH"}};
    for (const XMLElement* directory : report_.status->GetChildren("directory")) {
      rows.push_back(RowOf(*directory));
    }
    text += rows.size() > 1 ? "\n" + ToColumns(rows) : "no directories\n";
  }
  if (report_.health) {
    text += MessageTable(report_.health->messages);
  }
  text += text.empty() || report_.problems.empty() || !report_.health ? "" : "\n";
  for (const Problem& problem : report_.problems) {
    text += ProblemLines(problem);
  }
  return text;
}
