// XML messages as forms: the fields that a directory's parser has in the configuration, and the
// document made from a filled form.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "xml.h"

// The labels of the fields in their order, for people: "headline", "instruction (lang en)". The
// label of a field that the daemon cannot find is empty. Throws a string if "attr-mode" is no
// number, as MakeDocument does.
std::vector<std::string> FieldLabels(const XMLElement& parser_);

// The name of the form's field with that number.
std::string DocumentField(size_t number_);

// A document in UTF-8 in which the parser finds all values of form_ except empty ones.
// Throws a string if a field of the configuration cannot be part of a document.
std::string MakeDocument(const XMLElement& parser_,
                         const std::map<std::string, std::string>& form_);
