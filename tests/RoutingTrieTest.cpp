// TrieGen against a brute-force model: random inserts and deletes over both families, with
// the lengths where multibit tries go wrong (/0, /1-/8, node boundaries, host routes).
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "Pim/platform/Routing.h"

namespace {

using Nimo::AddressFamily;
using Nimo::IpGenAddr;
using Nimo::IpGenPrefix;
using Trie = Routing::TrieGen<int>;

struct Notices : Trie::NotifieeConst {
  std::vector<std::pair<IpGenPrefix, Routing::TrieChange>> seen;
  void onChangedRoute(const IpGenPrefix& p, Routing::TrieChange c) override {
    seen.emplace_back(p, c);
  }
};

// Addresses from a few clustered bases, so that prefixes nest and share nodes.
IpGenAddr randomAddr(std::mt19937& rng, AddressFamily af) {
  std::uint8_t b[16] = {};
  const int n = Nimo::addressBytes(af);
  b[0] = static_cast<std::uint8_t>(10 + rng() % 3);
  for (int i = 1; i < n; ++i)
    b[i] = static_cast<std::uint8_t>(rng() % 4 == 0 ? rng() : static_cast<unsigned>(i % 3));
  return IpGenAddr(af, b);
}

std::uint8_t randomLen(std::mt19937& rng, AddressFamily af) {
  const unsigned bits = af == AddressFamily::ipv4 ? 32 : 128;
  static const int kV4[] = {0, 1, 7, 8, 9, 15, 16, 17, 23, 24, 25, 31, 32};
  static const int kV6[] = {0, 1, 8, 16, 32, 47, 48, 56, 64, 65, 127, 128};
  if (rng() % 2) return static_cast<std::uint8_t>(rng() % (bits + 1));
  return af == AddressFamily::ipv4 ? static_cast<std::uint8_t>(kV4[rng() % std::size(kV4)])
                                   : static_cast<std::uint8_t>(kV6[rng() % std::size(kV6)]);
}

const IpGenPrefix* modelMatch(const std::map<IpGenPrefix, int>& m, const IpGenPrefix& q,
                              int maxLen) {
  const IpGenPrefix* best = nullptr;
  for (const auto& [p, v] : m) {
    if (p.maskLen() <= maxLen && p.contains(q.address()) &&
        (!best || p.maskLen() > best->maskLen())) {
      best = &p;
    }
  }
  return best;
}

void expectSame(const Trie::Entry* got, const IpGenPrefix* want, const std::string& what) {
  if (!want) {
    EXPECT_EQ(got, nullptr) << what << " got " << got->prefix;
  } else {
    ASSERT_NE(got, nullptr) << what << " want " << *want;
    EXPECT_EQ(got->prefix, *want) << what;
  }
}

class TrieModelTest : public ::testing::TestWithParam<AddressFamily> {
 protected:
  // n random masked prefixes, in the trie and in the returned model.
  std::map<IpGenPrefix, int> fill(Trie& trie, std::mt19937& rng, int n) {
    std::map<IpGenPrefix, int> model;
    for (int i = 0; i < n; ++i) {
      const IpGenPrefix p =
          IpGenPrefix(randomAddr(rng, GetParam()), randomLen(rng, GetParam())).masked();
      model[p] = 0;
      trie.insert(p, 0);
    }
    return model;
  }
};

TEST_P(TrieModelTest, AgreesWithBruteForceAfterEveryChange) {
  const AddressFamily af = GetParam();
  std::mt19937 rng(af == AddressFamily::ipv4 ? 7 : 11);
  auto trieP = Kel::Ptr<Trie>::make("t", af);
  Trie& trie = *trieP;
  Notices notices;
  notices.notifierIs(trieP);
  std::map<IpGenPrefix, int> model;
  for (int step = 0; step < 3000; ++step) {
    const IpGenPrefix p = IpGenPrefix(randomAddr(rng, af), randomLen(rng, af)).masked();
    notices.seen.clear();
    if (rng() % 3 == 0 && !model.empty()) {
      auto it = std::next(model.begin(), static_cast<long>(rng() % model.size()));
      const IpGenPrefix gone = it->first;
      model.erase(it);
      ASSERT_TRUE(trie.remove(gone));
      ASSERT_EQ(notices.seen.size(), 1u);
      EXPECT_EQ(notices.seen[0].first, gone);
      EXPECT_EQ(notices.seen[0].second, Routing::TrieChange::deleted);
    } else {
      const int v = static_cast<int>(rng() % 3);
      auto [it, added] = model.try_emplace(p, v);
      const bool changed = added || it->second != v;
      it->second = v;
      // Host bits must not make a second entry: insert the unmasked form.
      IpGenAddr withHostBits = p.address();
      if (p.maskLen() < (af == AddressFamily::ipv4 ? 32 : 128)) withHostBits = randomAddr(rng, af);
      const IpGenPrefix unmasked =
          IpGenPrefix(p.contains(withHostBits) ? withHostBits : p.address(), p.maskLen());
      trie.insert(unmasked, v);
      ASSERT_EQ(notices.seen.size(), changed ? 1u : 0u);
      if (changed) {
        EXPECT_EQ(notices.seen[0].second,
                  added ? Routing::TrieChange::added : Routing::TrieChange::updated);
      }
    }
    ASSERT_EQ(trie.size(), model.size());
    for (int q = 0; q < 8; ++q) {
      const IpGenAddr a = randomAddr(rng, af);
      const IpGenPrefix host(a, static_cast<std::uint8_t>(Nimo::addressBytes(af) * 8));
      expectSame(trie.longestMatch(a), modelMatch(model, host, 128), "longestMatch " + a.str());
      const IpGenPrefix qp = IpGenPrefix(a, randomLen(rng, af)).masked();
      expectSame(trie.findParent(qp), modelMatch(model, qp, qp.maskLen() - 1),
                 "findParent " + qp.str());
      bool longer = false;
      for (const auto& [mp, v] : model)
        longer |= mp.maskLen() >= qp.maskLen() && qp.contains(mp.address());
      EXPECT_EQ(trie.longerRoutePresent(qp), longer) << qp;
      const Trie::Entry* exact = trie.find(qp);
      EXPECT_EQ(exact != nullptr, model.count(qp) == 1) << qp;
    }
  }
}

TEST_P(TrieModelTest, PreOrderWalkMatchesSortedModelWithTruncation) {
  const AddressFamily af = GetParam();
  std::mt19937 rng(3);
  auto trieP = Kel::Ptr<Trie>::make("t", af);
  Trie& trie = *trieP;
  std::map<IpGenPrefix, int> model = fill(trie, rng, 800);
  // The model's order (family, address, length) is pre-order for masked prefixes.
  const IpGenPrefix cutAt = std::next(model.begin(), 5)->first;
  std::vector<IpGenPrefix> want;
  for (const auto& [p, v] : model) {
    if (p != cutAt && p.maskLen() > cutAt.maskLen() && cutAt.contains(p.address())) continue;
    want.push_back(p);
  }
  std::vector<IpGenPrefix> got;
  trie.preOrderWalk([&](const Trie::Entry& e) {
    got.push_back(e.prefix);
    return e.prefix != cutAt;
  });
  EXPECT_EQ(got, want);

  // Under a prefix: exactly the entries inside it, in order.
  const IpGenPrefix under =
      IpGenPrefix(cutAt.address(), std::min<std::uint8_t>(cutAt.maskLen(), 12)).masked();
  want.clear();
  for (const auto& [p, v] : model)
    if (p.maskLen() >= under.maskLen() && under.contains(p.address())) want.push_back(p);
  got.clear();
  trie.preOrderWalk(under, [&](const Trie::Entry& e) {
    got.push_back(e.prefix);
    return true;
  });
  EXPECT_EQ(got, want);
}

INSTANTIATE_TEST_SUITE_P(Families, TrieModelTest,
                         ::testing::Values(AddressFamily::ipv4, AddressFamily::ipv6));

// Walks reuse their lists from node to node and skip lengths that hold nothing: a table
// thinned by deletes, and a walk started from inside another, must still see the model.
TEST_P(TrieModelTest, WalksAfterDeletesAndFromInsideAWalkMatchTheModel) {
  const AddressFamily af = GetParam();
  std::mt19937 rng(5);
  auto trieP = Kel::Ptr<Trie>::make("t", af);
  Trie& trie = *trieP;
  std::map<IpGenPrefix, int> model = fill(trie, rng, 1200);
  for (auto it = model.begin(); it != model.end();) {
    if (rng() % 2 == 0) {
      ++it;
      continue;
    }
    ASSERT_TRUE(trie.remove(it->first));
    it = model.erase(it);
  }
  auto under = [&](const IpGenPrefix& u) {
    std::vector<IpGenPrefix> want;
    for (const auto& [p, v] : model)
      if (p.maskLen() >= u.maskLen() && u.contains(p.address())) want.push_back(p);
    return want;
  };
  std::vector<IpGenPrefix> got;
  trie.preOrderWalk([&](const Trie::Entry& e) {
    got.push_back(e.prefix);
    std::vector<IpGenPrefix> inner;
    trie.preOrderWalk(e.prefix, [&](const Trie::Entry& f) {
      inner.push_back(f.prefix);
      return true;
    });
    EXPECT_EQ(inner, under(e.prefix)) << e.prefix;
    return true;
  });
  EXPECT_EQ(got, under(IpGenPrefix(randomAddr(rng, af), 0).masked()));
}

}  // namespace
