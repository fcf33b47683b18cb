// Preloaded into the daemon together with a copy of expat in which the function that switches
// deferral off has another name. Makes this copy behave as an old expat, which does not defer and
// does not have the function. A copy without the function needs no change.
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
