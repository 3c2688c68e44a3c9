// PimCore: print forms of the agent-side PIM types.
#include "Pim/platform/PimCore.h"

namespace Routing::Pim {

std::ostream& operator<<(std::ostream& os, const JoinPruneData::Bookmark& b) {
  using C = JoinPruneData::Bookmark::Collection;
  os << "Bookmark: (" << b.group() << ", " << b.source() << ") Collection: ";
  switch (b.collection()) {
    case C::StarG:
      os << "(*,G)";
      break;
    case C::SgRpt:
      os << "(S,G,rpt)";
      break;
    case C::Sg:
      os << "(S,G)";
      break;
    default:
      os << "unknown";
      break;
  }
  return os << (b.type() == JoinPruneData::Bookmark::Type::Join ? " Type: join" : " Type: prune");
}

}  // namespace Routing::Pim
