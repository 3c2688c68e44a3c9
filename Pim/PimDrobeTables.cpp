// The one instantiation of the per-VRF status and the counter tables (see
// PimDrobeTables.h); PimDrobeTablesIntf.cpp has the interface-keyed generation, so that
// the two compile in parallel.
#include "Pim/PimDrobeTables.h"

#define PIM_DROBE_TABLE(K, V)           \
  template class ::Drobe::Writer<K, V>; \
  template class ::Drobe::Reader<K, V>;
PIM_DROBE_STATUS_TABLES(PIM_DROBE_TABLE, ::Routing::Pim::Drobe::StatusTypes)
PIM_DROBE_TABLE(::Routing::Pim::Drobe::CounterKey, ::Routing::Pim::Drobe::MessageCounterData)
