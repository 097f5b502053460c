// Demo step of the containers family: a hash table's statistics, a sorted
// list and a flipped record.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "zbshr/containers.h"
#include "zbshr/memory.h"

namespace {

int demo_containers(const zcli::DemoContext& ctx) {
  FILE* out = ctx.out;
  int rc = 0;
  ZBSTG_HEAP heap = zbstg_begin(0);
  const uint32_t pool = zbstg_new_pool(heap);

  // A table of 10,007 buckets holding 20,000 keys.
  SHHASH* table = shhash_new(10007, nullptr, 1, 0, heap, pool);
  std::vector<std::string> keys;
  for (int i = 0; i < 20000; ++i) keys.push_back("customer-" + std::to_string(i * 37));
  int inserted = 0, refused = 0;
  for (auto& k : keys) (shhash_insert(table, k.data()) == 1 ? inserted : refused)++;
  refused += shhash_insert(table, keys[5].data()) == 2;  // a duplicate key
  SHHASH_STAT st{};
  shhash_statistics(table, &st);
  std::fprintf(out, "hash table: %d keys in 10007 buckets, %d duplicate refused\n", inserted,
               refused);
  std::fprintf(out, "  expected chain %.3f, actual chain %.3f, longest chain %d\n",
               st.expected_chain, st.actual_chain, st.longest_chain);
  int found = 0;
  for (int i = 0; i < 20000; i += 97) found += shhash_search(table, keys[i].c_str()) != nullptr;
  std::fprintf(out, "  %d of %d sampled keys found; \"missing\" found: %s\n", found,
               (20000 + 96) / 97, shhash_search(table, "missing") ? "yes" : "no");
  if (found != (20000 + 96) / 97 || refused != 1) rc = 1;
  shhash_delete(table);

  // A list sorted with the system collation and rebuilt in order.
  SHLIST* list = shlist_new(heap, pool);
  const char* words[] = {"pear", "Apple", "fig", "apple", "Banana", "kiwi"};
  for (const char* w : words) shlist_insert(list, const_cast<char*>(w));
  shlist_sort(list, nullptr, SHLIST_SORT_REBUILD | SHLIST_SORT_NOARRAY);
  std::fprintf(out, "sorted list:");
  for (void* d = shlist_get_first(list); d; d = shlist_get_next(list)) {
    std::fprintf(out, " %s", static_cast<char*>(d));
  }
  std::fprintf(out, "\n");
  shlist_delete(list);

  // A record of a 32-bit and two 16-bit fields flipped field by field.
  unsigned char rec[8] = {0x12, 0x34, 0x56, 0x78, 0xAB, 0xCD, 0x01, 0x02};
  void* p = shFlipLong(rec);
  p = shFlipDataLoop(p, reinterpret_cast<SHFLIPFN>(reinterpret_cast<void (*)()>(&shFlipShort)),
                     2, 0);
  std::fprintf(out, "flipped record:");
  for (unsigned char c : rec) std::fprintf(out, " %02X", c);
  std::fprintf(out, " (walked %d bytes)\n", static_cast<int>(static_cast<unsigned char*>(p) - rec));

  zbstg_end(heap);
  return rc;
}

}  // namespace

ZBSHR_DEMO_STEP(containers, 30, "lists and hash tables", demo_containers);
