// XML documents, XML messages and the glossary, compared with raw expat with empty handlers. The
// other libraries are for orientation: they parse the whole document at once and check less or
// more.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <expat.h>

#include <algorithm>
#include <memory>

#include "bench_util.h"
#include "glossary.h"
#include "xml.h"
#include "xmlfileparser.h"
#ifdef HAVE_TINYXML2
#include <tinyxml2.h>
#endif
#ifdef HAVE_PUGIXML
#include <pugixml.hpp>
#endif
#ifdef HAVE_LIBXML2
#include <libxml/parser.h>
#endif

namespace {

constexpr size_t kFeedBytes = 1024;
constexpr size_t kDocumentBytes = 100000;

// A document such as an XML message, only longer: elements three deep, most with text, some with
// attributes.
std::string Document(size_t size_) {
  return "<alerts>\n" +
         Repeated(
             "  <alert id=\"4711\" severity=\"minor\">\n"
             "    <headline lang=\"en\">Train to the north delayed</headline>\n"
             "    <info>\n"
             "      <body>The train to the north leaves from platform nine, about ten minutes "
             "late. We ask for your patience.</body>\n"
             "      <source>Control centre</source>\n"
             "    </info>\n"
             "  </alert>\n",
             size_) +
         "</alerts>\n";
}

std::string GlossaryText(int words_) {
  std::string text = "<glossary>\n";
  for (int i = 0; i < words_; ++i) {
    text += "  <word text=\"Word" + std::to_string(i) + "\" speech=\"spoken form " +
            std::to_string(i) + "\"/>\n";
  }
  return text + "</glossary>\n";
}

void Start(void*, const char*, const char**) {}
void End(void*, const char*) {}
void Text(void*, const char*, int) {}

void RawExpat(const std::string& path_) {
  // Null if the library has no reparse deferral.
  static const auto set_deferral = reinterpret_cast<XML_Bool (*)(XML_Parser, XML_Bool)>(
      dlsym(RTLD_DEFAULT, "XML_SetReparseDeferralEnabled"));
  std::string text;
  FILE* file = fopen(path_.c_str(), "re");
  char block[16384];
  size_t length = 0;
  while ((length = fread(block, 1, sizeof(block), file)) > 0) {
    text.append(block, length);
  }
  fclose(file);
  XML_Parser parser = XML_ParserCreate("UTF-8");
  XML_SetElementHandler(parser, Start, End);
  XML_SetCharacterDataHandler(parser, Text);
  for (size_t fed = 0; fed < text.size(); fed += kFeedBytes) {
    const size_t piece = std::min(kFeedBytes, text.size() - fed);
    if (set_deferral != nullptr && fed + piece == text.size()) {
      set_deferral(parser, XML_FALSE);
    }
    if (XML_Parse(parser, text.data() + fed, static_cast<int>(piece), XML_FALSE) != XML_STATUS_OK) {
      abort();
    }
  }
  XML_ParserFree(parser);
}

// Deleting the tree is not timed here; XMLMessage and Glossary below include it.
void XMLLoad_Daemon(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("document.xml", Document(kDocumentBytes));
  for (auto _ : state_) {
    auto document = std::make_unique<XMLDocument>(path, "utf8");
    state_.PauseTiming();
    delete document->GetRoot();
    document.reset();
    state_.ResumeTiming();
  }
}

// A document with one long token: what comes before its letters and after them.
void XMLToken_Daemon(benchmark::State& state_, const char* before_, const char* after_) {
  const ScratchDirectory scratch;
  const std::string letters(static_cast<size_t>(state_.range(0)), 'x');
  const std::string path = scratch.Write("document.xml", before_ + letters + after_);
  for (auto _ : state_) {
    const XMLDocument document(path, "utf8");
    if (!document.IsValidXML()) {
      state_.SkipWithError("malformed");
    }
    delete document.GetRoot();
  }
}

void XMLLoad_Expat(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("document.xml", Document(kDocumentBytes));
  for (auto _ : state_) {
    RawExpat(path);
    state_.PauseTiming();  // As above: the pauses themselves cost time.
    state_.ResumeTiming();
  }
}

void XMLMessage_Daemon(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("message.xml", Document(2000));
  XMLElement configuration("parser");
  configuration.SetAttributeString("id", "alert");
  configuration.SetAttributeString("type", "xml");
  for (const char* tag : {"headline", "body"}) {
    auto* field = new XMLElement("field");
    field->SetAttributeString("tag", tag);
    field->SetAttributeString("attr", "");
    field->SetAttributeString("attr_value", "");
    configuration.AddChild(field);
  }
  const XMLFileParser parser(&configuration, "utf8");
  for (auto _ : state_) {
    benchmark::DoNotOptimize(parser.ParseFile(path));
  }
}

void XMLMessage_Expat(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("message.xml", Document(2000));
  for (auto _ : state_) {
    RawExpat(path);
  }
}

void Glossary_Daemon(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("glossary.xml", GlossaryText(5000));
  for (auto _ : state_) {
    benchmark::DoNotOptimize(Glossary(path));
  }
}

void Glossary_Expat(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("glossary.xml", GlossaryText(5000));
  for (auto _ : state_) {
    RawExpat(path);
  }
}

void GlossaryLookup_Daemon(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const Glossary glossary(scratch.Write("glossary.xml", GlossaryText(5000)));
  for (auto _ : state_) {
    benchmark::DoNotOptimize(glossary.SubstituteSpeech("Word4711.,"));
    benchmark::DoNotOptimize(glossary.SubstituteSpeech("unknown"));
  }
}

BENCHMARK(XMLLoad_Daemon);
BENCHMARK(XMLLoad_Expat);
#define TOKEN_BENCHMARK(name, before, after)              \
  BENCHMARK_CAPTURE(XMLToken_Daemon, name, before, after) \
      ->Arg(1 << 20)                                      \
      ->Arg(16 << 20)                                     \
      ->Unit(benchmark::kMillisecond)
TOKEN_BENCHMARK(comment, "<m><!--", "--></m>");
TOKEN_BENCHMARK(cdata, "<m><![CDATA[", "]]></m>");
TOKEN_BENCHMARK(instruction, "<m><?p ", "?></m>");
TOKEN_BENCHMARK(attribute_value, "<m><b v='", "'/></m>");
TOKEN_BENCHMARK(tag_name, "<m><b", "/></m>");
TOKEN_BENCHMARK(entity_value, "<!DOCTYPE m [<!ENTITY e '", "'>]><m/>");
TOKEN_BENCHMARK(text, "<m>", "</m>");
BENCHMARK(XMLMessage_Daemon);
BENCHMARK(XMLMessage_Expat);
BENCHMARK(Glossary_Daemon);
BENCHMARK(Glossary_Expat);
BENCHMARK(GlossaryLookup_Daemon);

#ifdef HAVE_TINYXML2
void XMLLoad_TinyXML2(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("document.xml", Document(kDocumentBytes));
  for (auto _ : state_) {
    tinyxml2::XMLDocument document;
    benchmark::DoNotOptimize(document.LoadFile(path.c_str()));
  }
}
BENCHMARK(XMLLoad_TinyXML2);
#endif

#ifdef HAVE_PUGIXML
void XMLLoad_Pugixml(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("document.xml", Document(kDocumentBytes));
  for (auto _ : state_) {
    pugi::xml_document document;
    benchmark::DoNotOptimize(document.load_file(path.c_str()));
  }
}
BENCHMARK(XMLLoad_Pugixml);
#endif

#ifdef HAVE_LIBXML2
void XMLLoad_Libxml2(benchmark::State& state_) {
  const ScratchDirectory scratch;
  const std::string path = scratch.Write("document.xml", Document(kDocumentBytes));
  for (auto _ : state_) {
    xmlDocPtr document = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET);
    benchmark::DoNotOptimize(document);
    xmlFreeDoc(document);
  }
}
BENCHMARK(XMLLoad_Libxml2);
#endif

}  // namespace
