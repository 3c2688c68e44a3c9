// The shared-memory tables of the PIM records, instantiated once (PimDrobeTables*.cpp)
// instead of in every file that uses a status or counter container: a new user of these
// tables costs its own code's compile time, not the tables' again.
//
// PIM_DROBE_TABLES(X) lists every (key, record) pair the containers mount; X(K, V) is
// expanded once per pair (both generations of the status records, and the counters).
#pragma once

#include "Pim/PimTypesDrobe.h"
#include "Pim/platform/Drobe.h"

#define PIM_DROBE_STATUS_TABLES(X, T)                    \
  X(T::IntfKey, T::Intf)                                 \
  X(T::NeighborKey, T::Neighbor)                         \
  X(T::NeighborKey, T::NeighborRef)                      \
  X(T::IntfSecondaryAddressKey, T::IntfSecondaryAddress) \
  X(T::IntfSecondaryPrefixKey, T::IntfSecondaryPrefix)   \
  X(T::NeighborSecondaryAddressKey, T::NeighborSecondaryAddress)

#define PIM_DROBE_TABLES(X)                                                 \
  PIM_DROBE_STATUS_TABLES(X, ::Routing::Pim::Drobe::StatusTypes)            \
  PIM_DROBE_STATUS_TABLES(X, ::Routing::Pim::IntfNghbr::Drobe::StatusTypes) \
  X(::Routing::Pim::Drobe::CounterKey, ::Routing::Pim::Drobe::MessageCounterData)

#define PIM_DROBE_EXTERN_TABLE(K, V)           \
  extern template class ::Drobe::Writer<K, V>; \
  extern template class ::Drobe::Reader<K, V>;
PIM_DROBE_TABLES(PIM_DROBE_EXTERN_TABLE)
#undef PIM_DROBE_EXTERN_TABLE
