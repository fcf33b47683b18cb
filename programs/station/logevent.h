// An event that a line of the log reports to the parts of the station.
#pragma once

#include <string>

struct LogEvent {
  enum Kind {
    kOther,
    kIndexed,        // The daemon has queued a file; subject: its name.
    kEngineStarted,  // The translator runs.
    kEngineDone,
    kCommandFailed,  // Subject: the command line.
    kCopying,        // Subject: the name of the next file in the output directory.
    kNotRemoved,     // Subject: the path of a taken file that stays.
    kFromHelper,     // A line of a helper; subject: the text after "helper: ".
    kGlossary        // The glossary cannot be used; subject: why.
  };

  Kind kind = kOther;
  std::string subject;
  std::string line;  // The whole line.
};
