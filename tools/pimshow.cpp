// pimshow: prints the PIM status and message-counter tables that an agent publishes in
// shared memory for one VRF and address family, from any other process.
//
//   pimshow [--af 4|6] [--vrf NAME | --all] [--mode sparse|bidir|all]
//           [--counters-name NAME] [--json] [--watch]
//   pimshow --rphash [--table plain|static|bsr|prefix|bsr-prefix] [--name NAME]
//           [--af 4|6] [--vrf NAME] [--json] [--watch]
//
// The status is read the way an agent's neighbours read it: a status reader mirrors the
// tables (Routing::Pim::Drobe::GlobalStatusReaderSm) and pimshow prints the mirror.
// --mode shows what that mode's agent sees through the mode filter: the interfaces of the
// mode and their active neighbours (collections pimIntf and neighbor only). --all shows
// every VRF whose tables exist under the shared-memory root (each under "vrf NAME:", in
// JSON one member per VRF), and with --watch follows VRFs as their tables come and go.
// A VRF name longer than 63 bytes, given or found, is refused with the name's range error.
//
// Text output lists each collection sorted by key: interfaces and neighbours and counters
// in their show forms (drobeString), the other collections in their value text forms.
// --json prints one object whose members are the collection names ("pimIntf",
// "neighbor", ..., "msgCounter"), each an array of records as objects (numbers as
// numbers, bools as true/false, absent values as null, everything else as strings).
// --watch then prints every change of the mirror as it arrives, one line each (one JSON
// object per line with --json; lines name their VRF with --all), until interrupted.
//
// --rphash prints one RP hash table instead (group prefix to RP; --table picks which of
// the five, --name the writer's name, "pim" by default), as collection "rpHash".
//
// --nsf prints the graceful-restart status of every VRF of the family, as collection
// "vrfStatus"; exit 2 with "no writer" when no live agent publishes it (an agent killed
// mid-restart included: its last state is not shown as current).
//
// Exit status: 0 done, 1 bad usage, 2 the tables asked for are not mounted (no agent
// writes them, or DROBE_ROOT points elsewhere).
#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Pim/NsfStatus.h"
#include "Pim/PimDrobe.h"
#include "Pim/PimRpHashStatus.h"
#include "Pim/PimStatusReaderSm.h"
#include "Pim/PimTypesDrobe.h"
#include "Pim/platform/Drobe.h"
#include "Pim/platform/Kel.h"
#include "Pim/platform/Ulm.h"

namespace {

namespace D = Routing::Pim::Drobe;

struct Options {
  Nimo::AddressFamily af = Nimo::AddressFamily::ipv4;
  std::string vrf = "default";
  std::string countersName = "pim";
  bool json = false;
  bool watch = false;
  bool rpHash = false;
  std::string rpHashTable = "plain";
  std::string rpHashName = "pim";
  bool nsf = false;
  bool allVrfs = false;
  std::string mode;  // empty: the whole mirror
};

constexpr std::string_view kUsage =
    "usage: pimshow [--af 4|6] [--vrf NAME | --all] [--mode sparse|bidir|all]\n"
    "               [--counters-name NAME] [--json] [--watch]\n"
    "       pimshow --rphash [--table plain|static|bsr|prefix|bsr-prefix] [--name NAME]\n"
    "               [--af 4|6] [--vrf NAME] [--json] [--watch]\n"
    "       pimshow --nsf [--af 4|6] [--json] [--watch]\n";

// The mount path of the RP hash table named by --table; empty for an unknown table.
std::string rpHashPath(const Options& o, const L3::VrfName& vrf) {
  using R = Routing::Pim::RpHashStatus;
  using PathFn = std::string (*)(Nimo::AddressFamily, const L3::VrfName&, std::string_view);
  static constexpr std::pair<std::string_view, PathFn> kTables[] = {
      {"plain", &R::mountPath},
      {"static", &R::staticMountPath},
      {"bsr", &R::bsrMountPath},
      {"prefix", &R::prefixMountPath},
      {"bsr-prefix", &R::bsrPrefixMountPath}};
  for (const auto& [table, fn] : kTables) {
    if (table == o.rpHashTable) return fn(o.af, vrf, o.rpHashName);
  }
  return {};
}

bool parseArgs(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view a = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (a == "--json") {
      o.json = true;
    } else if (a == "--watch") {
      o.watch = true;
    } else if (a == "--af") {
      const char* v = value();
      if (!v || (std::strcmp(v, "4") != 0 && std::strcmp(v, "6") != 0)) return false;
      o.af = v[0] == '4' ? Nimo::AddressFamily::ipv4 : Nimo::AddressFamily::ipv6;
    } else if (a == "--vrf") {
      const char* v = value();
      if (!v || !*v) return false;
      o.vrf = v;  // its length is the VRF name's own check
    } else if (a == "--all") {
      o.allVrfs = true;
    } else if (a == "--mode") {
      const char* v = value();
      if (!v || (std::strcmp(v, "sparse") != 0 && std::strcmp(v, "bidir") != 0 &&
                 std::strcmp(v, "all") != 0)) {
        return false;
      }
      o.mode = v;
    } else if (a == "--rphash") {
      o.rpHash = true;
    } else if (a == "--nsf") {
      o.nsf = true;
    } else if (a == "--table" || a == "--name") {
      const char* v = value();
      if (!v || !*v) return false;
      (a == "--table" ? o.rpHashTable : o.rpHashName) = v;
    } else if (a == "--counters-name") {
      const char* v = value();
      if (!v || !*v) return false;
      o.countersName = v;
    } else {
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------------------
// JSON from the records' field lists.

void jsonString(std::string& out, std::string_view s) {
  out += '"';
  for (char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    } else {
      out += c;
    }
  }
  out += '"';
}

template <typename T>
void jsonValue(std::string& out, const T& v) {
  if constexpr (Kel::ValueRecord<T>) {
    out += '{';
    bool first = true;
    Kel::forEachField(v, [&](std::string_view name, const auto& field) {
      if (!first) out += ", ";
      first = false;
      jsonString(out, name);
      out += ": ";
      jsonValue(out, field);
    });
    out += '}';
  } else if constexpr (std::is_same_v<T, bool>) {
    out += v ? "true" : "false";
  } else if constexpr (std::is_arithmetic_v<T>) {
    Kel::ValueText<T>::print(out, v);
  } else if constexpr (requires { requires std::is_arithmetic_v<decltype(v.value())>; }) {
    jsonValue(out, v.value());  // number wrappers (RpPriority, RpHashMaskLen)
  } else if constexpr (std::is_same_v<T, Nimo::IntfId> || std::is_same_v<T, L3::VrfName>) {
    jsonString(out, v.name());  // the bare name: JSON quotes it already
  } else {
    std::string t;
    Kel::ValueText<T>::print(t, v);
    if (t == "None") {
      out += "null";
    } else {
      jsonString(out, t);
    }
  }
}

// ---------------------------------------------------------------------------------------
// Printing.

template <typename V>
std::string textOf(const V& v) {
  if constexpr (requires { v.drobeString(); }) {
    return v.drobeString();
  } else {
    return Kel::valueToStrep(v);
  }
}

template <typename K>
std::string keyText(const K& k, bool json) {
  std::string out;
  if (json) {
    jsonValue(out, k);
  } else if constexpr (Kel::ValueRecord<K>) {
    out = Kel::valueToStrep(k);
  } else if constexpr (std::is_same_v<K, Nimo::IntfId>) {
    out = std::string(k.name());
  } else {
    Kel::ValueText<K>::print(out, k);
  }
  return out;
}

template <typename V>
std::string recordText(const V& v, bool json) {
  if (!json) return textOf(v);
  std::string out;
  jsonValue(out, v);
  return out;
}

// All records of a collection, sorted by key.
template <typename Table>
auto sortedRecords(const Table& t) {
  using V = typename Table::Value;
  std::vector<V> all;
  t.forEach([&](const V& v) { all.push_back(v); });
  std::sort(all.begin(), all.end(), [](const V& a, const V& b) { return a.key() < b.key(); });
  return all;
}

template <typename Table>
void printCollection(std::string& out, const Table& t, const Options& o, bool& first) {
  const auto all = sortedRecords(t);
  if (o.json) {
    if (!first) out += ",\n";
    out += "  ";
    jsonString(out, t.name());
    out += ": [";
    for (std::size_t i = 0; i < all.size(); ++i) {
      out += i ? ",\n    " : "\n    ";
      out += recordText(all[i], true);
    }
    out += all.empty() ? "]" : "\n  ]";
  } else {
    out += fmt::format("{} ({}):\n", t.name(), all.size());
    for (const auto& v : all) out += "  " + recordText(v, false) + "\n";
  }
  first = false;
}

// Prints one change of a watched collection.
template <typename Table, typename K>
void printChange(const Table& t, const K& k, const Options& o) {
  const auto v = t.find(k);
  std::string line;
  if (o.json) {
    line = "{\"collection\": ";
    jsonString(line, t.name());
    line += v ? ", \"event\": \"set\", \"value\": " + recordText(*v, true)
              : ", \"event\": \"del\", \"key\": " + keyText(k, true);
    line += "}";
  } else {
    line = v ? fmt::format("{} set: {}", t.name(), recordText(*v, false))
             : fmt::format("{} del: {}", t.name(), keyText(k, false));
  }
  std::puts(line.c_str());
  std::fflush(stdout);
}

void printEvent(std::string_view collection, std::string_view event, std::size_t size,
                const Options& o) {
  if (o.json) {
    std::printf("{\"collection\": \"%.*s\", \"event\": \"%.*s\", \"size\": %zu}\n",
                static_cast<int>(collection.size()), collection.data(),
                static_cast<int>(event.size()), event.data(), size);
  } else {
    std::printf("%.*s %.*s (%zu entries)\n", static_cast<int>(collection.size()), collection.data(),
                static_cast<int>(event.size()), event.data(), size);
  }
  std::fflush(stdout);
}

// ---------------------------------------------------------------------------------------
// The mirror, printed in the tables' own forms.

// Records built from the mirror, listed like a table (name, forEach, find).
template <typename K, typename V>
class Rows {
 public:
  using Key = K;
  using Value = V;
  explicit Rows(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }
  void add(const V& v) { rows_.emplace(v.key(), v); }
  template <typename F>
  void forEach(F&& fn) const {
    for (const auto& [k, v] : rows_) fn(v);
  }
  std::optional<V> find(const K& k) const {
    auto it = rows_.find(k);
    return it == rows_.end() ? std::nullopt : std::optional<V>(it->second);
  }

 private:
  std::string name_;
  std::map<K, V> rows_;
};

// The record form of a mirrored interface; maskLength is not mirrored and shows as the
// mask length of addressWithMask.
D::Intf intfRecord(const Routing::Pim::Intf& i) {
  D::Intf r(i.intfId(), i.addressWithMask());
  r.maskLengthIs(i.addressWithMask().maskLen());
#define PIMSHOW_COPY(T, name, Name) r.name##Is(i.name());
  PIM_INTF_ATTRIBUTES(PIMSHOW_COPY)
#undef PIMSHOW_COPY
  return r;
}

D::Neighbor neighborRecord(const Nimo::IntfId& id, const Routing::Pim::Neighbor& n) {
  D::Neighbor r(D::NeighborKey(n.address, id), n.holdTime, n.drPriorityOption, n.generationIdOption,
                n.lanPruneDelayOption);
  r.creationTimeIs(n.creationTime);
  r.lastRefreshTimeIs(n.lastRefreshTime);
  r.bfdStateIs(n.bfdState);
  r.portInfoIs(n.portInfo);
  r.transportProtocolIs(n.transportProtocol);
  return r;
}

// One VRF's view: the whole mirror, or (filtered) the interfaces and active neighbours of
// the mode filter's output.
struct View {
  Rows<Nimo::IntfId, D::Intf> intf{"pimIntf"};
  Rows<D::NeighborKey, D::Neighbor> neighbor{"neighbor"};
  Rows<D::NeighborKey, D::NeighborRef> inactive{"inactiveNeighbor"};
  Rows<D::IntfSecondaryAddressKey, D::IntfSecondaryAddress> secondary{"intfSecondaryAddress"};
  Rows<D::IntfSecondaryPrefixKey, D::IntfSecondaryPrefix> prefix{"intfSecondaryPrefix"};
  Rows<D::NeighborSecondaryAddressKey, D::NeighborSecondaryAddress> nbrSecondary{
      "neighborSecondaryAddress"};
  bool filtered = false;
};

View viewOf(const Routing::Pim::AllStatus& all, const Routing::Pim::Status* filtered) {
  View v;
  v.filtered = filtered != nullptr;
  for (const auto& [id, i] : all.pimIntf()) {
    if (filtered && !filtered->intf(id)) continue;
    v.intf.add(intfRecord(*i));
    for (const auto& [a, n] : i->neighbor()) {
      if (filtered && !filtered->activeNeighbor({id, a})) continue;
      v.neighbor.add(neighborRecord(id, n));
      for (const auto& s : n.secondaryAddress)
        v.nbrSecondary.add(D::NeighborSecondaryAddress({D::NeighborKey(a, id), s}));
    }
    for (const auto& a : i->inactiveBfdNeighbor())
      v.inactive.add(D::NeighborRef(D::NeighborKey(a, id)));
    for (const auto& a : i->secondaryAddress()) v.secondary.add(D::IntfSecondaryAddress({id, a}));
    for (const auto& p : i->secondaryPrefix()) v.prefix.add(D::IntfSecondaryPrefix({id, p}));
  }
  return v;
}

void printView(std::string& out, const View& v, const Options& o, bool& first) {
  printCollection(out, v.intf, o, first);
  printCollection(out, v.neighbor, o, first);
  if (v.filtered) return;
  printCollection(out, v.inactive, o, first);
  printCollection(out, v.secondary, o, first);
  printCollection(out, v.prefix, o, first);
  printCollection(out, v.nbrSecondary, o, first);
}

// Prints the mirror's changes: after each turn of the loop that the mirror's notices ran
// in, each VRF's view is compared with the last one printed, collection by collection.
class MirrorWatch {
 public:
  MirrorWatch(const Options& o, std::function<View(const L3::VrfName&)> view)
      : o_(o), view_(std::move(view)) {}
  // The current view of vrf becomes the baseline, unprinted.
  void baselineIs(const L3::VrfName& vrf) { last_.insert_or_assign(vrf, view_(vrf)); }
  // Prints what changed in these VRFs (a VRF not among them is gone: its view is empty).
  void flush(const std::set<L3::VrfName>& vrfs) {
    std::set<L3::VrfName> all = vrfs;
    for (const auto& [v, view] : last_) all.insert(v);
    for (const L3::VrfName& v : all) {
      const View now = vrfs.count(v) ? view_(v) : View();
      View& was = last_[v];
      diff(v, was.intf, now.intf);
      diff(v, was.neighbor, now.neighbor);
      diff(v, was.inactive, now.inactive);
      diff(v, was.secondary, now.secondary);
      diff(v, was.prefix, now.prefix);
      diff(v, was.nbrSecondary, now.nbrSecondary);
      was = now;
    }
  }

 private:
  template <typename R>
  void diff(const L3::VrfName& vrf, const R& before, const R& after) {
    std::set<typename R::Key> keys;
    before.forEach([&](const auto& v) { keys.insert(v.key()); });
    after.forEach([&](const auto& v) { keys.insert(v.key()); });
    for (const auto& k : keys) {
      if (before.find(k) == after.find(k)) continue;
      if (o_.allVrfs) std::printf(o_.json ? "{\"vrf\": \"%s\"} " : "vrf %s: ", vrf.str().c_str());
      printChange(after, k, o_);
    }
  }
  const Options& o_;
  std::function<View(const L3::VrfName&)> view_;
  std::map<L3::VrfName, View> last_;
};

class CounterWatch : public D::MessageCounters::NotifieeConst {
 public:
  CounterWatch(const Kel::Ptr<D::MessageCounters>& c, const Options& o) : c_(c), o_(o) {
    notifierIs(c);
  }
  void onMsgCounter(const D::CounterKey& k) override { printChange(c_->msgCounterTable(), k, o_); }
  void onMsgCounter() override { printEvent("msgCounter", "resync", c_->msgCounterSize(), o_); }
  void onMsgCounterMountStatus(bool m) override {
    printEvent("msgCounter", m ? "mounted" : "unmounted", c_->msgCounterSize(), o_);
  }

 private:
  Kel::Ptr<D::MessageCounters> c_;
  const Options& o_;
};

class RpHashWatch : public Routing::Pim::RpHashStatus::NotifieeConst {
 public:
  RpHashWatch(const Kel::Ptr<Routing::Pim::RpHashStatus>& t, const Options& o) : t_(t), o_(o) {
    notifierIs(t);
  }
  void onRpHash(const Nimo::IpGenPrefix& k) override { printChange(t_->rpHashTable(), k, o_); }
  void onRpHash() override { printEvent("rpHash", "resync", t_->rpHashSize(), o_); }
  void onRpHashMountStatus(bool m) override {
    printEvent("rpHash", m ? "mounted" : "unmounted", t_->rpHashSize(), o_);
  }

 private:
  Kel::Ptr<Routing::Pim::RpHashStatus> t_;
  const Options& o_;
};

volatile sig_atomic_t gStop = 0;
void onSignal(int) { gStop = 1; }

// Runs the loop until SIGINT or SIGTERM, calling after() after each turn.
void watchUntilSignalled(Ulm::EventLoop& loop, const std::function<void()>& after = {}) {
  ::signal(SIGINT, onSignal);
  ::signal(SIGTERM, onSignal);
  while (!gStop) {
    loop.runOnce(0.5);
    if (after) after();
  }
}

int showRpHash(const Options& o, const L3::VrfName& vrf) {
  const std::string path = rpHashPath(o, vrf);
  if (path.empty()) {
    std::fputs(kUsage.data(), stderr);
    return 1;
  }
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto table = Routing::Pim::rpHashStatusFactory(path);
  table->mountReader(loop);
  if (!table->mounted()) {
    std::fprintf(stderr,
                 "pimshow: the %s RP hash table %s of VRF %s (IPv%c) is not mounted: "
                 "no agent publishes %s\n",
                 o.rpHashTable.c_str(), o.rpHashName.c_str(), o.vrf.c_str(),
                 o.af == Nimo::AddressFamily::ipv4 ? '4' : '6', ::Drobe::mountDir(path).c_str());
    return 2;
  }
  std::string out = o.json ? "{\n" : "";
  bool first = true;
  printCollection(out, table->rpHashTable(), o, first);
  if (o.json) out += "\n}\n";
  std::fputs(out.c_str(), stdout);
  std::fflush(stdout);
  if (!o.watch) return 0;
  loop.runOnce(0.0);  // the initial notices describe what was just printed
  RpHashWatch w(table, o);
  watchUntilSignalled(loop);
  return 0;
}

// ---------------------------------------------------------------------------------------
// --nsf: the raw records, so that a dead writer shows as such rather than as its last state.

int showNsf(const Options& o) {
  using Routing::Pim::Nsf::NsfStatusTable;
  const std::string path = Routing::Pim::Nsf::nsfStatusMountPath(o.af);
  const char af = o.af == Nimo::AddressFamily::ipv4 ? '4' : '6';
  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  NsfStatusTable* t = nullptr;
  NsfStatusTable table(Routing::Pim::Nsf::kNsfStatusCollection,
                       {[&](const L3::VrfName& k) {
                          if (t) printChange(*t, k, o);
                        },
                        [&] {
                          if (t) printEvent(t->name(), "resync", t->size(), o);
                        },
                        [&](bool m) {
                          if (t) printEvent(t->name(), m ? "mounted" : "no writer", 0, o);
                        }});
  table.mountReader(loop, ::Drobe::TableSet(path));
  if (!table.mounted()) {
    std::fprintf(stderr,
                 "pimshow: no writer: no live agent publishes the NSF status (IPv%c) at %s\n", af,
                 ::Drobe::mountDir(path).c_str());
    return 2;
  }
  std::string out = o.json ? "{\n" : "";
  bool first = true;
  printCollection(out, table, o, first);
  if (o.json) out += "\n}\n";
  std::fputs(out.c_str(), stdout);
  std::fflush(stdout);
  if (!o.watch) return 0;
  loop.runOnce(0.0);  // the initial notices describe what was just printed
  t = &table;
  watchUntilSignalled(loop);
  return 0;
}

}  // namespace

// The VRFs whose status tables exist under the root; a directory name the VRF name type
// refuses is reported (once) and skipped.
std::set<L3::VrfName> vrfsOnDisk(Nimo::AddressFamily af, std::set<std::string>& reported) {
  std::set<L3::VrfName> out;
  const std::string dir = ::Drobe::rootDir() + "/" +
                          std::string(Routing::Pim::DrobeDetail::routingRoot(af)) + "/pim/status";
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    if (!e.is_directory(ec)) continue;
    const std::string name = e.path().filename().string();
    try {
      out.insert(L3::VrfName(name));
    } catch (const Kel::RangeError& err) {
      if (reported.insert(name).second)
        std::fprintf(stderr, "pimshow: %s: %s\n", name.c_str(), err.what());
    }
  }
  return out;
}

Routing::Pim::Mode modeOf(std::string_view m) {
  if (m == "sparse") return Routing::Pim::Mode::Sparse;
  if (m == "bidir") return Routing::Pim::Mode::Bidir;
  return Routing::Pim::Mode::SparseBidir;
}

int showStatus(const Options& o, const L3::VrfName& vrf) {
  namespace P = Routing::Pim;
  auto clock = Kel::Ptr<Kel::Clock>(new Kel::SystemClock);
  Ulm::EventLoop loop(clock);
  Ledra::EntityManager em;
  // A table the reader refuses says why on stderr.
  if (::Drobe::trace().level() < 1) ::Drobe::trace().levelIs(1);
  auto global = Kel::Ptr<P::GlobalStatus>::make("global");
  auto all = Kel::Ptr<P::AllStatusColl>::make("all");
  auto reader = D::globalStatusReaderSmFactory(o.af, global, all, true, clock, em, loop);
  Kel::Ptr<P::StatusColl> filtered;
  Kel::Ptr<P::GlobalStatusModeFilterSm> filter;
  if (!o.mode.empty()) {
    filtered = Kel::Ptr<P::StatusColl>::make("filtered");
    filter = P::globalStatusModeFilterSmFactory(all, filtered, modeOf(o.mode));
  }
  std::set<std::string> reported;
  std::set<L3::VrfName> vrfs = o.allVrfs ? vrfsOnDisk(o.af, reported) : std::set{vrf};
  for (const L3::VrfName& v : vrfs) global->pimEnabledSparseModeVrfIs(v);
  std::map<L3::VrfName, Kel::Ptr<D::MessageCounters>> counters;
  for (const L3::VrfName& v : vrfs) {
    auto c = D::messageCountersFactory(D::MessageCounters::mountPath(o.af, v, o.countersName));
    c->mountReader(loop);
    counters.emplace(v, c);
  }
  loop.runOnce(0.0);  // the readers' initial notices

  const char family = o.af == Nimo::AddressFamily::ipv4 ? '4' : '6';
  if (!o.allVrfs) {
    const std::string path = D::Status::mountPath(o.af, vrf);
    Kel::Ptr<D::Status> tables = em.lookup<D::Status>(path);
    if (!tables || !tables->pimIntfTable().mounted()) {
      if (std::filesystem::exists(::Drobe::collectionFile(path, "pimIntf"))) {
        std::fprintf(stderr,
                     "pimshow: the PIM status tables of VRF %s (IPv%c) at %s were refused "
                     "(another record layout, or not a table)\n",
                     o.vrf.c_str(), family, ::Drobe::mountDir(path).c_str());
      } else {
        std::fprintf(stderr,
                     "pimshow: the PIM status tables of VRF %s (IPv%c) are not mounted: no agent "
                     "publishes %s\n",
                     o.vrf.c_str(), family, ::Drobe::mountDir(path).c_str());
      }
      return 2;
    }
    if (!counters.at(vrf)->msgCounterTable().mounted() && !o.json) {
      std::fprintf(
          stderr, "pimshow: no message counters at %s\n",
          ::Drobe::mountDir(D::MessageCounters::mountPath(o.af, vrf, o.countersName)).c_str());
    }
  }

  auto viewFor = [&](const L3::VrfName& v) {
    Kel::Ptr<P::AllStatus> a = all->vrfStatus(v);
    if (!a) return View();
    Kel::Ptr<P::Status> f = filtered ? filtered->vrfStatus(v) : nullptr;
    if (filtered && !f) return View();
    return viewOf(*a, f.ptr());
  };
  std::string out = o.json ? "{\n" : "";
  bool firstVrf = true;
  for (const L3::VrfName& v : vrfs) {
    bool first = true;
    if (o.allVrfs) {
      if (o.json) {
        out += firstVrf ? "  " : ",\n  ";
        jsonString(out, v.name());
        out += ": {\n";
      } else {
        out += fmt::format("vrf {}:\n", v.name());
      }
    }
    printView(out, viewFor(v), o, first);
    printCollection(out, counters.at(v)->msgCounterTable(), o, first);
    if (o.allVrfs && o.json) out += "\n  }";
    firstVrf = false;
  }
  if (o.json) out += "\n}\n";
  std::fputs(out.c_str(), stdout);
  std::fflush(stdout);
  if (!o.watch) return 0;

  MirrorWatch mw(o, viewFor);
  for (const L3::VrfName& v : vrfs) mw.baselineIs(v);
  std::unique_ptr<CounterWatch> cw;
  if (!o.allVrfs) cw = std::make_unique<CounterWatch>(counters.at(vrf), o);
  Kel::Time nextScan = clock->now() + 1.0;
  watchUntilSignalled(loop, [&] {
    if (o.allVrfs && clock->now() >= nextScan) {
      // VRFs come and go with their tables.
      nextScan = clock->now() + 1.0;
      const std::set<L3::VrfName> now = vrfsOnDisk(o.af, reported);
      for (const L3::VrfName& v : vrfs)
        if (!now.count(v)) global->pimEnabledSparseModeVrfDel(v);
      for (const L3::VrfName& v : now) global->pimEnabledSparseModeVrfIs(v);
      vrfs = now;
    }
    mw.flush(vrfs);
  });
  return 0;
}

int main(int argc, char** argv) {
  Options o;
  if (!parseArgs(argc, argv, o) || ((o.rpHash || o.nsf) && (o.allVrfs || !o.mode.empty()))) {
    std::fputs(kUsage.data(), stderr);
    return 1;
  }
  try {
    if (o.nsf) return showNsf(o);
    const L3::VrfName vrf(o.vrf);
    return o.rpHash ? showRpHash(o, vrf) : showStatus(o, vrf);
  } catch (const Kel::RangeError& e) {
    std::fprintf(stderr, "pimshow: %s\n", e.what());
    return 1;
  }
}
