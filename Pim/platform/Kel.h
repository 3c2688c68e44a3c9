// Kel: the object framework the PIM core is built on.
//
// - Ptr<T> / PtrInterface: intrusive, atomically counted references. Every entity and
//   message object is created by a factory returning a Ptr.
// - Entity and NotifieeList: an entity keeps the notifiees (reactors) that watch it and
//   calls them synchronously when an attribute changes. Dispatch is re-entrancy safe: a
//   notifiee may detach itself or any other notifiee, or attach new ones, while it is being
//   called; detached ones are never called again, new ones are called from the next change.
// - Name, RangeError, KEL_ASSERT: names of entities, the range error of value types (its
//   text is the fixed text of the failing check), and the assertion for programming errors.
// - Clock: the only source of time. SystemClock reads CLOCK_MONOTONIC; ManualClock is set
//   by tests so that every timer-driven machine runs deterministically without sleeping.
// - Value text form: every value record prints as
//     Value('<full type name>', ** {'field': value, ...})
//   and parses back from the same text. A record opts in by declaring kTypeName and a
//   kFields tuple of (name, member pointer) pairs; see "Value text form" below.
//
// Threading: event-loop thread only, except the reference counts, which are atomic.
//
// Usage:
//   struct Counter : Kel::PtrInterface { int n = 0; };
//   Kel::Ptr<Counter> c = Kel::Ptr<Counter>::make();
//   Kel::ManualClock clock;  clock.advance(1.5);  // clock.now() == 1.5
//   KEL_ASSERT(c);                                 // aborts with the text "c" if null
#pragma once

#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Kel {

// ---------------------------------------------------------------------------------------
// Assertions: programming errors only, never input. The text printed is the expression
// as written, so "false && \"Unsupported address family\"" reads exactly so.

[[noreturn]] void assertionFailed(const char* expr, const char* file, int line) noexcept;

#define KEL_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : ::Kel::assertionFailed(#expr, __FILE__, __LINE__))

// ---------------------------------------------------------------------------------------
// Range errors of value types. what() is the fixed text of the check that failed.

class RangeError : public std::range_error {
 public:
  explicit RangeError(const std::string& text) : std::range_error(text) {}
};

// ---------------------------------------------------------------------------------------
// Reference counting.

class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(const PtrInterface&) : refs_(0) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }
  virtual ~PtrInterface() = default;

  void newRef() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void deleteRef() const noexcept {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  std::uint32_t references() const noexcept { return refs_.load(std::memory_order_relaxed); }

 private:
  mutable std::atomic<std::uint32_t> refs_{0};
};

template <typename T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}  // NOLINT: implicit by design, like a raw pointer
  Ptr(T* p) noexcept : p_(p) {     // NOLINT
    if (p_) p_->newRef();
  }
  Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) noexcept : Ptr(o.ptr()) {}  // NOLINT
  ~Ptr() {
    if (p_) p_->deleteRef();
  }
  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  template <typename... Args>
  static Ptr make(Args&&... args) {
    return Ptr(new T(std::forward<Args>(args)...));
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
  // Lets "p != 0" read as it does for a raw pointer (the literal 0 would be ambiguous).
  friend bool operator==(const Ptr& a, int zero) noexcept { return zero == 0 && !a.p_; }

 private:
  T* p_ = nullptr;
};

template <typename T, typename U>
Ptr<T> ptr_cast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

// ---------------------------------------------------------------------------------------
// Names.

class Name {
 public:
  Name() = default;
  Name(std::string s) : s_(std::move(s)) {}  // NOLINT: names are written as literals
  Name(const char* s) : s_(s) {}             // NOLINT
  const std::string& str() const noexcept { return s_; }
  bool empty() const noexcept { return s_.empty(); }
  friend auto operator<=>(const Name&, const Name&) = default;

 private:
  std::string s_;
};

// ---------------------------------------------------------------------------------------
// Notification. A NotifieeList holds raw pointers to notifiees; a notifiee removes itself
// in its destructor (ownership is registration), so no pointer outlives its object.

template <typename N>
class NotifieeList {
 public:
  void add(N* n) {
    for (N* m : list_)
      if (m == n) return;
    list_.push_back(n);
  }
  void remove(N* n) {
    for (auto& m : list_)
      if (m == n) m = nullptr;  // compacted when no dispatch is running
    compact();
  }
  bool empty() const {
    for (N* m : list_)
      if (m) return false;
    return true;
  }
  std::size_t size() const {
    std::size_t c = 0;
    for (N* m : list_) c += m != nullptr;
    return c;
  }

  // Calls fn(n) for every notifiee attached when the dispatch began and still attached
  // when its turn comes. Notifiees attached during the dispatch wait for the next one.
  template <typename F>
  void forEach(F&& fn) {
    if (list_.empty()) return;  // the common case on hot paths: nobody watching
    // The depth must come back down even if a handler throws, or detached slots would
    // never be compacted again.
    struct Depth {
      NotifieeList& l;
      explicit Depth(NotifieeList& list) : l(list) { ++l.depth_; }
      ~Depth() {
        --l.depth_;
        l.compact();
      }
    } depth(*this);
    const std::size_t count = list_.size();
    for (std::size_t i = 0; i < count && i < list_.size(); ++i) {
      if (N* n = list_[i]) fn(*n);
    }
  }

 private:
  void compact() {
    if (depth_ != 0) return;
    std::erase(list_, nullptr);
  }
  std::vector<N*> list_;
  int depth_ = 0;
};

// Immediate handlers. A collection's notifiee may offer, beside onFoo() (the whole
// collection changed), the immediate variant onFooImmediate(). Both are synchronous; the
// difference is order: for one whole-collection change every notifiee's immediate handler
// runs before any notifiee's onFoo(). Notifiees that keep state derived from the
// collection (indexes, caches) rebuild it in the immediate handler, so that ordinary
// handlers reading through the entity see it consistent. Per-key changes have no
// immediate variant.

struct Reflection;  // see "Reflection by name" below

// Base of state-database entities: a name and reference counting. Each entity class
// declares its own NotifieeConst with one virtual handler per attribute and keeps a
// NotifieeList of them; the generated-style setters call the handlers synchronously.
class Entity : public PtrInterface {
 public:
  explicit Entity(Name name) : name_(std::move(name)) {}
  const Name& name() const noexcept { return name_; }
  // The entity type's attribute table; null for a type that offers none.
  virtual const Reflection* reflection() const noexcept { return nullptr; }

 private:
  Name name_;
};

// Helper for a NotifieeConst base: attaches to an entity on notifierIs() and detaches in
// its destructor. E is the watched entity, which must offer notifieeAdd/notifieeRemove.
template <typename E, typename Self>
class BaseNotifiee {
 public:
  BaseNotifiee() = default;
  BaseNotifiee(const BaseNotifiee&) = delete;
  BaseNotifiee& operator=(const BaseNotifiee&) = delete;
  // No downcast here: the derived part is already destroyed, so the pointer saved when
  // attaching is what gets removed.
  virtual ~BaseNotifiee() {
    if (notifier_) notifier_->notifieeRemove(self_);
  }

  const Ptr<E>& notifier() const noexcept { return notifier_; }
  void notifierIs(const Ptr<E>& n) {
    if (notifier_ == n) return;
    if (notifier_) notifier_->notifieeRemove(self_);
    notifier_ = n;
    self_ = static_cast<Self*>(this);
    if (notifier_) notifier_->notifieeAdd(self_);
  }

 private:
  Ptr<E> notifier_;
  Self* self_ = nullptr;
};

// ---------------------------------------------------------------------------------------
// Time. Seconds as double, the unit the status records publish.

using Time = double;

class Clock : public PtrInterface {
 public:
  virtual Time now() const noexcept = 0;
};

class SystemClock final : public Clock {
 public:
  Time now() const noexcept override;
};

class ManualClock final : public Clock {
 public:
  explicit ManualClock(Time start = 0.0) : now_(start) {}
  Time now() const noexcept override { return now_; }
  void nowIs(Time t) noexcept { now_ = t; }
  void advance(Time dt) noexcept { now_ += dt; }

 private:
  Time now_;
};

// ---------------------------------------------------------------------------------------
// Value text form.
//
// A record type T opts in with
//   static constexpr std::string_view kTypeName = "Routing::Pim::Packet::GroupAddress";
//   static constexpr auto kFields = std::make_tuple(Kel::field("address", &T::address_), ...);
// and each field type F has a ValueText<F> specialisation (numbers, bool, double,
// strings and nested value records are provided here; Nimo adds addresses and names):
//   static void print(std::string& out, const F& v);
//   static void parse(ValueParser& in, F& v);   // in.fail() on a malformed field
// valueToStrep(v) prints the form; parseValue<T>(begin, end) reads it back, raising a
// RangeError that names the attribute on the first field that does not match.

template <typename C, typename F>
struct FieldRef {
  std::string_view name;
  F C::*member;
};
template <typename C, typename F>
constexpr FieldRef<C, F> field(std::string_view name, F C::*member) {
  return {name, member};
}

// Records nested in a class that is still incomplete where kFields would be initialised
// declare a static constexpr function fields() instead.
// clang-format 14 breaks concept definitions apart.
// clang-format off
template <typename T>
concept HasFieldTable = requires { T::kFields; } || requires { T::fields(); };

template <typename T>
concept ValueRecord = HasFieldTable<T> && requires { T::kTypeName; };
// clang-format on

template <typename T>
constexpr auto fieldsOf() {
  if constexpr (requires { T::kFields; }) {
    return T::kFields;
  } else {
    return T::fields();
  }
}

template <typename F, typename = void>
struct ValueText;  // specialised per field type

// A cursor over the text being parsed. Parse functions consume from it and, on text that
// does not fit, call fail(); the caller then raises the range error naming the attribute.
class ValueParser {
 public:
  ValueParser(std::string_view text) : text_(text) {}  // NOLINT
  ValueParser(const char* begin, const char* end)
      : text_(begin, static_cast<std::size_t>(end - begin)) {}

  bool ok() const noexcept { return ok_; }
  void fail() noexcept { ok_ = false; }
  std::string_view rest() const noexcept { return text_.substr(pos_); }
  bool atEnd() const noexcept { return pos_ == text_.size(); }

  // Consumes lit if the text continues with it; fails otherwise.
  bool expect(std::string_view lit) noexcept;
  // True (and consumed) if the text continues with lit; no failure otherwise.
  bool accept(std::string_view lit) noexcept;
  // A bare token: everything up to the next ',', '}', ')' or blank.
  std::string_view token() noexcept;
  // A single-quoted string with \\ and \' escapes.
  std::string quoted() noexcept;

  template <typename I>
  void integer(I& out) noexcept {
    auto t = token();
    I v{};
    auto [p, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
    if (t.empty() || ec != std::errc() || p != t.data() + t.size()) return fail();
    out = v;
  }

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
  bool ok_ = true;
};

void appendQuoted(std::string& out, std::string_view s);
void appendDouble(std::string& out, double v);
void parseDouble(ValueParser& in, double& v);

template <typename I>
struct ValueText<I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool>>> {
  static void print(std::string& out, I v) {
    // uint8_t fields print as numbers, not characters.
    if constexpr (std::is_signed_v<I>) {
      out += std::to_string(static_cast<long long>(v));
    } else {
      out += std::to_string(static_cast<unsigned long long>(v));
    }
  }
  static void parse(ValueParser& in, I& v) { in.integer(v); }
};

template <>
struct ValueText<bool> {
  static void print(std::string& out, bool v) { out += v ? "True" : "False"; }
  static void parse(ValueParser& in, bool& v) {
    if (in.accept("True")) {
      v = true;
    } else if (in.accept("False")) {
      v = false;
    } else {
      in.fail();
    }
  }
};

template <>
struct ValueText<double> {
  static void print(std::string& out, double v) { appendDouble(out, v); }
  static void parse(ValueParser& in, double& v) { parseDouble(in, v); }
};

template <>
struct ValueText<std::string> {
  static void print(std::string& out, const std::string& v) { appendQuoted(out, v); }
  static void parse(ValueParser& in, std::string& v) { v = in.quoted(); }
};

template <typename T>
void appendValue(std::string& out, const T& v);
template <typename T>
void parseValueInto(ValueParser& in, T& v);

template <typename T>
struct ValueText<T, std::enable_if_t<ValueRecord<T>>> {
  static void print(std::string& out, const T& v) { appendValue(out, v); }
  static void parse(ValueParser& in, T& v) { parseValueInto(in, v); }
};

// Enumerations print by name. An enum opts in with a free function
//   std::span<const std::string_view> enumNames(E)   (index = value)
// found by argument-dependent lookup, or prints as its number without one.
template <typename E>
concept NamedEnum = std::is_enum_v<E> && requires(E e) {
  enumNames(e);
};

template <typename E>
struct ValueText<E, std::enable_if_t<std::is_enum_v<E>>> {
  using U = std::underlying_type_t<E>;
  static void print(std::string& out, E v) {
    if constexpr (NamedEnum<E>) {
      auto names = enumNames(v);
      auto i = static_cast<std::size_t>(v);
      if (i < std::size(names) && !names[i].empty()) {
        out += names[i];
        return;
      }
    }
    ValueText<U>::print(out, static_cast<U>(v));
  }
  static void parse(ValueParser& in, E& v) {
    if constexpr (NamedEnum<E>) {
      auto names = enumNames(v);
      std::string_view t = in.token();
      for (std::size_t i = 0; i < std::size(names); ++i) {
        if (!names[i].empty() && names[i] == t) {
          v = static_cast<E>(i);
          return;
        }
      }
      U n{};
      auto [p, ec] = std::from_chars(t.data(), t.data() + t.size(), n);
      if (t.empty() || ec != std::errc() || p != t.data() + t.size()) return in.fail();
      v = static_cast<E>(n);
    } else {
      U n{};
      in.integer(n);
      v = static_cast<E>(n);
    }
  }
};

[[noreturn]] void throwParseError(std::string_view typeName, std::string_view attribute);

// Calls fn(name, field) for each field of a value record, in declaration order (const
// fields for a const record).
template <typename T, typename F>
void forEachField(T& v, F&& fn) {
  std::apply([&](const auto&... f) { (fn(f.name, v.*(f.member)), ...); },
             fieldsOf<std::remove_const_t<T>>());
}

template <typename T>
void appendValue(std::string& out, const T& v) {
  out += "Value('";
  out += T::kTypeName;
  out += "', ** {";
  bool first = true;
  forEachField(v, [&](std::string_view name, const auto& field) {
    if (!first) out += ", ";
    first = false;
    out += '\'';
    out += name;
    out += "': ";
    ValueText<std::remove_cvref_t<decltype(field)>>::print(out, field);
  });
  out += "})";
}

// Parses a nested or top-level value; a field that does not match raises the range error
// naming that field (the innermost one for nested values).
template <typename T>
void parseValueInto(ValueParser& in, T& v) {
  if (!in.expect("Value('") || !in.expect(T::kTypeName) || !in.expect("', ** {")) {
    throwParseError(T::kTypeName, "Value");
  }
  bool first = true;
  forEachField(v, [&](std::string_view name, auto& field) {
    if (!first && !in.expect(", ")) throwParseError(T::kTypeName, name);
    first = false;
    if (!in.expect("'") || !in.expect(name) || !in.expect("': ")) {
      throwParseError(T::kTypeName, name);
    }
    ValueText<std::remove_cvref_t<decltype(field)>>::parse(in, field);
    // The value must end where the field does ("Truest" is no bool), so that the error
    // names this field rather than the next one.
    const std::string_view after = in.rest();
    if (!in.ok() || !(after.starts_with(", ") || after.starts_with("})"))) {
      throwParseError(T::kTypeName, name);
    }
  });
  if (!in.expect("})")) throwParseError(T::kTypeName, "Value");
}

template <typename T>
std::string valueToStrep(const T& v) {
  std::string out;
  appendValue(out, v);
  return out;
}

// Parses exactly one value filling the whole range; the parsing constructors of value
// records call this.
template <typename T>
void parseValue(const char* begin, const char* end, T& v) {
  ValueParser in(begin, end);
  parseValueInto(in, v);
  if (!in.atEnd()) throwParseError(T::kTypeName, "Value");
}

// ---------------------------------------------------------------------------------------
// Reflection by name: an entity's attributes read as text and set from text, and its
// collections listed and reached by key, for tools and tests that know only names.
//
// An entity type lists its attributes once, in a static Reflection returned by its
// reflection() override:
//   static const Kel::AttributeInfo kAttrs[] = {
//       Kel::valueAttribute<&NsfStatus::restarting, &NsfStatus::restartingIs>("restarting")};
//   static const Kel::Reflection kRefl{NsfStatus::kTypeName, kAttrs, {}};
// Texts are the value text forms above ("True", "'red'", a record's Value(...) form).
// - attributeTextIs parses the whole text first and then calls the attribute's own setter,
//   so a malformed value raises the RangeError naming the attribute and changes nothing,
//   and writing the current value notifies nothing, as with the setter.
// - An unknown attribute or collection name, or a set of a read-only attribute, raises
//   AttributeError. Nothing here asserts: names come from outside.
// - Collection keys are in their value text form; collectionMember of an absent key is null.

class AttributeError : public std::invalid_argument {
 public:
  explicit AttributeError(const std::string& text) : std::invalid_argument(text) {}
};

struct AttributeInfo {
  std::string_view name;
  std::string (*get)(const Entity&);
  bool (*set)(Entity&, std::string_view text);  // false: malformed; null: read-only
  Ptr<PtrInterface> (*object)(const Entity&);   // the object an attribute holds, or null
};

struct CollectionRefl {
  std::string_view name;
  std::vector<std::string> (*keys)(const Entity&);
  Ptr<Entity> (*member)(const Entity&, std::string_view key);  // null if absent or malformed
};

struct Reflection {
  std::string_view typeName;
  std::span<const AttributeInfo> attributes;
  std::span<const CollectionRefl> collections;
};

std::string attributeText(const Entity& e, std::string_view name);
void attributeTextIs(Entity& e, std::string_view name, std::string_view text);
// The object held by an attribute that holds one (a pointer attribute), else null.
Ptr<PtrInterface> attributeObject(const Entity& e, std::string_view name);
std::vector<std::string> collectionKeys(const Entity& e, std::string_view collection);
Ptr<Entity> collectionMember(const Entity& e, std::string_view collection, std::string_view key);

// Parses text as one whole value of type T; false if anything does not fit.
template <typename T>
bool parseWhole(std::string_view text, T& out) {
  ValueParser in(text);
  T v{};
  ValueText<T>::parse(in, v);
  if (!in.ok() || !in.atEnd()) return false;
  out = v;
  return true;
}

template <typename M>
struct MemberFn;
template <typename C, typename R>
struct MemberFn<R (C::*)() const noexcept> {
  using Class = C;
  using Value = std::remove_cvref_t<R>;
};
template <typename C, typename R>
struct MemberFn<R (C::*)() const> : MemberFn<R (C::*)() const noexcept> {};

// An attribute with a getter and, unless Set is nullptr, a setter taking its value.
template <auto Get, auto Set = nullptr>
constexpr AttributeInfo valueAttribute(std::string_view name) {
  using C = typename MemberFn<decltype(Get)>::Class;
  using V = typename MemberFn<decltype(Get)>::Value;
  AttributeInfo a{name,
                  [](const Entity& e) {
                    std::string out;
                    ValueText<V>::print(out, (static_cast<const C&>(e).*Get)());
                    return out;
                  },
                  nullptr, nullptr};
  if constexpr (!std::is_same_v<decltype(Set), std::nullptr_t>) {
    a.set = [](Entity& e, std::string_view text) {
      V v{};
      if (!parseWhole(text, v)) return false;
      (static_cast<C&>(e).*Set)(v);
      return true;
    };
  }
  return a;
}

// A read-only attribute holding an object by Ptr; its text is "<type name>('<name>')" for
// an entity, "None" when null.
template <auto Get>
constexpr AttributeInfo objectAttribute(std::string_view name) {
  using C = typename MemberFn<decltype(Get)>::Class;
  using P = typename MemberFn<decltype(Get)>::Value;
  return {name,
          [](const Entity& e) {
            const P& p = (static_cast<const C&>(e).*Get)();
            if (!p) return std::string("None");
            std::string out(std::remove_cvref_t<decltype(*p)>::kTypeName);
            out += '(';
            appendQuoted(out, p->name().str());
            out += ')';
            return out;
          },
          nullptr,
          [](const Entity& e) -> Ptr<PtrInterface> { return (static_cast<const C&>(e).*Get)(); }};
}

// ---------------------------------------------------------------------------------------
// Attribute log output (NboAttrLog): attribute changes of state objects streamed in
// network byte order to an external collector over a connected stream socket.
//
// Each record is big-endian and self-delimiting:
//   u32 record length (these 4 bytes included) | u16 n, path | u16 n, attribute |
//   u32 n, value bytes
// The socket is non-blocking; what it does not take now waits in the output's buffer and
// goes out on the next attrIs() or flush(). clogged() is true while the unsent bytes are
// above the high-water mark: the receive loop stops reading packets then, so that a slow
// collector slows the agent instead of growing its memory. A send error other than
// EAGAIN (collector gone) is traced and counted, the unsent bytes are dropped, and the
// output stays failed (not clogged: a dead collector must not stop the agent).
//
// Threading: event-loop thread only.
//
// Usage:
//   int sv[2]; socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
//   auto out = Kel::NboAttrLog::socketOutSmFactory("attrlog", sv[0], 64 * 1024);
//   out->attrIs("routing/pim/status/default", "holdTime", bytes);
//   if (out->clogged()) { /* stop reading; call out->flush() when the socket drains */ }
namespace NboAttrLog {

class SocketOutSm : public Entity {
 public:
  static constexpr std::string_view kTypeName = "Kel::NboAttrLog::SocketOutSm";

  class NotifieeConst : public BaseNotifiee<SocketOutSm, NotifieeConst> {
   public:
    virtual void onClogged() {}
  };
  void notifieeAdd(NotifieeConst* n) { notifiees_.add(n); }
  void notifieeRemove(NotifieeConst* n) { notifiees_.remove(n); }

  // Takes ownership of fd (closed on destruction) and makes it non-blocking.
  SocketOutSm(Name name, int fd, std::size_t highWater);
  ~SocketOutSm() override;
  SocketOutSm(const SocketOutSm&) = delete;
  SocketOutSm& operator=(const SocketOutSm&) = delete;

  int fd() const noexcept { return fd_; }
  std::size_t highWater() const noexcept { return highWater_; }
  // Queues one record and sends what the socket takes. Dropped (and counted) once failed.
  void attrIs(std::string_view path, std::string_view attribute, std::string_view value) noexcept;
  // Sends what the socket takes of the unsent bytes; returns the bytes sent.
  std::size_t flush() noexcept;

  std::size_t unsentBytes() const noexcept { return buf_.size() - head_; }
  bool clogged() const noexcept { return clogged_; }
  bool failed() const noexcept { return failed_; }
  std::uint64_t records() const noexcept { return records_; }
  std::uint64_t recordsDropped() const noexcept { return recordsDropped_; }
  std::uint64_t sendErrors() const noexcept { return sendErrors_; }

 private:
  void cloggedIs(bool c);
  int fd_;
  std::size_t highWater_;
  std::vector<char> buf_;
  std::size_t head_ = 0;  // first unsent byte of buf_
  bool clogged_ = false;
  bool failed_ = false;
  std::uint64_t records_ = 0;
  std::uint64_t recordsDropped_ = 0;
  std::uint64_t sendErrors_ = 0;
  NotifieeList<NotifieeConst> notifiees_;
};

Ptr<SocketOutSm> socketOutSmFactory(const Name& name, int fd, std::size_t highWater);

}  // namespace NboAttrLog

}  // namespace Kel
