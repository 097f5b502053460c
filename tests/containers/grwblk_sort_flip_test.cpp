// Growable blocks, heap sort, binary searches and byte-order flipping.
#include <algorithm>
#include <functional>
#include <numeric>
#include <random>

#include "helpers.h"

namespace {

using ContainersGrow = HeapTest;

// Appends, adds and sets checked against a model of the growth arithmetic
// (unsigned 32-bit: a shrinking append wraps) and of the bytes.
TEST_F(ContainersGrow, MatchesAModelOfTheArithmetic) {
  std::mt19937 rng(7);
  const uint32_t base = live();
  for (int round = 0; round < 300; ++round) {
    const int32_t step = 1 + static_cast<int32_t>(rng() % 17), size = 1 + round % 3;
    SH_GRWBLK* b = sh_new_grwblk(heap_, step, size, 5);
    uint32_t cap = 0, count = 0;
    std::string bytes;
    for (int k = 0; k < 8; ++k) {
      const int op = static_cast<int>(rng() % 3);  // append n items, add one, set one at any index
      const uint32_t n = op == 0 ? rng() % 40 : 1, at = op == 2 ? rng() % (cap + 3) : count, d = count - cap + n;
      const std::string items(n * size, static_cast<char>('a' + k));
      if (op == 0 && d != 0) cap += (d / step + 1) * step;
      if (op == 1 && count >= cap) cap += step;
      if (op == 2 && at >= cap) cap = at + step;
      const int32_t got = op == 0 ? sh_append_to_grwblk(heap_, b, items.data(), static_cast<int32_t>(n), 5)
                          : op == 1 ? sh_add_to_grwblk(heap_, b, items.data(), 5)
                                    : sh_set_grwblk_item(heap_, b, static_cast<int32_t>(at), items.data(), 5);
      ASSERT_EQ(got, op == 2 ? size : static_cast<int32_t>(count));
      if (at + n > count) bytes.resize((at + n) * size), count = at + n;
      bytes.replace(at * size, n * size, items);
      ASSERT_EQ(std::make_pair(static_cast<uint32_t>(b->capacity), static_cast<uint32_t>(b->count)), std::make_pair(cap, count)) << round << " " << k;
      if (!count) continue;
      ASSERT_TRUE(zbstg_size(heap_, b->data) >= cap * size && zbstg_get_pointer_subpool(heap_, b->data) == 5);
      for (uint32_t i = 0; i < bytes.size(); ++i)  // unset gaps hold anything
        ASSERT_TRUE(!bytes[i] || static_cast<char*>(b->data)[i] == bytes[i]) << i;
    }
    int32_t closed = -1;
    void* data = sh_grwblk_close(heap_, b, &closed);
    EXPECT_EQ(closed, static_cast<int32_t>(count));
    zbstg_free(heap_, data);
  }
  EXPECT_EQ(live(), base);
  // A zero step, a negative index or a missing source is refused; items of
  // no bytes need no source. Braced lists run left to right.
  SH_GRWBLK z, b, e;
  sh_grwblk_init(&z, 0, 4), sh_grwblk_init(&b, 2, 4), sh_grwblk_init(&e, 2, 0);
  int32_t v = 1;
  EXPECT_EQ(std::vector<int32_t>({sh_add_to_grwblk(heap_, &z, &v, 0), sh_append_to_grwblk(heap_, &z, &v, 1, 0),
                                  sh_set_grwblk_item(heap_, &z, 0, &v, 0), sh_set_grwblk_item(heap_, &b, -1, &v, 0),
                                  sh_add_to_grwblk(heap_, &b, nullptr, 0), sh_set_grwblk_item(heap_, &b, 0, nullptr, 0),
                                  sh_append_to_grwblk(heap_, &b, nullptr, 1, 0), b.count, sh_append_to_grwblk(heap_, &b, nullptr, 0, 0),
                                  sh_add_to_grwblk(heap_, &e, nullptr, 0), sh_set_grwblk_item(heap_, &e, 3, nullptr, 0), e.count}),
            std::vector<int32_t>({-1, -1, 0, 0, -1, 0, -1, 0, 0, 0, 0, 4}));
  EXPECT_EQ(V(z.data), nullptr);
  zbstg_free(heap_, e.data);
}

int32_t ZBSHR_CALLBACK CmpInt(void* a, void* b) { return I(a) < I(b) ? -1 : I(a) > I(b); }
int32_t ZBSHR_CALLBACK CmpMod(intptr_t m, void* a, void* b) {
  return I(a) % m < I(b) % m ? -1 : I(a) % m > I(b) % m;
}

TEST(ContainersSort, AllFourSortsMatchStdSort) {
  std::mt19937 rng(42);
  for (int n : {0, 1, 2, 3, 4, 5, 7, 8, 16, 17, 100, 1000, 4097}) {
    for (int range : {3, 1000000, -1, -2}) {  // -1 ascending input, -2 descending
      std::vector<void*> a(n);
      for (int i = 0; i < n; ++i) a[i] = P(range == -1 ? i : range == -2 ? n - i : rng() % range);
      for (int which = 0; which < 4; ++which) {
        std::vector<void*> got = a, want = a;
        const intptr_t m = which < 2 ? INTPTR_MAX : 1000;  // the key: the value, or the value mod 1000
        std::stable_sort(want.begin(), want.end(), [&](void* x, void* y) { return CmpMod(m, x, y) < 0; });
        if (which == 0) sh_heapsort(got.data(), n, CmpInt);
        if (which == 1) sh_hugeheapsort(got.data(), n, CmpInt);
        if (which == 2) sh_heapsort_param(m, got.data(), n, CmpMod);
        if (which == 3) sh_hugeheapsort_param(m, got.data(), n, CmpMod);
        for (int i = 0; i < n; ++i) ASSERT_EQ(I(got[i]) % m, I(want[i]) % m) << n << " " << which;
        std::sort(got.begin(), got.end()), std::sort(want.begin(), want.end());
        ASSERT_EQ(got, want);  // a permutation
      }
    }
  }
}

int32_t ZBSHR_CALLBACK CmpKey(const void* key, const void* item) {
  const int32_t k = *static_cast<const int32_t*>(key), v = *static_cast<const int32_t*>(item);
  return k < v ? -1 : k > v;
}

TEST(ContainersSort, BinarySearchesAndKeywords) {
  const int32_t items[] = {10, 20, 30, 40, 50, 60, 70};
  for (int32_t n = -1; n <= 7; ++n) {
    for (int32_t key = 5; key <= 75; ++key) {
      const int32_t hit = (key % 10 == 0 && key / 10 <= n) ? key / 10 - 1 : -1;
      EXPECT_EQ(sh_binary_search(&key, items, 4, n, CmpKey), hit) << n << " " << key;
      int32_t found = 7;  // on a miss: the last item that sorts before the key
      const int32_t r = sh_bin_search(&key, items, 4, n, CmpKey, &found);
      EXPECT_EQ(std::make_pair(found, r),
                std::make_pair(hit >= 0 ? 1 : 0, hit >= 0 ? hit : int32_t(std::lower_bound(items, items + std::max(n, 0), key) - items - 1)));
    }
  }
  const int32_t k = 30;
  EXPECT_EQ(sh_binary_search(&k, items, 4, 7, nullptr) + sh_binary_search(&k, nullptr, 4, 7, CmpKey), -2);
  const SHKEYWORD exact[] = {{"AND", 1}, {"OR", 2}, {"and", 3}, {"not", 4}, {"or", 5}, {"z", 6}, {"\xe9t\xe9", 7}};
  const SHKEYWORD nocase[] = {{"Between", 10}, {"from", 11}, {"IN", 12}, {"select", 13}, {"WHERE", 14}};
  const struct { const char* key; int32_t exact, nocase; } cases[] = {
      {"AND", 1, -1}, {"and", 3, -1}, {"or", 5, -1}, {"Or", -1, -1}, {"an", -1, -1}, {"andx", -1, -1}, {"z", 6, -1},
      {"\xe9t\xe9", 7, -1}, {"BETWEEN", -1, 10}, {"In", -1, 12}, {"where", -1, 14}, {"Select", -1, 13}, {"sel", -1, -1},
      {"from", -1, 11}, {"fromm", -1, -1}};
  for (const auto& c : cases)
    EXPECT_EQ(std::make_pair(shBinSrch(c.key, exact, 7), shBinSrchi(c.key, nocase, 5)), std::make_pair(c.exact, c.nocase)) << c.key;
  EXPECT_EQ(shBinSrch("and", exact, 0) + shBinSrchi(nullptr, nocase, 5), -2);
}

using Bytes = std::vector<unsigned char>;
void* ZBSHR_CALLBACK Flip3(void* p, int32_t extra) {
  auto* b = static_cast<unsigned char*>(p);
  std::swap(b[0], b[2]);
  b[1] = static_cast<unsigned char>(b[1] + extra);
  return b + 3;
}

TEST(ContainersFlip, EachFlipAndTheLoop) {
  auto* short_fn = reinterpret_cast<SHFLIPFN>(reinterpret_cast<void (*)()>(&shFlipShort));
  const struct { std::function<void*(void*)> flip; int end; Bytes want; } rows[] = {
      {shFlipShort, 2, {2, 1, 3}},
      {shFlipLong, 4, {4, 3, 2, 1, 5}},
      {[](void* b) { return shFlipTimeT(b, 1234); }, 4, {4, 3, 2, 1, 5}},
      {shFlipDouble, 8, {8, 7, 6, 5, 4, 3, 2, 1, 9}},
      {shFlipSHDEC, 16, {2, 1, 4, 3, 6, 5, 8, 7, 10, 9, 12, 11, 14, 13, 15, 16, 17}},  // seven words
      {[&](void* b) { return shFlipDataLoop(b, short_fn, 4, 0); }, 8, {2, 1, 4, 3, 6, 5, 8, 7, 9}},
      {[](void* b) { return shFlipDataLoop(b, Flip3, 3, 10); }, 9, {3, 12, 1, 6, 15, 4, 9, 18, 7, 10}},
      // Refused loops, and the native loop while the flag is clear, change nothing.
      {[](void* b) { return shFlipDataLoop(b, Flip3, 0, 0); }, 0, {1, 2, 3}},
      {[](void* b) { return shFlipDataLoop(b, Flip3, -2, 0); }, 0, {1, 2, 3}},
      {[](void* b) { return shFlipDataLoop(b, nullptr, 2, 0); }, 0, {1, 2, 3}},
      {[](void* b) { return shFlipDataLoopNative(b, Flip3, 3, 0); }, 0, {1, 2, 3}},
  };
  for (const auto& r : rows) {
    Bytes b(18);
    std::iota(b.begin(), b.end(), 1);
    const long end = static_cast<unsigned char*>(r.flip(b.data())) - b.data();
    EXPECT_EQ(std::make_pair(end, Bytes(b.begin(), b.begin() + r.want.size())), std::make_pair(long{r.end}, r.want)) << &r - rows;
  }
  for (auto f : {shFlipShort, shFlipLong, shFlipDouble, shFlipSHDEC}) EXPECT_EQ(f(nullptr), nullptr);
  EXPECT_EQ(shFlipDataLoop(nullptr, Flip3, 3, 0), nullptr);
  // The native flag is only stored.
  EXPECT_EQ(std::vector<int32_t>({shGetFlipDataNative(), shSetFlipDataNative(5), shGetFlipDataNative(), shSetFlipDataNative(0)}),
            std::vector<int32_t>({0, 5, 5, 0}));
}

}  // namespace
