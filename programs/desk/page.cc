#include "page.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "crc.h"
#include "document.h"
#include "format.h"
#include "html.h"
#include "pagefiles.h"
#include "words.h"

namespace {

// Rows of the history that are always shown; the others are below "Older".
constexpr size_t kShownRows = 15;
constexpr size_t kMaxTextBytes = 65536;

bool MaySay(const PageContent& content_) { return content_.viewer.role >= Role::kSay; }

std::string Token(const PageContent& content_) {
  return content_.viewer.token.empty() ? "" : HiddenField("token", content_.viewer.token);
}

// --- Messages ---

std::string TextOf(const Entry& entry_) {
  if (entry_.text.empty()) {
    return "<i>Text not known (" + Html(entry_.file) + ")</i>";
  }
  return Html(entry_.text) + (entry_.is_whole ? "" : " …");
}

// A part of a line about a message, within which the browser does not break the line.
std::string Part(const std::string& html_) { return " <span>" + html_ + "</span>"; }

std::string By(const Entry& entry_) {
  return entry_.user.empty() ? "" : Part("by " + Html(entry_.user));
}

// A form with one button that sends the number of an entry.
std::string EntryButton(const PageContent& content_, const char* action_, const char* label_,
                        const Entry& entry_) {
  return Format("<form method=\"post\" action=\"/%s\">", action_) + Token(content_) +
         Format("<button class=\"small\" name=\"id\" value=\"%lld\" id=\"%s-%lld\"", entry_.id,
                action_, entry_.id) +
         " aria-label=\"" + label_ + ": " + Html(OneLineOf(entry_.text).substr(0, 60)) + "\">" +
         label_ + "</button></form>";
}

// The CSS class and the text of a message's mark.
std::pair<const char*, std::string> FateOf(const Entry& entry_) {
  if (entry_.fate == Entry::kForgotten) {
    return {"odd", "not known"};
  }
  if (entry_.fate == Entry::kWithdrawn && entry_.state != MessageRecord::kHeard) {
    return {"odd", "withdrawn by " + Html(entry_.withdrawn_by)};
  }
  switch (entry_.state) {
    case MessageRecord::kWaiting:
      return {"open", "waits"};
    case MessageRecord::kSpeaking:
      return {"open", "is being said"};
    case MessageRecord::kSaid:
      return {"open", "said"};
    case MessageRecord::kFailed:
      return {"bad", Format("not heard in full: %d of %d pieces failed", entry_.failed,
                            entry_.failed + entry_.pieces)};
    case MessageRecord::kDropped:
      return {"bad", "not heard"};
    case MessageRecord::kHeard:
      return {"good", "heard in full"};
  }
  return {"odd", ""};
}

std::string Mark(const Entry& entry_) {
  const auto [kind, text] = FateOf(entry_);
  return Format("<span class=\"mark %s\">", kind) + text + "</span>";
}

bool CanRepeat(const PageContent& content_, const Entry& entry_) {
  const DirectoryView* directory = content_.view.Find(entry_.directory);
  return MaySay(content_) && entry_.IsOver() && entry_.is_whole && directory != nullptr &&
         directory->can_say &&
         !(directory->parser != nullptr ? entry_.document : entry_.text).empty();
}

std::string HistoryRow(const PageContent& content_, const Entry& entry_) {
  std::string row = Format("<li data-id=\"%lld\"><p class=\"text\">", entry_.id);
  row += TextOf(entry_) + "</p><p class=\"meta\">" + Mark(entry_) + " <b>" +
         Html(entry_.directory) + "</b>" +
         Part("handed over " + TimeElement(entry_.arrived, content_.now)) + By(entry_);
  if (entry_.state == MessageRecord::kHeard && entry_.ended != 0) {
    row += Part("heard " + TimeElement(entry_.ended, content_.now));
  }
  row += "</p>";
  if (CanRepeat(content_, entry_)) {
    row += EntryButton(content_, "again", "Say again", entry_);
  }
  return row + "</li>";
}

std::string HistorySection(const PageContent& content_) {
  std::string newest;
  std::string older;
  size_t count = 0;
  const auto& entries = content_.history.Entries();
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    (count++ < kShownRows ? newest : older) += HistoryRow(content_, *entry);
  }
  std::string section =
      "<section id=\"history\" class=\"card\" aria-labelledby=\"history-head\">"
      "<h2 id=\"history-head\">History</h2><ol id=\"rows\" class=\"list\">" +
      newest + "</ol>";
  if (count == 0) {
    section += "<p class=\"quiet\" id=\"no-rows\">No message has been said yet.</p>";
  }
  if (!older.empty()) {
    section += "<details><summary>Older</summary><ol class=\"list\">" + older + "</ol></details>";
  }
  return section + "</section>";
}

// --- The state ---

std::string ProblemItem(const std::string& sentence_, const std::string& remedy_, long long since_,
                        long long now_) {
  const auto ended = [](std::string text_) {
    return text_.empty() || text_.back() == '.' ? text_ : text_ + ".";
  };
  return "<li><p><b>" + Html(ended(sentence_)) + "</b> " + Html(ended(remedy_)) + "</p>" +
         (since_ == 0
              ? ""
              : "<p class=\"meta\"><span>Since " + TimeElement(since_, now_) + "</span></p>") +
         "</li>";
}

std::string ProblemsPart(const PageContent& content_) {
  const View& view = content_.view;
  std::string items;
  if (!view.is_running) {
    items = ProblemItem("The device does not speak: its service does not run",
                        "Ask the operator to start the service vocastra", 0, 0);
  } else {
    for (const Problem& problem : view.health.problems) {
      items += ProblemItem(problem.sentence, problem.remedy, problem.since, content_.now);
    }
    if (view.configuration && view.state != "run") {
      items += ProblemItem("The configuration has switched speech off",
                           "Messages wait until its attribute state is \"run\"", 0, 0);
    }
  }
  return items.empty() ? "" : "<h2>Problems</h2><ul>" + items + "</ul>";
}

std::string NowPart(const PageContent& content_) {
  const View& view = content_.view;
  if (!view.is_running) {
    return "<p class=\"quiet\">Not known.</p>";
  }
  if (view.playing.empty()) {
    return "<p class=\"quiet\">Nothing is playing.</p>";
  }
  const Entry* entry = view.Playing();
  return "<p class=\"playing\">" + (entry == nullptr ? "<i>A message</i>" : TextOf(*entry)) +
         "</p><p class=\"meta\"><span class=\"mark good\">playing</span> <b>" + Html(view.playing) +
         "</b>" + Part("since " + TimeElement(view.since, content_.now)) +
         (entry == nullptr ? "" : By(*entry)) + "</p>";
}

std::string WaitingItem(const PageContent& content_, const Entry& entry_) {
  const DirectoryView* directory = content_.view.Find(entry_.directory);
  const bool is_waiting = entry_.state == MessageRecord::kWaiting &&
                          (directory == nullptr || directory->taken != entry_.file);
  std::string item = "<li><p class=\"text\">" + TextOf(entry_) + "</p><p class=\"meta\">";
  if (!is_waiting) {
    item += "<span class=\"mark open\">comes next</span> ";
  }
  item += Part("since " + TimeElement(entry_.arrived, content_.now)) + By(entry_) + "</p>";
  if (is_waiting && MaySay(content_)) {
    item += EntryButton(content_, "withdraw", "Withdraw", entry_);
  }
  return item + "</li>";
}

std::string WaitingPart(const PageContent& content_) {
  const View& view = content_.view;
  std::string part;
  for (const DirectoryView& directory : view.directories) {
    std::string items;
    for (const Entry& entry : content_.history.Entries()) {
      const bool is_open = entry.fate == Entry::kOpen && entry.directory == directory.id;
      const bool waits = entry.state == MessageRecord::kWaiting ||
                         (view.IsComing(entry, content_.now) && &entry != view.Playing());
      items += is_open && waits && view.is_running ? WaitingItem(content_, entry) : "";
    }
    if (directory.IsRemote() && directory.waiting > 0) {
      items += Format("<li>%d message%s from its server</li>", directory.waiting,
                      directory.waiting == 1 ? "" : "s");
    }
    if (!items.empty()) {
      part += "<h3>" + Html(directory.id) + "</h3><ol class=\"list\">" + items + "</ol>";
    }
  }
  return part.empty() ? "<p class=\"quiet\">No message waits.</p>" : part;
}

// --- Forms ---

std::string Value(const PageContent& content_, const std::string& name_) {
  const auto found = content_.form.find(name_);
  return found == content_.form.end() ? "" : found->second;
}

// True if the refused request came from this form.
bool IsRefused(const PageContent& content_, const char* name_, const std::string& value_) {
  return content_.is_refusal && Value(content_, name_) == value_;
}

// Attributes from which the page's script estimates how long a text takes.
std::string PaceAttributes(const DirectoryView& directory_) {
  return Format(" data-pace=\"%.2f\" data-loops=\"%d\"",
                PaceOf(TranslatorArguments(directory_.conv_opts)), directory_.loops);
}

std::string FormHead(const PageContent& content_, const std::string& attributes_) {
  return "<form class=\"say\" method=\"post\" action=\"/say\"" + attributes_ + ">" +
         Token(content_);
}

// The buttons of a form. "Listen first" is shown only with JavaScript.
std::string FormFoot(const PageContent& content_) {
  std::string foot = "<p class=\"length\" hidden></p><div class=\"buttons\">";
  if (content_.has_previews) {
    foot += "<button type=\"button\" class=\"listen\" hidden>Listen first</button>";
  }
  return foot +
         "<button class=\"main\">Say it</button></div><audio controls hidden></audio>"
         "<p class=\"answer\" role=\"status\"></p></form>";
}

std::string TextForm(const PageContent& content_) {
  std::string chosen = content_.is_refusal ? Value(content_, "directory") : kDefaultDirectory;
  std::string options;
  for (const DirectoryView& directory : content_.view.directories) {
    if (directory.can_say && directory.parser == nullptr) {
      options += "<option" + PaceAttributes(directory) +
                 (directory.id == chosen ? " selected" : "") + " value=\"" + Html(directory.id) +
                 "\">" + Html(directory.id) + "</option>";
    }
  }
  if (options.empty()) {
    return "";
  }
  return FormHead(content_, "") +
         "<label for=\"directory\">Where</label><select id=\"directory\" name=\"directory\">" +
         options + "</select><label for=\"text\">Message</label>" +
         Format("<textarea id=\"text\" name=\"text\" rows=\"4\" required maxlength=\"%zu\">\n",
                kMaxTextBytes) +
         Html(Value(content_, "text")) + "</textarea>" + FormFoot(content_);
}

std::string DocumentForm(const PageContent& content_, const DirectoryView& directory_,
                         size_t number_) {
  const bool is_refused = IsRefused(content_, "directory", directory_.id);
  std::string fields;
  for (size_t i = 0; i < directory_.labels.size(); ++i) {
    if (directory_.labels[i].empty()) {
      continue;
    }
    const std::string name = DocumentField(i);
    const std::string id = Format("d%zu-%zu", number_, i);
    fields += Format("<label for=\"%s\">", id.c_str()) + Html(directory_.labels[i]) + "</label>";
    fields += Format("<textarea id=\"%s\" name=\"%s\" rows=\"2\">\n", id.c_str(), name.c_str());
    fields += Html(is_refused ? Value(content_, name) : "") + "</textarea>";
  }
  return std::string("<details class=\"form\"") + (is_refused ? " open" : "") + "><summary>" +
         Html(directory_.id) + " <small>form</small></summary>" +
         FormHead(content_, PaceAttributes(directory_)) + HiddenField("directory", directory_.id) +
         fields + FormFoot(content_) + "</details>";
}

std::string TemplateForm(const PageContent& content_, const Template& template_,
                         const DirectoryView& directory_) {
  const bool is_refused = IsRefused(content_, "template", template_.title);
  const std::vector<std::string> blanks = template_.Blanks();
  std::vector<bool> is_shown(blanks.size());
  std::string text;
  for (const Template::Part& part : template_.parts) {
    const auto found = std::find(blanks.begin(), blanks.end(), part.text);
    const auto number = static_cast<size_t>(found - blanks.begin());
    if (!part.is_blank) {
      text += "<span>" + Html(part.text) + "</span>";
    } else if (is_shown[number]) {
      text += "<span data-blank=\"" + BlankField(number) + "\">" + Html("{" + part.text + "}") +
              "</span>";
    } else {
      is_shown[number] = true;
      text += "<input name=\"" + BlankField(number) + "\" aria-label=\"" + Html(part.text) +
              "\" placeholder=\"" + Html(part.text) +
              "\" size=\"14\" required autocomplete=\"off\" value=\"" +
              Html(is_refused ? Value(content_, BlankField(number)) : "") + "\">";
    }
  }
  return std::string("<details class=\"form\"") + (is_refused ? " open" : "") + "><summary>" +
         Html(template_.title) + " <small>" + Html(template_.directory) + "</small></summary>" +
         FormHead(content_, PaceAttributes(directory_)) + HiddenField("template", template_.title) +
         "<p class=\"sentence\">" + text + "</p>" + FormFoot(content_) + "</details>";
}

std::string SaySection(const PageContent& content_) {
  std::string forms = TextForm(content_);
  size_t number = 0;
  for (const DirectoryView& directory : content_.view.directories) {
    if (directory.can_say && directory.parser != nullptr) {
      forms += DocumentForm(content_, directory, number++);
    }
  }
  if (forms.empty()) {
    forms = "<p class=\"quiet\">Nothing can be said here: the device has no local directory.</p>";
  }
  return "<section id=\"say\" class=\"card\" aria-labelledby=\"say-head\">"
         "<h2 id=\"say-head\">Say</h2>" +
         forms + "</section>";
}

std::string TemplatesSection(const PageContent& content_) {
  std::string forms;
  for (const Template& found : content_.templates.all) {
    const DirectoryView* directory = content_.view.Find(found.directory);
    if (directory != nullptr && directory->can_say && directory->parser == nullptr) {
      forms += TemplateForm(content_, found, *directory);
    }
  }
  return forms.empty()
             ? ""
             : "<section id=\"templates\" class=\"card\" aria-labelledby=\"templates-head\">"
               "<h2 id=\"templates-head\">Templates</h2>" +
                   forms + "</section>";
}

// --- Whole pages ---

// Changes with the files, so that a browser does not use old ones after an upgrade.
std::string MakeVersion() {
  const std::string files = std::string(kStyle) + kScript;
  return Format("%04x", CRC(0, reinterpret_cast<const uint8_t*>(files.data()), files.size()));
}

std::string Head(const std::string& title_) {
  static const std::string version = MakeVersion();
  return "<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>" +
         title_ +
         "</title><link rel=\"icon\" href=\"/icon.svg\"><link rel=\"stylesheet\" "
         "href=\"/style.css?" +
         version + "\"><script src=\"/desk.js?" + version + "\" defer></script></head>";
}

std::string Header(const PageContent& content_, bool is_main_) {
  const Viewer& viewer = content_.viewer;
  std::string header = "<header><h1>Announcements</h1>";
  if (is_main_) {
    header +=
        "<p id=\"link\" role=\"status\">As of " + TimeElement(content_.now, content_.now) + "</p>";
  }
  header += "<nav>";
  if (viewer.role == Role::kOperate) {
    header += is_main_ ? "<a href=\"/device\">Device</a>" : "<a href=\"/\">Announcements</a>";
  }
  return header + "<form method=\"post\" action=\"/logout\">" + Token(content_) + "<span>" +
         Html(viewer.user) +
         "</span> <button class=\"small\">Log out</button></form></nav></header>";
}

}  // namespace

std::string MainPage(const PageContent& content_) {
  std::string page = Head("Announcements") + "<body>";
  page += MaySay(content_) ? "<a class=\"skip\" href=\"#say\">Go to the message</a>" : "";
  page += Header(content_, true) + "<main>";
  page += std::string("<p id=\"notice\" role=\"") + (content_.is_refusal ? "alert" : "status") +
          "\"" + (content_.is_refusal ? " class=\"refusal\"" : "") + ">" + Html(content_.notice) +
          "</p>";
  page +=
      "<section id=\"problems\" aria-live=\"assertive\">" + ProblemsPart(content_) + "</section>";
  page +=
      "<section class=\"card\" aria-labelledby=\"now-head\"><h2 id=\"now-head\">Now</h2>"
      "<div id=\"now\" aria-live=\"polite\">" +
      NowPart(content_) + "</div></section><div class=\"columns\">";
  if (MaySay(content_)) {
    page += "<div>" + SaySection(content_) + TemplatesSection(content_) + "</div>";
  }
  page +=
      "<div><section class=\"card\" aria-labelledby=\"waiting-head\">"
      "<h2 id=\"waiting-head\" tabindex=\"-1\">Waiting</h2><div id=\"waiting\">" +
      WaitingPart(content_) + "</div></section>" + HistorySection(content_) + "</div></div>";
  return page + "</main></body></html>\n";
}

std::string LivePart(const PageContent& content_) {
  nlohmann::ordered_json json;
  json["problems"] = ProblemsPart(content_);
  json["now"] = NowPart(content_);
  json["waiting"] = WaitingPart(content_);
  json["ready"] = content_.view.is_running;
  json["rows"] = nlohmann::ordered_json::array();
  for (const Entry* entry : content_.history.LastChanged()) {
    json["rows"].push_back({{"id", entry->id}, {"html", HistoryRow(content_, *entry)}});
  }
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string MakeLoginPage(const std::string& why_) {
  return Head("Announcements: log in") +
         "<body class=\"login\"><main><section class=\"card\" aria-labelledby=\"login-head\">"
         "<h1 id=\"login-head\">Announcements</h1><form method=\"post\" action=\"/login\">" +
         (why_.empty() ? "" : "<p class=\"refusal\" role=\"alert\">" + Html(why_) + "</p>") +
         "<label for=\"user\">Name</label><input id=\"user\" name=\"user\" required autofocus "
         "autocomplete=\"username\" autocapitalize=\"none\" spellcheck=\"false\">"
         "<label for=\"password\">Password</label><input id=\"password\" name=\"password\" "
         "type=\"password\" required autocomplete=\"current-password\">"
         "<div class=\"buttons\"><button class=\"main\">Log "
         "in</button></div></form></section></main>"
         "</body></html>\n";
}

namespace {

using Row = std::vector<std::string>;

// A table from texts in HTML, with the first row as its head.
std::string Table(const std::vector<Row>& rows_) {
  std::string table = "<div class=\"wide\" tabindex=\"0\"><table>";
  for (const Row& row : rows_) {
    const char* const cell = &row == &rows_.front() ? "th" : "td";
    table += "<tr>";
    for (const std::string& text : row) {
      table += Format("<%s>", cell) + text + Format("</%s>", cell);
    }
    table += "</tr>";
  }
  return table + "</table></div>";
}

std::string Card(const std::string& title_, const std::string& content_) {
  return "<section class=\"card\"><h2>" + title_ + "</h2>" + content_ + "</section>";
}

std::string DirectoryTable(const View& view_) {
  std::vector<Row> rows = {{"Directory", "Type", "Priority", "Repeats", "Can be used here"}};
  for (const DirectoryView& directory : view_.directories) {
    rows.push_back({Html(directory.id), Html(directory.type), Format("%d", directory.priority),
                    Format("%d", directory.loops), directory.can_say ? "yes" : "no"});
  }
  return Table(rows);
}

std::string PlayerTable(const View& view_, long long now_) {
  if (!view_.player) {
    return "<p class=\"quiet\">No player runs.</p>";
  }
  const PlayerState& player = *view_.player;
  return Table({{"Device", "Works", "Plays", "Since", "Files that wait", "Last problem"},
                {Html(player.device), player.device_ok ? "yes" : "no", Html(player.playing),
                 TimeElement(player.since, now_), Format("%zu", player.waiting.size()),
                 Html(player.problem) + " " + TimeElement(player.problem_time, now_)}});
}

}  // namespace

std::string DevicePage(const PageContent& content_) {
  const View& view = content_.view;
  std::vector<Row> counters = {{"Counter", "Value"}};
  for (const auto& [name, value] : view.health.counters) {
    counters.push_back({Html(name), Format("%lld", value)});
  }
  std::string mistakes;
  for (const std::string& mistake : content_.templates.mistakes) {
    mistakes += "<li>" + Html(mistake) + "</li>";
  }
  std::string page = Head("Device") + "<body>" + Header(content_, false) + "<main>";
  page += "<section id=\"problems\">" + ProblemsPart(content_) + "</section>";
  page += Card(
      "Service",
      Table({{"Station", "Daemon", "State", "Hangs"},
             {view.is_running ? Format("runs, process %d", view.health.station) : "does not run",
              view.is_running && view.health.daemon != 0
                  ? Format("runs, process %d", view.health.daemon)
                  : "does not run",
              Html(view.state), view.health.is_hung ? "yes" : "no"}}));
  page += Card("Player", PlayerTable(view, content_.now));
  page += Card("Directories", DirectoryTable(view));
  page += Card("Since the start", Table(counters));
  if (!mistakes.empty()) {
    page += Card("Mistakes in templates", "<ul>" + mistakes + "</ul>");
  }
  return page + "</main></body></html>\n";
}
