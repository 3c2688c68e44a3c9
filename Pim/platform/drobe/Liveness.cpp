// Drobe liveness: a writer is alive while its open-file-description lock is held.

#include "Pim/platform/drobe/Liveness.h"

#include <fcntl.h>

namespace Drobe::detail {

// Whether another open file description holds the writer's lock on fd's file.
bool writerLockHeld(int fd) {
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  if (::fcntl(fd, F_OFD_GETLK, &fl) != 0) return false;
  return fl.l_type != F_UNLCK;
}

}  // namespace Drobe::detail
