#include "report.h"

#include <algorithm>
#include <list>
#include <nlohmann/json.hpp>
#include <utility>

#include "charencoding.h"
#include "format.h"

namespace {

using Json = nlohmann::ordered_json;

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

// Valid UTF-8 without control characters, which could steer a terminal.
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

// In code points, which is near enough to columns.
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

}  // namespace

Report NoDaemon(const std::string& why_) {
  Report report;
  report.problems.push_back("no daemon: " + why_);
  return report;
}

Report MakeReport(std::unique_ptr<XMLElement> status_, bool is_stale_, int limit_) {
  Report report;
  if (is_stale_) {
    report.problems.push_back(Format("stale: not rewritten for %d seconds", limit_));
  }
  if (status_->GetAttributeInteger("output-bound") != 0) {
    report.problems.emplace_back("output-bound: the player does not take what is there");
  }
  for (const XMLElement* directory : status_->GetChildren("directory")) {
    if (!IsUpdated(*directory)) {
      report.problems.push_back("no updates: directory " + directory->GetAttributeString("id"));
    }
  }
  report.status = std::move(status_);
  return report;
}

std::string ToJson(const Report& report_, bool has_counter_) {
  Json json;
  if (report_.status) {
    const XMLElement& status = *report_.status;
    if (has_counter_) {
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
  json["problems"] = Json::array();
  for (const std::string& problem : report_.problems) {
    json["problems"].push_back(Utf8ReplaceInvalid(problem));
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
    std::vector<Row> rows = {
        {"DIRECTORY", "UPDATES", "FILES", "WAITING", "MESSAGE", "PLAYS", "NAME", "PATH"}};
    for (const XMLElement* directory : status.GetChildren("directory")) {
      rows.push_back(RowOf(*directory));
    }
    text += rows.size() > 1 ? "\n" + ToColumns(rows) : "no directories\n";
  }
  for (const std::string& problem : report_.problems) {
    text += "PROBLEM: " + Printable(problem) + "\n";
  }
  return text;
}
