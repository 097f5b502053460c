// Heap sort of pointer arrays and binary search over sorted arrays.
#include <cctype>
#include <cstddef>
#include <cstring>

#include "zbshr/containers.h"

namespace {

// Arrays of pointers may sit in heap blocks, which are only 4-byte aligned:
// elements are read and written by copy.
class Slots {
 public:
  explicit Slots(void** a) : p_(reinterpret_cast<unsigned char*>(a)) {}
  void* get(size_t i) const {
    void* v;
    std::memcpy(&v, p_ + i * sizeof(void*), sizeof v);
    return v;
  }
  void set(size_t i, void* v) const { std::memcpy(p_ + i * sizeof(void*), &v, sizeof v); }
  // Elements are usually data pointers that the comparison will read: ask for
  // the memory they point to ahead of time. A prefetch never faults, so
  // elements that are not pointers do no harm.
  void prefetch_targets(size_t i, size_t len) const {
#if defined(__GNUC__)
    const size_t end = i + 4 < len ? i + 4 : len;
    for (; i < end; ++i) __builtin_prefetch(get(i));
#else
    (void)i;
    (void)len;
#endif
  }

 private:
  unsigned char* p_;
};

// Places `value` into the max-heap of `len` elements whose hole is at `hole`:
// the hole first sinks along the larger children to a leaf (one comparison
// per level), then the value climbs back to its place. This needs about half
// the comparisons of the textbook sift-down.
template <class Less>
void adjust(Slots a, size_t hole, size_t len, void* value, Less less) {
  const size_t top = hole;
  size_t child;
  while ((child = 2 * hole + 1) < len) {
    // The grandchildren are compared next: fetch what they point to now.
    if (4 * hole + 3 < len) a.prefetch_targets(4 * hole + 3, len);
    void* c = a.get(child);
    if (child + 1 < len) {
      void* right = a.get(child + 1);
      if (less(c, right)) {
        ++child;
        c = right;
      }
    }
    a.set(hole, c);
    hole = child;
  }
  while (hole > top) {
    const size_t parent = (hole - 1) / 2;
    void* p = a.get(parent);
    if (!less(p, value)) break;
    a.set(hole, p);
    hole = parent;
  }
  a.set(hole, value);
}

template <class Less>
void heap_sort(void** array, int32_t count, Less less) {
  if (!array || count < 2) return;
  const Slots a(array);
  const size_t len = static_cast<size_t>(count);
  for (size_t i = len / 2; i-- > 0;) adjust(a, i, len, a.get(i), less);
  for (size_t end = len - 1; end > 0; --end) {
    void* value = a.get(end);
    a.set(end, a.get(0));
    adjust(a, 0, end, value, less);
  }
}

// Shared by both searches: returns the match index (found = true) or the
// final `hi` of the narrowed range.
int32_t search(const void* key, const void* base, int32_t item_size, int32_t count,
               SH_SEARCH_COMPARE compare, bool* found) {
  *found = false;
  int32_t lo = 0, hi = count - 1;
  if (!compare || !base || item_size < 0 || count <= 0) return -1;
  const char* bytes = static_cast<const char*>(base);
  while (lo <= hi) {
    const auto mid = static_cast<int32_t>((static_cast<int64_t>(lo) + hi) / 2);
    const int32_t r = compare(key, bytes + static_cast<ptrdiff_t>(mid) * item_size);
    if (r < 0) {
      hi = mid - 1;
    } else if (r > 0) {
      lo = mid + 1;
    } else {
      *found = true;
      return mid;
    }
  }
  return hi;
}

int32_t ZBSHR_CALLBACK keyword_compare(const void* key, const void* item) {
  const auto* p = static_cast<const unsigned char*>(key);
  const char* k = static_cast<const SHKEYWORD*>(item)->key;
  const auto* q = reinterpret_cast<const unsigned char*>(k ? k : "");
  while (*p && *p == *q) ++p, ++q;
  return static_cast<int32_t>(*p) - static_cast<int32_t>(*q);
}

int32_t ZBSHR_CALLBACK keyword_compare_nocase(const void* key, const void* item) {
  const auto* p = static_cast<const unsigned char*>(key);
  const char* k = static_cast<const SHKEYWORD*>(item)->key;
  const auto* q = reinterpret_cast<const unsigned char*>(k ? k : "");
  for (;; ++p, ++q) {
    const int a = std::tolower(*p), b = std::tolower(*q);
    if (a != b || a == 0) return a - b;
  }
}

int32_t keyword_lookup(const char* key, const SHKEYWORD* table, int32_t count,
                       SH_SEARCH_COMPARE compare) {
  if (!key || !table) return -1;
  const int32_t i = sh_binary_search(key, table, static_cast<int32_t>(sizeof(SHKEYWORD)), count,
                                     compare);
  return i < 0 ? -1 : table[i].value;
}

}  // namespace

ZBSHR_API(void) sh_heapsort(void** array, int32_t count, SH_COMPARE compare) {
  if (!compare) return;
  heap_sort(array, count, [compare](void* a, void* b) { return compare(a, b) < 0; });
}

ZBSHR_API(void) sh_hugeheapsort(void** array, int32_t count, SH_COMPARE compare) {
  sh_heapsort(array, count, compare);
}

ZBSHR_API(void) sh_heapsort_param(intptr_t param, void** array, int32_t count, SH_COMPARE_PARAM compare) {
  if (!compare) return;
  heap_sort(array, count,
            [param, compare](void* a, void* b) { return compare(param, a, b) < 0; });
}

ZBSHR_API(void) sh_hugeheapsort_param(intptr_t param, void** array, int32_t count,
                           SH_COMPARE_PARAM compare) {
  sh_heapsort_param(param, array, count, compare);
}

ZBSHR_API(int32_t) sh_binary_search(const void* key, const void* base, int32_t item_size, int32_t count,
                         SH_SEARCH_COMPARE compare) {
  bool found;
  const int32_t i = search(key, base, item_size, count, compare, &found);
  return found ? i : -1;
}

ZBSHR_API(int32_t) sh_bin_search(const void* key, const void* base, int32_t item_size, int32_t count,
                      SH_SEARCH_COMPARE compare, int32_t* found) {
  bool hit;
  const int32_t i = search(key, base, item_size, count, compare, &hit);
  if (found) *found = hit ? 1 : 0;
  return i;
}

ZBSHR_API(int32_t) shBinSrch(const char* key, const SHKEYWORD* table, int32_t count) {
  return keyword_lookup(key, table, count, keyword_compare);
}

ZBSHR_API(int32_t) shBinSrchi(const char* key, const SHKEYWORD* table, int32_t count) {
  return keyword_lookup(key, table, count, keyword_compare_nocase);
}
