#include <list>
#include <map>
#include <utility>

#include "charencoding.h"
#include "format.h"
#include "report.h"

namespace {

std::string LabelValue(const std::string& value_) {
  std::string text;
  for (const char c : Utf8ReplaceInvalid(value_)) {
    if (c == '\n') {
      text += "\\n";
    } else {
      text += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
  }
  return text;
}

// Collects metrics by family, as the text must have the lines of a family together.
class Metrics {
 public:
  void Begin(const std::string& name_, const char* type_, const char* help_) {
    name = "vocastra_" + name_;
    suffix = std::string(type_) == "counter" ? "_total" : "";
    text += "# TYPE " + name + " " + type_ + "\n# HELP " + name + " " + help_ + "\n";
  }

  void Add(long long value_) { text += name + suffix + Format(" %lld\n", value_); }

  void Add(const char* label_, const std::string& label_value_, long long value_) {
    text += name + suffix + "{" + label_ + "=\"" + LabelValue(label_value_) + "\"}" +
            Format(" %lld\n", value_);
  }

  std::string text;

 private:
  std::string name;
  std::string suffix;
};

void AddStatus(const XMLElement& status_, Metrics& metrics_) {
  const struct {
    const char* name;
    const char* attribute;
    const char* help;
  } rows[] = {
      {"directory_updates", "status", "1: the input directory delivers updates."},
      {"directory_files", "total-file-count", "Files that the last scan found."},
      {"directory_waiting", "updated-file-count", "Messages that wait."},
  };
  for (const auto& row : rows) {
    metrics_.Begin(row.name, "gauge", row.help);
    for (const XMLElement* directory : status_.GetChildren("directory")) {
      const bool is_one = directory->GetAttributeString(row.attribute) == "1";
      metrics_.Add("directory", directory->GetAttributeString("id"),
                   row.attribute == std::string("status")
                       ? (is_one ? 1 : 0)
                       : directory->GetAttributeInteger(row.attribute));
    }
  }
  metrics_.Begin("output_bound", "gauge", "1: the output directory is full.");
  metrics_.Add(status_.GetAttributeInteger("output-bound"));
}

void AddPlayers(const std::map<std::string, PlayerState>& players_, Metrics& metrics_) {
  const struct {
    const char* name;
    const char* help;
    long long (*value)(const PlayerState& player_);
  } rows[] = {
      {"player_up", "1: the player runs.",
       [](const PlayerState& player_) { return IsPlayerRunning(player_) ? 1LL : 0; }},
      {"player_device_up", "1: the player has its sound device.",
       [](const PlayerState& player_) { return player_.device_ok ? 1LL : 0; }},
      {"player_playing", "1: a file plays.",
       [](const PlayerState& player_) { return player_.playing.empty() ? 0LL : 1; }},
      {"player_waiting", "Files that wait to be played.",
       [](const PlayerState& player_) { return static_cast<long long>(player_.waiting.size()); }},
  };
  for (const auto& row : rows) {
    metrics_.Begin(row.name, "gauge", row.help);
    for (const auto& [zone, player] : players_) {
      if (zone.empty()) {
        metrics_.Add(row.value(player));
      } else {
        metrics_.Add("zone", zone, row.value(player));
      }
    }
  }
}

}  // namespace

std::string ToMetrics(const Report& report_) {
  Metrics metrics;
  metrics.Begin("up", "gauge", "1: the daemon and its station run and do not hang.");
  metrics.Add(report_.is_running ? 1 : 0);
  metrics.Begin("problems", "gauge", "Reasons why messages may not be heard.");
  metrics.Add(static_cast<long long>(report_.problems.size()));
  metrics.Begin("problem", "gauge", "1: the problem is there.");
  for (const Problem& problem : report_.problems) {
    metrics.Add("id", problem.id, 1);
  }
  if (report_.health) {
    for (const auto& [name, value] : report_.health->counters) {
      metrics.Begin(name, "counter", "Since the start of the station.");
      metrics.Add(value);
    }
  }
  if (report_.status) {
    AddStatus(*report_.status, metrics);
  }
  if (!report_.players.empty()) {
    AddPlayers(report_.players, metrics);
  }
  return metrics.text + "# EOF\n";
}
