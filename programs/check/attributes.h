// The table of the attributes of configuration and glossary. The checker uses it, and the schema of
// the configuration is made from it. vocastra.conf(5) and vocastra-glossary(5) have the meanings.
//
// After a change, make schema/tts-config.rnc and .rng again by "cmake --build --preset release
// --target schema".
#pragma once

#include <string>
#include <vector>

#include "document.h"
#include "findings.h"

// The type of whole numbers, as XMLElement::GetAttributeInteger reads them.
constexpr char kInteger[] = "integer";

struct Attribute {
  const char* element;
  const char* name;
  const char* type;           // A pattern of the schema.
  const char* default_value;  // Null: the attribute is required.
  const char* directories;    // Types of directories for which it has an effect; null: all.
  bool is_single;             // It is allowed independent of other attributes.

  bool IsNumber() const { return type == std::string(kInteger); }
  bool HasMeaningFor(const std::string& directory_type_) const;
};

// The attributes of one element.
std::vector<Attribute> AttributesOf(const std::string& element_);

// The number that the daemon uses for an attribute of the table; the default also if the text is
// not a number.
int NumberOf(const XMLElement& element_, const std::string& name_);

// The text that the daemon uses for an optional attribute of the table.
std::string TextOf(const XMLElement& element_, const std::string& name_);

// Warns of unknown attributes. place_ names the element in findings.
void CheckAttributes(const Document& document_, const XMLElement& element_, const Place& place_,
                     Findings& findings_);
