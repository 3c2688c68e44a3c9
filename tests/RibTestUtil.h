// Route text for RPF tests: "<rib> <route line>" per line (the route line as
// Routing::loadRoutes reads it), each replacing what the previous load put in.
#pragma once

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Pim/platform/Routing.h"

namespace PimTest {

class RibText {
 public:
  // writer4(rib) / writer6(rib) name the writer of a RIB ("urib", "mrib", ...).
  template <typename Pick4, typename Pick6>
  void load(const std::string& text, Pick4&& writer4, Pick6&& writer6) {
    for (auto& [w, p] : loaded4_) w->routeDel(p);
    for (auto& [w, p] : loaded6_) w->routeDel(p);
    loaded4_.clear();
    loaded6_.clear();
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      std::istringstream f(line);
      std::string rib, prefix;
      if (!(f >> rib >> prefix)) continue;
      std::istringstream rest(line.substr(line.find(prefix)));
      auto into = [&](auto* w, auto& loaded) {
        std::size_t bad = 0;  // the loader reports this load's count only
        Routing::loadRoutes(*w, rest, &bad);
        errors_ += bad;
        loaded.emplace_back(w, Nimo::IpGenPrefix(prefix));
      };
      prefix.find(':') != std::string::npos ? into(writer6(rib), loaded6_)
                                            : into(writer4(rib), loaded4_);
    }
  }
  // Malformed route lines so far.
  std::size_t errors() const noexcept { return errors_; }

 private:
  std::vector<std::pair<Routing::Fib::RouteWriter*, Nimo::IpGenPrefix>> loaded4_;
  std::vector<std::pair<Routing6::Fib::RouteWriter*, Nimo::IpGenPrefix>> loaded6_;
  std::size_t errors_ = 0;
};

}  // namespace PimTest
