// The Linux adapters' trace facility, "Pim::Linux".
#pragma once

#include "Pim/platform/Flicklog.h"

namespace PimLinux {

inline Flicklog::Facility& linuxTrace() {
  static Flicklog::Facility& f = Flicklog::facility("Pim::Linux");
  return f;
}

}  // namespace PimLinux
