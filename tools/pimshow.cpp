// pimshow: prints the PIM status and message-counter tables that an agent publishes in
// shared memory for one VRF and address family, from any other process.
//
//   pimshow [--af 4|6] [--vrf NAME] [--counters-name NAME] [--json] [--watch]
//   pimshow --rphash [--table plain|static|bsr|prefix|bsr-prefix] [--name NAME]
//           [--af 4|6] [--vrf NAME] [--json] [--watch]
//
// Text output lists each collection sorted by key: interfaces and neighbours and counters
// in their show forms (drobeString), the other collections in their value text forms.
// --json prints one object whose members are the collection names ("pimIntf",
// "neighbor", ..., "msgCounter"), each an array of records as objects (numbers as
// numbers, bools as true/false, absent values as null, everything else as strings).
// --watch then prints every change as it arrives, one line each (one JSON object per line
// with --json), until interrupted.
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
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Pim/NsfStatus.h"
#include "Pim/PimDrobe.h"
#include "Pim/PimRpHashStatus.h"
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
};

constexpr std::string_view kUsage =
    "usage: pimshow [--af 4|6] [--vrf NAME] [--counters-name NAME] [--json] [--watch]\n"
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
      if (!v || !*v || std::strlen(v) > L3::VrfName::kMaxLen) return false;
      o.vrf = v;
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

class StatusWatch : public D::Status::NotifieeConst {
 public:
  StatusWatch(const Kel::Ptr<D::Status>& s, const Options& o) : s_(s), o_(o) { notifierIs(s); }
  void onPimIntf(const Nimo::IntfId& k) override { printChange(s_->pimIntfTable(), k, o_); }
  void onPimIntf() override { printEvent("pimIntf", "resync", s_->pimIntfSize(), o_); }
  void onPimIntfMountStatus(bool m) override { mount("pimIntf", m, s_->pimIntfSize()); }
  void onNeighbor(const D::NeighborKey& k) override { printChange(s_->neighborTable(), k, o_); }
  void onNeighbor() override { printEvent("neighbor", "resync", s_->neighborSize(), o_); }
  void onNeighborMountStatus(bool m) override { mount("neighbor", m, s_->neighborSize()); }
  void onInactiveNeighbor(const D::NeighborKey& k) override {
    printChange(s_->inactiveNeighborTable(), k, o_);
  }
  void onInactiveNeighbor() override {
    printEvent("inactiveNeighbor", "resync", s_->inactiveNeighborSize(), o_);
  }
  void onInactiveNeighborMountStatus(bool m) override {
    mount("inactiveNeighbor", m, s_->inactiveNeighborSize());
  }
  void onIntfSecondaryAddress(const D::IntfSecondaryAddressKey& k) override {
    printChange(s_->intfSecondaryAddressTable(), k, o_);
  }
  void onIntfSecondaryAddress() override {
    printEvent("intfSecondaryAddress", "resync", s_->intfSecondaryAddressSize(), o_);
  }
  void onIntfSecondaryAddressMountStatus(bool m) override {
    mount("intfSecondaryAddress", m, s_->intfSecondaryAddressSize());
  }
  void onIntfSecondaryPrefix(const D::IntfSecondaryPrefixKey& k) override {
    printChange(s_->intfSecondaryPrefixTable(), k, o_);
  }
  void onIntfSecondaryPrefix() override {
    printEvent("intfSecondaryPrefix", "resync", s_->intfSecondaryPrefixSize(), o_);
  }
  void onIntfSecondaryPrefixMountStatus(bool m) override {
    mount("intfSecondaryPrefix", m, s_->intfSecondaryPrefixSize());
  }
  void onNeighborSecondaryAddress(const D::NeighborSecondaryAddressKey& k) override {
    printChange(s_->neighborSecondaryAddressTable(), k, o_);
  }
  void onNeighborSecondaryAddress() override {
    printEvent("neighborSecondaryAddress", "resync", s_->neighborSecondaryAddressSize(), o_);
  }
  void onNeighborSecondaryAddressMountStatus(bool m) override {
    mount("neighborSecondaryAddress", m, s_->neighborSecondaryAddressSize());
  }

 private:
  void mount(std::string_view c, bool m, std::size_t size) {
    printEvent(c, m ? "mounted" : "unmounted", size, o_);
  }
  Kel::Ptr<D::Status> s_;
  const Options& o_;
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

void watchUntilSignalled(Ulm::EventLoop& loop) {
  ::signal(SIGINT, onSignal);
  ::signal(SIGTERM, onSignal);
  while (!gStop) loop.runOnce(0.5);
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

int main(int argc, char** argv) {
  Options o;
  if (!parseArgs(argc, argv, o)) {
    std::fputs(kUsage.data(), stderr);
    return 1;
  }
  const L3::VrfName vrf(o.vrf);
  if (o.rpHash) return showRpHash(o, vrf);
  if (o.nsf) return showNsf(o);
  const std::string statusPath = D::Status::mountPath(o.af, vrf);
  const std::string countersPath = D::MessageCounters::mountPath(o.af, vrf, o.countersName);

  Ulm::EventLoop loop(Kel::Ptr<Kel::Clock>(new Kel::SystemClock));
  auto status = D::statusFactory(statusPath);
  status->mountReader(loop);
  auto counters = D::messageCountersFactory(countersPath);
  counters->mountReader(loop);

  if (!status->pimIntfTable().mounted()) {
    std::fprintf(stderr,
                 "pimshow: the PIM status tables of VRF %s (IPv%c) are not mounted: no agent "
                 "publishes %s\n",
                 o.vrf.c_str(), o.af == Nimo::AddressFamily::ipv4 ? '4' : '6',
                 ::Drobe::mountDir(statusPath).c_str());
    return 2;
  }
  if (!counters->msgCounterTable().mounted() && !o.json) {
    std::fprintf(stderr, "pimshow: no message counters at %s\n",
                 ::Drobe::mountDir(countersPath).c_str());
  }

  std::string out = o.json ? "{\n" : "";
  bool first = true;
  printCollection(out, status->pimIntfTable(), o, first);
  printCollection(out, status->neighborTable(), o, first);
  printCollection(out, status->inactiveNeighborTable(), o, first);
  printCollection(out, status->intfSecondaryAddressTable(), o, first);
  printCollection(out, status->intfSecondaryPrefixTable(), o, first);
  printCollection(out, status->neighborSecondaryAddressTable(), o, first);
  printCollection(out, counters->msgCounterTable(), o, first);
  if (o.json) out += "\n}\n";
  std::fputs(out.c_str(), stdout);
  std::fflush(stdout);
  if (!o.watch) return 0;

  // The readers' initial notices (mount status, whole-collection sync) describe what was
  // just printed; skip them.
  loop.runOnce(0.0);
  StatusWatch sw(status, o);
  CounterWatch cw(counters, o);
  watchUntilSignalled(loop);
  return 0;
}
