#include "stand_ins/smbclient.h"

#include <libsmbclient.h>

std::function<bool()> stand_ins::open_directory;

namespace {

char directory;

SMBCFILE* Open(SMBCCTX* /*context_*/, const char* /*url_*/) {
  return stand_ins::open_directory() ? reinterpret_cast<SMBCFILE*>(&directory) : nullptr;
}

const libsmb_file_info* Read(SMBCCTX* /*context_*/, SMBCFILE* /*directory_*/) { return nullptr; }

int Close(SMBCCTX* /*context_*/, SMBCFILE* /*directory_*/) { return 0; }

}  // namespace

smbc_opendir_fn smbc_getFunctionOpendir(SMBCCTX* /*context_*/) { return &Open; }

smbc_readdirplus_fn smbc_getFunctionReaddirPlus(SMBCCTX* /*context_*/) { return &Read; }

smbc_closedir_fn smbc_getFunctionClosedir(SMBCCTX* /*context_*/) { return &Close; }

// The library keeps some memory of each thread. The leak sanitizer asks for this.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT
  return "leak:libtalloc.so";
}
