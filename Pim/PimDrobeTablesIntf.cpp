// The one instantiation of the interface-keyed status tables (see PimDrobeTables.h).
#include "Pim/PimDrobeTables.h"

#define PIM_DROBE_TABLE(K, V)           \
  template class ::Drobe::Writer<K, V>; \
  template class ::Drobe::Reader<K, V>;
PIM_DROBE_STATUS_TABLES(PIM_DROBE_TABLE, ::Routing::Pim::IntfNghbr::Drobe::StatusTypes)
