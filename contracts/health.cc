#include "health.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>

#include <iterator>
#include <memory>
#include <utility>

#include "format.h"
#include "processstat.h"
#include "statefile.h"
#include "statusfile.h"
#include "xml.h"

namespace {

constexpr const char* kStateNames[] = {"waiting", "speaking", "said", "failed", "dropped", "heard"};

std::string Number(long long number_) { return Format("%lld", number_); }

// When the process started; 0 if that is not known.
long long StartOf(int process_) {
  try {
    return ReadProcessStat(process_).start;
  } catch (const std::string&) {
    return 0;
  }
}

bool IsAlive(const Health& health_) {
  return health_.station > 0 && (kill(health_.station, 0) == 0 || errno == EPERM) &&
         StartOf(health_.station) == health_.station_start;
}

using Attributes = std::vector<std::pair<const char*, std::string>>;

void AddChild(XMLElement& root_, const char* name_, const Attributes& attributes_) {
  auto child = std::make_unique<XMLElement>(name_);
  for (const auto& [name, value] : attributes_) {
    child->SetAttributeString(name, Escaped(value));
  }
  root_.AddChild(child.release());
}

MessageRecord::State StateOf(const std::string& name_) {
  for (size_t i = 0; i < std::size(kStateNames); ++i) {
    if (name_ == kStateNames[i]) {
      return static_cast<MessageRecord::State>(i);
    }
  }
  throw Format("no state is called \"%s\"", name_.c_str());
}

MessageRecord ReadMessage(const XMLElement& element_) {
  MessageRecord record;
  record.directory = element_.GetAttributeString("directory");
  record.file = element_.GetAttributeString("file");
  record.state = StateOf(element_.GetAttributeString("state"));
  record.pieces = element_.GetAttributeInteger("pieces");
  record.failed = element_.GetAttributeInteger("failed");
  record.arrived = LongAttribute(element_, "arrived");
  record.ended = LongAttribute(element_, "ended");
  return record;
}

}  // namespace

const char* NameOf(MessageRecord::State state_) { return kStateNames[state_]; }

void WriteHealth(const std::string& path_, const Health& health_) {
  XMLElement root("health");
  root.SetAttributeInteger("station", health_.station);
  root.SetAttributeString("station-start", Number(StartOf(health_.station)));
  root.SetAttributeInteger("daemon", health_.daemon);
  root.SetAttributeInteger("hung", health_.is_hung ? 1 : 0);
  root.SetAttributeString("saying", Escaped(health_.saying));
  for (const auto& [name, value] : health_.counters) {
    AddChild(root, "counter", {{"name", name}, {"value", Number(value)}});
  }
  for (const Problem& problem : health_.problems) {
    AddChild(root, "problem",
             {{"id", problem.id},
              {"sentence", problem.sentence},
              {"remedy", problem.remedy},
              {"since", Number(problem.since)}});
  }
  for (const MessageRecord& record : health_.messages) {
    AddChild(root, "message",
             {{"directory", record.directory},
              {"file", record.file},
              {"state", NameOf(record.state)},
              {"pieces", Number(record.pieces)},
              {"failed", Number(record.failed)},
              {"arrived", Number(record.arrived)},
              {"ended", Number(record.ended)}});
  }
  ReplaceByDump(path_, root);
}

Health ReadHealth(const std::string& path_) {
  const std::unique_ptr<XMLElement> root = LoadXMLTree(path_, "health");
  Health health;
  health.station = root->GetAttributeInteger("station");
  health.station_start = LongAttribute(*root, "station-start");
  health.daemon = root->GetAttributeInteger("daemon");
  health.is_hung = root->GetAttributeInteger("hung") != 0;
  health.saying = root->GetAttributeString("saying");
  for (const XMLElement* counter : root->GetChildren("counter")) {
    health.counters[counter->GetAttributeString("name")] = LongAttribute(*counter, "value");
  }
  for (const XMLElement* problem : root->GetChildren("problem")) {
    health.problems.push_back(
        {problem->GetAttributeString("id"), problem->GetAttributeString("sentence"),
         problem->GetAttributeString("remedy"), LongAttribute(*problem, "since")});
  }
  for (const XMLElement* message : root->GetChildren("message")) {
    health.messages.push_back(ReadMessage(*message));
  }
  return health;
}

bool IsStationRunning(const Health& health_) {
  return IsAlive(health_) && !IsStationStopped(health_);
}

bool IsStationStopped(const Health& health_) {
  try {
    const char state = ReadProcessStat(health_.station).state;
    return IsAlive(health_) && (state == 'T' || state == 't');
  } catch (const std::string&) {  // It cannot be seen.
    return false;
  }
}
