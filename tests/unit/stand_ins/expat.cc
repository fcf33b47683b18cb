#include "stand_ins/expat.h"

#include "stand_ins/real.h"

using stand_ins::expat;
using stand_ins::Real;

stand_ins::Expat stand_ins::expat;

namespace {

void StartElement(void* user_data_, const char* name_, const char** attributes_) {
  expat.started.emplace_back(name_);
  expat.start(user_data_, name_, attributes_);
  for (int i = 0; i < 10 && name_ == expat.astray_at; ++i) {
    expat.end(user_data_, name_);
  }
}

}  // namespace

XML_Parser XML_ParserCreate(const XML_Char* encoding_) {
  expat.encodings.emplace_back(encoding_);
  if (expat.out_of_memory) {
    return nullptr;
  }
  ++expat.parsers;
  return Real<XML_Parser(const XML_Char*)>("XML_ParserCreate")(encoding_);
}

void XML_ParserFree(XML_Parser parser_) {
  --expat.parsers;
  Real<void(XML_Parser)>("XML_ParserFree")(parser_);
}

void XML_SetElementHandler(XML_Parser parser_, XML_StartElementHandler start_,
                           XML_EndElementHandler end_) {
  expat.start = start_;
  expat.end = end_;
  using Function = void(XML_Parser, XML_StartElementHandler, XML_EndElementHandler);
  Real<Function>("XML_SetElementHandler")(parser_, StartElement, end_);
}

XML_Status XML_Parse(XML_Parser parser_, const char* data_, int length_, int is_final_) {
  expat.feeds.push_back(length_);
  expat.final_feeds += is_final_ != 0 ? 1 : 0;
  if (expat.script) {
    expat.script(parser_);
    return XML_STATUS_OK;
  }
  static auto* const real = Real<XML_Status(XML_Parser, const char*, int, int)>("XML_Parse");
  return real(parser_, data_, length_, is_final_);
}
