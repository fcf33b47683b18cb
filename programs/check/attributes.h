// The attributes of the configuration and the glossary: one table, from which the checker works
// and the schema of the configuration is made. What they mean is in vocastra.conf(5) and
// vocastra-glossary(5).
//
// After a change, "cmake --build --preset release --target schema" makes schema/tts-config.rnc and
// .rng again.
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
  const char* directories;    // Types of directories for which it means something, or null: all.
  bool is_single;             // No other attribute decides whether it may be there.

  bool IsNumber() const { return type == std::string(kInteger); }
  bool HasMeaningFor(const std::string& directory_type_) const;
};

// Those of one element.
std::vector<Attribute> AttributesOf(const std::string& element_);

// The number that the daemon takes for an attribute of the table; its default, too, if the text is
// not a number.
int NumberOf(const XMLElement& element_, const std::string& name_);

// The text that the daemon takes for an attribute of the table that is not required.
std::string TextOf(const XMLElement& element_, const std::string& name_);

// Warns of unknown attributes. item_ names the element in findings.
void CheckAttributes(const Document& document_, const XMLElement& element_, const Place& place_,
                     Findings& findings_);
