// The file "directories.xml" in the run directory: the configuration in force without its secrets,
// for programs that must not read the configuration itself. The station replaces it by a rename
// with every configuration that it accepts. All users may read it.
//
// It has the form of a configuration, so contracts/configuration.h reads it too:
//
//   <tts-config state="run">
//       <directory id="lobby" path="/var/spool/vocastra/lobby" priority="5" type="local"/>
//       <directory id="trains" priority="7" type="ftp"/>
//   </tts-config>
#pragma once

#include <memory>
#include <string>

#include "xml.h"

constexpr char kDirectoriesFile[] = "directories.xml";

// The part of a configuration that is no secret, with values escaped as Dump needs it. It has only
// the attributes that are listed in directories.cc, so a new attribute stays secret until it is
// added there. A remote directory has only id, display-id, priority and type, as its path may hold
// a password. Parsers are complete.
std::unique_ptr<XMLElement> PublicPart(const XMLElement& configuration_);
