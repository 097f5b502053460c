#include <algorithm>
#include <cstring>
#include <random>

#include "helpers.h"

namespace {

class ContainersGrow : public HeapTest {};

TEST_F(ContainersGrow, AddGrowsByTheStep) {
  SH_GRWBLK b;
  sh_grwblk_init(&b, 3, sizeof(int32_t));
  EXPECT_EQ(V(b.data), nullptr);
  for (int32_t i = 0; i < 7; ++i) {
    EXPECT_EQ(sh_add_to_grwblk(heap_, &b, &i, 5), i);
    EXPECT_EQ(b.capacity, (i / 3 + 1) * 3);
  }
  EXPECT_EQ(b.count, 7);
  EXPECT_GE(zbstg_size(heap_, b.data), 9 * sizeof(int32_t));
  EXPECT_EQ(zbstg_get_pointer_subpool(heap_, b.data), 5u);
  for (int32_t i = 0; i < 7; ++i) EXPECT_EQ(static_cast<int32_t*>(b.data)[i], i);
  zbstg_free(heap_, b.data);
}

TEST_F(ContainersGrow, SetItemBeyondTheEnd) {
  SH_GRWBLK* b = sh_new_grwblk(heap_, 4, 2, 0);
  const uint16_t v = 0xBEEF;
  EXPECT_EQ(sh_set_grwblk_item(heap_, b, 5, &v, 0), 2);
  EXPECT_EQ(b->capacity, 9);
  EXPECT_EQ(b->count, 6);
  EXPECT_EQ(std::memcmp(static_cast<char*>(b->data) + 10, &v, 2), 0);
  // Inside the capacity: no growth; a lower index keeps the count.
  EXPECT_EQ(sh_set_grwblk_item(heap_, b, 8, &v, 0), 2);
  EXPECT_EQ(b->capacity, 9);
  EXPECT_EQ(b->count, 9);
  EXPECT_EQ(sh_set_grwblk_item(heap_, b, 1, &v, 0), 2);
  EXPECT_EQ(b->count, 9);
  EXPECT_EQ(sh_set_grwblk_item(heap_, b, -1, &v, 0), 0);  // refused
  sh_grwblk_delete(heap_, b);
}

TEST_F(ContainersGrow, AppendUsesUnsigned32BitCapacityArithmetic) {
  const uint32_t base = live();
  SH_GRWBLK* b = sh_new_grwblk(heap_, 10, 1, 0);
  char ten[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(sh_append_to_grwblk(heap_, b, ten, 2, 0), 0);  // d = 2: 10
  EXPECT_EQ(b->capacity, 10);
  EXPECT_EQ(b->count, 2);
  // The items fit, yet d wraps and the capacity becomes 14.
  EXPECT_EQ(sh_append_to_grwblk(heap_, b, "abc", 3, 0), 2);
  EXPECT_EQ(b->capacity, 14);
  EXPECT_EQ(b->count, 5);
  EXPECT_EQ(std::memcmp(b->data, "01abc", 5), 0);
  // Exactly filling: d = 0, nothing changes.
  EXPECT_EQ(sh_append_to_grwblk(heap_, b, ten, 9, 0), 5);
  EXPECT_EQ(b->capacity, 14);
  EXPECT_EQ(b->count, 14);
  // Overflowing by 9 with step 10: (9 / 10 + 1) * 10 + 14 = 24.
  EXPECT_EQ(sh_append_to_grwblk(heap_, b, ten, 9, 0), 14);
  EXPECT_EQ(b->capacity, 24);
  EXPECT_EQ(b->count, 23);
  // A shrink by the wrap: capacity 24, count 23, 0 items: d = -1, step 10
  // gives (429496729 + 1) * 10 + 24 = 4294967300 + 24 = 28 (mod 2^32).
  EXPECT_EQ(sh_append_to_grwblk(heap_, b, ten, 0, 0), 23);
  EXPECT_EQ(b->capacity, 28);
  EXPECT_EQ(std::memcmp(static_cast<char*>(b->data) + 14, "012345678", 9), 0);
  int32_t count = -1;
  void* data = sh_grwblk_close(heap_, b, &count);
  EXPECT_EQ(count, 23);
  EXPECT_EQ(std::memcmp(data, "01abc012345678", 14), 0);
  zbstg_free(heap_, data);
  EXPECT_EQ(live(), base);
}

TEST_F(ContainersGrow, WrappedCapacityAlwaysHoldsTheItems) {
  // Compare against a model of the unsigned arithmetic for many shapes; the
  // block must always end with room for count + n items.
  std::mt19937 rng(7);
  for (int round = 0; round < 300; ++round) {
    const int32_t step = 1 + static_cast<int32_t>(rng() % 17);
    SH_GRWBLK* b = sh_new_grwblk(heap_, step, 3, 0);
    uint32_t cap = 0, count = 0;
    for (int k = 0; k < 6; ++k) {
      const uint32_t n = rng() % 40;
      std::vector<char> items(n * 3 + 1, static_cast<char>('a' + k));
      const uint32_t d = count - cap + n;
      if (d != 0) cap = (d / step + 1) * step + cap;
      ASSERT_EQ(sh_append_to_grwblk(heap_, b, items.data(), static_cast<int32_t>(n), 0),
                static_cast<int32_t>(count));
      count += n;
      ASSERT_EQ(static_cast<uint32_t>(b->capacity), cap);
      ASSERT_GE(cap, count);
      if (b->data) {
        ASSERT_GE(zbstg_size(heap_, b->data), cap * 3);
      }
    }
    sh_grwblk_delete(heap_, b);
  }
}

TEST_F(ContainersGrow, StepZeroIsRefused) {
  SH_GRWBLK b;
  sh_grwblk_init(&b, 0, 4);
  int32_t v = 1;
  EXPECT_EQ(sh_add_to_grwblk(heap_, &b, &v, 0), -1);
  EXPECT_EQ(sh_append_to_grwblk(heap_, &b, &v, 1, 0), -1);
  EXPECT_EQ(sh_set_grwblk_item(heap_, &b, 0, &v, 0), 0);
  EXPECT_EQ(V(b.data), nullptr);
  EXPECT_EQ(b.count, 0);
}

int32_t ZBSHR_CALLBACK CmpStr(void* a, void* b) { return std::strcmp(static_cast<char*>(a), static_cast<char*>(b)); }
int32_t ZBSHR_CALLBACK CmpInt(void* a, void* b) {
  const auto x = reinterpret_cast<intptr_t>(a), y = reinterpret_cast<intptr_t>(b);
  return x < y ? -1 : x > y;
}
int32_t ZBSHR_CALLBACK CmpIntMod(intptr_t m, void* a, void* b) {
  const auto x = reinterpret_cast<intptr_t>(a) % m, y = reinterpret_cast<intptr_t>(b) % m;
  return x < y ? -1 : x > y;
}

TEST(ContainersHeapSort, MatchesStdSortOnManyShapes) {
  std::mt19937 rng(42);
  for (int n : {0, 1, 2, 3, 4, 5, 7, 8, 16, 17, 100, 1000, 4097}) {
    for (int range : {3, 1000000}) {
      std::vector<void*> a(n);
      for (auto& p : a) p = reinterpret_cast<void*>(static_cast<intptr_t>(rng() % range));
      std::vector<void*> want = a;
      std::sort(want.begin(), want.end(), [](void* x, void* y) { return CmpInt(x, y) < 0; });
      sh_heapsort(a.data(), n, CmpInt);
      EXPECT_EQ(a, want) << n << " " << range;
    }
  }
  // Already sorted and reversed inputs.
  std::vector<void*> up(300), down(300);
  for (int i = 0; i < 300; ++i) {
    up[i] = reinterpret_cast<void*>(static_cast<intptr_t>(i));
    down[i] = reinterpret_cast<void*>(static_cast<intptr_t>(300 - i));
  }
  std::vector<void*> want = up;
  sh_hugeheapsort(up.data(), 300, CmpInt);
  EXPECT_EQ(up, want);
  sh_heapsort(down.data(), 300, CmpInt);
  EXPECT_TRUE(std::is_sorted(down.begin(), down.end()));
}

TEST(ContainersHeapSort, ParameterComesFirstAndStringsSort) {
  std::vector<void*> a;
  for (intptr_t v : {25, 13, 7, 42, 100, 8}) a.push_back(reinterpret_cast<void*>(v));
  sh_heapsort_param(10, a.data(), 6, CmpIntMod);  // by last digit
  std::vector<intptr_t> digits;
  for (void* p : a) digits.push_back(reinterpret_cast<intptr_t>(p) % 10);
  EXPECT_TRUE(std::is_sorted(digits.begin(), digits.end()));
  EXPECT_EQ(digits.front(), 0);
  sh_hugeheapsort_param(1000, a.data(), 6, CmpIntMod);
  EXPECT_EQ(reinterpret_cast<intptr_t>(a[0]), 7);
  EXPECT_EQ(reinterpret_cast<intptr_t>(a[5]), 100);

  const char* words[] = {"pear", "apple", "fig", "apple", "kiwi", "banana"};
  std::vector<void*> w;
  for (const char* s : words) w.push_back(const_cast<char*>(s));
  sh_heapsort(w.data(), 6, CmpStr);
  std::vector<std::string> got;
  for (void* p : w) got.emplace_back(static_cast<char*>(p));
  EXPECT_EQ(got, Strings({"apple", "apple", "banana", "fig", "kiwi", "pear"}));
}

int g_calls = 0;
int32_t ZBSHR_CALLBACK CmpKeyInt(const void* key, const void* item) {
  ++g_calls;
  const int32_t k = *static_cast<const int32_t*>(key), v = *static_cast<const int32_t*>(item);
  return k < v ? -1 : k > v;
}

TEST(ContainersBinarySearch, FindsItemsAndInsertionPoints) {
  const int32_t items[] = {10, 20, 30, 40, 50, 60, 70};
  for (int32_t n = 0; n <= 7; ++n) {
    for (int32_t key = 5; key <= 75; ++key) {
      const int32_t want_match = (key % 10 == 0 && key / 10 <= n) ? key / 10 - 1 : -1;
      EXPECT_EQ(sh_binary_search(&key, items, 4, n, CmpKeyInt), want_match) << n << " " << key;
      int32_t found = 7;
      const int32_t r = sh_bin_search(&key, items, 4, n, CmpKeyInt, &found);
      if (want_match >= 0) {
        EXPECT_EQ(found, 1);
        EXPECT_EQ(r, want_match);
      } else {
        // The last item that sorts before the key.
        const auto below = std::lower_bound(items, items + n, key) - items - 1;
        EXPECT_EQ(found, 0);
        EXPECT_EQ(r, below) << n << " " << key;
      }
    }
  }
  g_calls = 0;
  const int32_t k = 30;
  EXPECT_EQ(sh_binary_search(&k, items, 4, 0, CmpKeyInt), -1);
  EXPECT_EQ(g_calls, 0);
  const int32_t between = 35;
  int32_t found = 9;
  EXPECT_EQ(sh_bin_search(&between, items, 4, 7, CmpKeyInt, &found), 2);
  EXPECT_EQ(found, 0);
}

TEST(ContainersBinarySearch, KeywordTables) {
  const SHKEYWORD exact[] = {{"AND", 1}, {"OR", 2}, {"and", 3}, {"not", 4}, {"or", 5}};
  EXPECT_EQ(shBinSrch("AND", exact, 5), 1);
  EXPECT_EQ(shBinSrch("and", exact, 5), 3);
  EXPECT_EQ(shBinSrch("or", exact, 5), 5);
  EXPECT_EQ(shBinSrch("Or", exact, 5), -1);
  EXPECT_EQ(shBinSrch("an", exact, 5), -1);
  EXPECT_EQ(shBinSrch("andx", exact, 5), -1);
  EXPECT_EQ(shBinSrch("and", exact, 0), -1);
  const SHKEYWORD nocase[] = {{"Between", 10}, {"from", 11}, {"IN", 12}, {"select", 13},
                              {"WHERE", 14}};
  EXPECT_EQ(shBinSrchi("BETWEEN", nocase, 5), 10);
  EXPECT_EQ(shBinSrchi("In", nocase, 5), 12);
  EXPECT_EQ(shBinSrchi("where", nocase, 5), 14);
  EXPECT_EQ(shBinSrchi("Select", nocase, 5), 13);
  EXPECT_EQ(shBinSrchi("sel", nocase, 5), -1);
  EXPECT_EQ(shBinSrchi(nullptr, nocase, 5), -1);
  // High bytes compare as unsigned, after the ASCII keys.
  const SHKEYWORD high[] = {{"z", 1}, {"\xe9t\xe9", 2}};
  EXPECT_EQ(shBinSrch("\xe9t\xe9", high, 2), 2);
  EXPECT_EQ(shBinSrch("z", high, 2), 1);
}

}  // namespace
