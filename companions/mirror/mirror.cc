#include "mirror.h"

#include <stdlib.h>

int RunMirror(const MirrorSettings& settings_, const MakeRemote& make_remote_) {
  return settings_.directory.empty() || !make_remote_ ? EXIT_FAILURE : EXIT_SUCCESS;
}
