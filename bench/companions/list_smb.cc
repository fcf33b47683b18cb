// The floor of the CIFS helper's looks: lists a directory again and again with libsmbclient, and
// does nothing with the listing. Writes a dot for each look.
//
// usage: list_smb URL USER PASSWORD PORT SECONDS
#include <libsmbclient.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

char** arguments;

void TellLogin(SMBCCTX* /*context_*/, const char* /*server_*/, const char* /*share_*/,
               char* /*domain_*/, int /*domain_size_*/, char* user_, int user_size_,
               char* password_, int password_size_) {
  snprintf(user_, static_cast<size_t>(user_size_), "%s", arguments[2]);
  snprintf(password_, static_cast<size_t>(password_size_), "%s", arguments[3]);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) {
    return EXIT_FAILURE;
  }
  arguments = argv;
  SMBCCTX* context = smbc_new_context();
  smbc_setFunctionAuthDataWithContext(context, &TellLogin);
  smbc_setPort(context, static_cast<uint16_t>(strtol(argv[4], nullptr, 10)));
  smbc_setOptionProtocols(context, "SMB2_02", "SMB3");
  if (smbc_init_context(context) == nullptr) {
    return EXIT_FAILURE;
  }
  for (;;) {
    SMBCFILE* directory = smbc_getFunctionOpendir(context)(context, argv[1]);
    if (directory == nullptr) {
      return EXIT_FAILURE;
    }
    while (smbc_getFunctionReaddirPlus(context)(context, directory) != nullptr) {
    }
    smbc_getFunctionClosedir(context)(context, directory);
    putchar('.');
    fflush(stdout);
    usleep(static_cast<useconds_t>(strtol(argv[5], nullptr, 10)) * 1'000'000);
  }
}
