// Drobe liveness: a writer holds an exclusive open-file-description lock (F_OFD_SETLK) on
// its table file for its whole life; the kernel drops it when the writer dies, whatever
// becomes of its pid, so readers and a successor writer test the lock, not the pid.
#pragma once

namespace Drobe::detail {

// Whether another open file description holds the writer's lock on fd's file.
bool writerLockHeld(int fd);

}  // namespace Drobe::detail
