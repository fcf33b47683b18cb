// Preloaded into the daemon: an expat that defers as long as its contract allows. While deferral is
// on, it takes every feed that is not marked as the final one and parses none of it; with the first
// feed after deferral was switched off, it parses all.
//
// It works with a library with deferral and with one without.
#include <dlfcn.h>
#include <expat.h>
#include <stdlib.h>
#include <string.h>

// Of the parser in use. The daemon has one at a time.
static char* held;
static size_t held_length;
static int is_off;

static void* Next(const char* name) { return dlsym(RTLD_NEXT, name); }

// The programs that the daemon starts may be of another architecture.
__attribute__((constructor)) static void ForgetPreload(void) { unsetenv("LD_PRELOAD"); }

XML_Bool XML_SetReparseDeferralEnabled(XML_Parser parser, XML_Bool enabled);
XML_Bool XML_SetReparseDeferralEnabled(XML_Parser parser, XML_Bool enabled) {
  (void)parser;
  is_off = !enabled;
  return XML_TRUE;
}

XML_Parser XML_ParserCreate(const XML_Char* encoding) {
  XML_Parser (*create)(const XML_Char*);
  *(void**)&create = Next("XML_ParserCreate");
  held_length = 0;
  is_off = 0;
  return create(encoding);
}

enum XML_Status XML_Parse(XML_Parser parser, const char* data, int length, int is_final) {
  enum XML_Status (*parse)(XML_Parser, const char*, int, int);
  XML_Bool (*set)(XML_Parser, XML_Bool);
  *(void**)&parse = Next("XML_Parse");
  *(void**)&set = Next("XML_SetReparseDeferralEnabled");
  held = realloc(held, held_length + (size_t)length + 1);
  memcpy(held + held_length, data, (size_t)length);
  held_length += (size_t)length;
  if (!is_off && !is_final) {
    return XML_STATUS_OK;
  }
  if (set != NULL) {
    set(parser, XML_FALSE);
  }
  const size_t whole = held_length;
  held_length = 0;
  return parse(parser, held, (int)whole, is_final);
}
