// Preloaded into the daemon beside a copy of expat in which the function that switches deferral off
// has another name: makes an expat of before deferral of it, which neither defers nor has that
// function. A copy that never had the function is one already.
#include <dlfcn.h>
#include <expat.h>
#include <stdlib.h>

// The programs that the daemon starts may be of another architecture.
__attribute__((constructor)) static void ForgetPreload(void) { unsetenv("LD_PRELOAD"); }

XML_Parser XML_ParserCreate(const XML_Char* encoding) {
  XML_Parser (*create)(const XML_Char*);
  XML_Bool (*set)(XML_Parser, XML_Bool);
  *(void**)&create = dlsym(RTLD_NEXT, "XML_ParserCreate");
  *(void**)&set = dlsym(RTLD_NEXT, "XML_TDtReparseDeferralEnabled");
  XML_Parser parser = create(encoding);
  if (set != NULL) {
    set(parser, XML_FALSE);
  }
  return parser;
}
