// Drobe file format: the geometry a collection file is written with, the bounds a reader
// holds a header to, and the schema fingerprint of a table's key and record.
#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "Pim/platform/Kel.h"

namespace Drobe::detail {

// Geometry of a collection file; the writer stores it, a reader checks it against its
// own template arguments before it trusts the mapping.
struct Layout {
  std::uint32_t keySize = 0;
  std::uint32_t valueSize = 0;
  std::uint32_t slotSize = 0;
  std::uint32_t ringEntrySize = 0;
  std::uint32_t capacity = 0;
  std::uint32_t slotCount = 0;
  std::uint32_t ringSize = 0;
  std::uint32_t reserved = 0;
  std::uint64_t schema = 0;  // fingerprint of the key's and record's field lists
};

// Bounds a reader enforces on a header (a writer never exceeds them).
inline constexpr std::uint32_t kMaxCapacity = 3u << 28;
inline constexpr std::uint32_t kMaxRingSize = 1u << 20;

std::uint32_t slotCountFor(std::uint32_t capacity);
std::uint32_t ringSizeFor(std::uint32_t requested);

// Schema fingerprint. A record with a field table (Kel's kFields) contributes its type name
// and, per field, the name, offset, size and kind of the field (nested field tables
// recursively); other types contribute their size and alignment only.
inline std::uint64_t schemaMix(std::uint64_t h, std::uint64_t x) noexcept {
  h ^= x + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
  h *= 0xff51afd7ed558ccdull;
  return h ^ (h >> 29);
}
inline std::uint64_t schemaMix(std::uint64_t h, std::string_view s) noexcept {
  std::uint64_t f = 0xcbf29ce484222325ull;
  for (char c : s) f = (f ^ static_cast<unsigned char>(c)) * 0x100000001b3ull;
  return schemaMix(schemaMix(h, s.size()), f);
}

template <typename T>
std::uint64_t schemaOf(std::uint64_t h) {
  h = schemaMix(h, sizeof(T));
  h = schemaMix(h, alignof(T));
  if constexpr (std::is_enum_v<T>) {
    return schemaMix(schemaMix(h, 1), sizeof(std::underlying_type_t<T>));
  } else if constexpr (std::is_floating_point_v<T>) {
    return schemaMix(h, 2);
  } else if constexpr (std::is_integral_v<T>) {
    return schemaMix(h, std::is_signed_v<T> ? 3 : 4);
  } else if constexpr (std::is_array_v<T>) {
    return schemaOf<std::remove_extent_t<T>>(schemaMix(h, std::extent_v<T>));
  } else if constexpr (Kel::HasFieldTable<T>) {
    if constexpr (requires { T::kTypeName; }) h = schemaMix(h, std::string_view(T::kTypeName));
    const T obj{};
    const auto* base = reinterpret_cast<const unsigned char*>(&obj);
    std::apply(
        [&](const auto&... f) {
          ((h = schemaOf<std::remove_cvref_t<decltype(obj.*(f.member))>>(
                schemaMix(schemaMix(h, f.name),
                          static_cast<std::uint64_t>(
                              reinterpret_cast<const unsigned char*>(&(obj.*(f.member))) - base)))),
           ...);
        },
        Kel::fieldsOf<T>());
    return h;
  } else {
    return schemaMix(h, 5);
  }
}

template <typename K, typename V>
std::uint64_t schemaFor() {
  static const std::uint64_t s = schemaOf<V>(schemaOf<K>(0x44524f4245ull));
  return s;
}

}  // namespace Drobe::detail
