// Library files: writing a library afresh (for compaction and salvage).
//
// A fresh library is laid out in one pass: header, first bitmap and root node,
// then the other directory nodes, then the data chains, every block in use.
// The directory is built from the names in sorted order: they are packed into
// full nodes, and the nodes are hung as a balanced binary tree (the middle
// node of a range at the top, the lower half on its left, the upper half on
// its right), so that a search reads about log2(nodes) nodes. Every node's
// names lie between its left and its right subtree, as searches and later
// insertions expect.
#include <algorithm>
#include <unordered_set>

#include "library/recovery.h"
#include "zbshr/memory.h"

namespace zbshr::lm {

namespace {

using namespace zbshr::plat;

constexpr uint32_t kNode = 3072, kSpace = 3040, kFixed = 4096;

// Hands out block numbers of the new file in order. The first block of every
// bitmap range after the first is kept for that range's bitmap; a node that
// would cross such a block starts after it, and the blocks skipped are given
// to the next single-block requests.
struct Blocks {
  uint32_t next = kFixed / kBlock;
  std::vector<uint32_t> gaps;
  std::vector<uint32_t> maps{1};  // block numbers of the bitmaps

  void reserve_if_map_start() {
    if (next % kBitsPerMap == 0) {
      maps.push_back(next);
      ++next;
    }
  }
  uint32_t one() {
    if (!gaps.empty()) {
      uint32_t b = gaps.back();
      gaps.pop_back();
      return b;
    }
    reserve_if_map_start();
    return next++;
  }
  uint32_t run(uint32_t n) {
    reserve_if_map_start();
    uint32_t r = (next / kBitsPerMap + 1) * kBitsPerMap;  // next reserved block
    if (next + n > r) {
      for (uint32_t b = next; b < r; ++b) gaps.push_back(b);
      next = r;
      reserve_if_map_start();
    }
    uint32_t b = next;
    next += n;
    return b;
  }
};

struct Writer {
  Library out;  // only the file and its size are used
  Blocks blocks;
  std::vector<uint8_t> run;  // bytes waiting to go out at runAt, in one write
  uint64_t runAt = 0;

  int32_t flush() {
    int32_t rc = run.empty() ? 0 : write_at(&out, runAt, run.data(), uint32_t(run.size()));
    run.clear();
    return rc;
  }
  int32_t put(uint64_t off, const uint8_t* p, uint32_t n) {
    if (run.empty() || off != runAt + run.size() || run.size() + n > (1u << 20)) {
      int32_t rc = flush();
      if (rc) return rc;
      runAt = off;
    }
    run.insert(run.end(), p, p + n);
    return 0;
  }

  int32_t chain(const uint8_t* bytes, uint32_t len, uint32_t* first) {
    *first = 0;
    if (len == 0) return 0;
    uint32_t n = (len + kPayload - 1) / kPayload;
    std::vector<uint32_t> offs(n);
    for (auto& o : offs) o = blocks.one() * kBlock;
    uint8_t blk[kBlock];
    for (uint32_t t = 0; t < n; ++t) {
      uint32_t used = std::min(kPayload, len - t * kPayload);
      std::memset(blk, 0, kBlock);
      std::memcpy(blk, "DAT*", 4);
      wr32(blk + 4, t + 1 < n ? offs[t + 1] : 0);
      wr16(blk + 8, uint16_t(used));
      std::memcpy(blk + 10, bytes + size_t(t) * kPayload, used);
      int32_t rc = put(offs[t], blk, kBlock);
      if (rc) return rc;
    }
    *first = offs[0];
    return 0;
  }
};

uint32_t record_size(const OutEntry& e) { return kRecHead + uint32_t(e.name.size()) + 1; }

}  // namespace

int32_t write_fresh(const std::string& path, const uint8_t* header, std::vector<OutEntry>& entries,
                    const std::vector<uint8_t>& list, const FetchEntry& fetch) {
  std::sort(entries.begin(), entries.end(),
            [](const OutEntry& a, const OutEntry& b) { return a.name < b.name; });
  for (size_t i = 0; i < entries.size(); ++i) {
    if (record_size(entries[i]) > kSpace) return LMI_E_ARGUMENT;
    if (i && entries[i].name == entries[i - 1].name) return LMI_E_ARGUMENT;
  }
  // Pack the sorted names into full nodes: node g holds entries [cut[g], cut[g+1]).
  std::vector<size_t> cut{0};
  for (size_t i = 0, used = 0; i < entries.size(); ++i) {
    if (used + record_size(entries[i]) > kSpace) {
      cut.push_back(i);
      used = 0;
    }
    used += record_size(entries[i]);
  }
  cut.push_back(entries.size());
  size_t groups = cut.size() - 1;
  if (entries.empty()) groups = 1;

  HFILE f = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW,
                        FILE_ATTRIBUTE_NORMAL);
  if (f == INVALID_HANDLE) {
    err_note_system(LMI_E_CREATE, "create", path);
    return LMI_E_CREATE;
  }
  Writer w;
  w.out.file = f;
  w.out.path = path;

  // Tree shape: the middle group of each range at the top.
  struct NodeInfo {
    uint32_t off = 0, left = 0, right = 0, parent = 0;
  };
  std::vector<NodeInfo> nodes(groups);
  std::vector<size_t> order;  // groups in the order their nodes are placed
  {
    struct Range {
      size_t lo, hi, parent;  // parent group, SIZE_MAX for none
      bool right;
    };
    std::vector<Range> todo{{0, groups, SIZE_MAX, false}};
    while (!todo.empty()) {
      Range r = todo.back();
      todo.pop_back();
      if (r.lo >= r.hi) continue;
      size_t mid = r.lo + (r.hi - r.lo) / 2;
      nodes[mid].off = r.parent == SIZE_MAX ? 1024 : w.blocks.run(kNode / kBlock) * kBlock;
      if (r.parent != SIZE_MAX) {
        nodes[mid].parent = nodes[r.parent].off;
        (r.right ? nodes[r.parent].right : nodes[r.parent].left) = nodes[mid].off;
      }
      order.push_back(mid);
      todo.push_back({mid + 1, r.hi, mid, true});
      todo.push_back({r.lo, mid, mid, false});
    }
  }

  int32_t rc = 0;
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < entries.size() && rc == 0; ++i) {
    rc = fetch(i, &bytes);
    if (rc == 0 && bytes.size() != entries[i].length) rc = LMI_E_DAMAGED;
    if (rc == 0) rc = w.chain(bytes.data(), entries[i].length, &entries[i].first);
  }
  uint32_t listFirst = 0;
  if (rc == 0) rc = w.chain(list.data(), uint32_t(list.size()), &listFirst);

  uint64_t total = uint64_t(w.blocks.next) * kBlock;
  if (rc == 0 && total > kMaxOffset) {
    err_note(LMI_E_DISK_FULL, "the library would grow past the 2 GiB limit of its format");
    rc = LMI_E_DISK_FULL;
  }

  std::vector<uint8_t> fixed(kFixed, 0);
  std::vector<uint8_t> img(kNode);
  for (size_t g = 0; g < groups && rc == 0; ++g) {
    std::fill(img.begin(), img.end(), 0);
    std::memcpy(img.data(), "NOD*", 4);
    wr32(img.data() + node::kLeft, nodes[g].left);
    wr32(img.data() + node::kParent, nodes[g].parent);
    wr32(img.data() + node::kRight, nodes[g].right);
    uint32_t p = kNodeHead, count = 0;
    for (size_t i = entries.empty() ? 0 : cut[g]; i < (entries.empty() ? 0 : cut[g + 1]); ++i) {
      const OutEntry& e = entries[i];
      uint8_t* r = img.data() + p;
      std::memcpy(r, "ENT*0500", 8);
      wr32(r + rec::kFirst, e.first);
      wr32(r + rec::kLength, e.length);
      wr32(r + rec::kTime, e.time);
      wr16(r + rec::kCommentLen, e.commentLen);
      wr16(r + rec::kNameLen, uint16_t(e.name.size() + 1));
      std::memcpy(r + kRecHead, e.name.c_str(), e.name.size() + 1);
      if (count == 0) wr16(img.data() + node::kMin, uint16_t(p + kRecHead));
      wr16(img.data() + node::kMax, uint16_t(p + kRecHead));  // names ascend
      p += record_size(e);
      ++count;
    }
    wr16(img.data() + node::kFree, uint16_t(kSpace - (p - kNodeHead)));
    wr16(img.data() + node::kCount, uint16_t(count));
    if (nodes[g].off == 1024)
      std::memcpy(fixed.data() + 1024, img.data(), kNode);
    else
      rc = w.put(nodes[g].off, img.data(), kNode);
  }

  // Bitmaps: every block before the end is in use except skipped gaps.
  std::unordered_set<uint32_t> gaps(w.blocks.gaps.begin(), w.blocks.gaps.end());
  const std::vector<uint32_t>& maps = w.blocks.maps;
  for (size_t k = 0; k < maps.size() && rc == 0; ++k) {
    uint8_t m[kBlock] = {};
    std::memcpy(m, "FRE*", 4);
    wr32(m + 4, k + 1 < maps.size() ? maps[k + 1] * kBlock : 0);
    for (uint32_t j = 0; j < kBitsPerMap; ++j) {
      uint32_t b = uint32_t(k) * kBitsPerMap + j;
      if (b >= w.blocks.next) break;
      if (!gaps.count(b)) m[8 + j / 8] |= uint8_t(0x80 >> (j % 8));
    }
    if (k == 0)
      std::memcpy(fixed.data() + kBlock, m, kBlock);
    else
      rc = w.put(uint64_t(maps[k]) * kBlock, m, kBlock);
  }
  if (rc == 0) {
    std::memcpy(fixed.data(), header, kBlock);
    std::memcpy(fixed.data(), "HDR*", 4);
    std::memcpy(fixed.data() + 4, "Quillbrander", 12);
    std::memset(fixed.data() + 16, 0, 2);
    std::memcpy(fixed.data() + hdr::kVersion, "0500", 4);
    wr32(fixed.data() + hdr::kListFirst, listFirst);
    wr32(fixed.data() + hdr::kListLen, uint32_t(list.size()));
    std::memset(fixed.data() + 292, 0, kBlock - 292);
    rc = w.put(0, fixed.data(), kFixed);
  }
  if (rc == 0) rc = w.flush();
  if (rc == 0 && w.out.fsize != total) rc = LMI_E_CREATE;  // every block up to the end is written
  if (rc == 0 && !FlushFileBuffers(f)) {
    err_note_system(LMI_E_IO, "sync", path);
    rc = LMI_E_IO;
  }
  if (!CloseHandle(f) && rc == 0) rc = LMI_E_IO;
  if (rc) DeleteFileA(path.c_str());
  return rc;
}

}  // namespace zbshr::lm

using namespace zbshr::lm;
namespace plat = zbshr::plat;

namespace {

// Collects every entry record reachable from the root; fails on any damage.
int32_t collect(Library* h, std::vector<OutEntry>* out, uint32_t* depth) {
  struct Item {
    uint32_t off, depth;
  };
  std::vector<Item> stack{{root_off(h), 1}};
  std::unordered_set<uint32_t> seen;
  *depth = 0;
  while (!stack.empty()) {
    Item it = stack.back();
    stack.pop_back();
    if (!seen.insert(it.off).second) return LMI_E_DAMAGED;
    *depth = std::max(*depth, it.depth);
    uint8_t* img;
    int32_t rc = node_img(h, it.off, &img);
    if (rc < 0) return rc;
    uint32_t used = h->entrySpace - rd16(img + node::kFree);
    for (uint32_t p = kNodeHead; p < kNodeHead + used;) {
      const uint8_t* r = img + p;
      OutEntry e;
      e.name = reinterpret_cast<const char*>(r + kRecHead);
      e.time = rd32(r + rec::kTime);
      e.commentLen = rd16(r + rec::kCommentLen);
      e.length = rd32(r + rec::kLength);
      e.first = rd32(r + rec::kFirst);
      if (e.commentLen > 255 || e.commentLen > e.length) return LMI_E_DAMAGED;
      out->push_back(std::move(e));
      p += kRecHead + rd16(r + rec::kNameLen);
    }
    if (uint32_t r = rd32(img + node::kRight)) stack.push_back({r, it.depth + 1});
    if (uint32_t l = rd32(img + node::kLeft)) stack.push_back({l, it.depth + 1});
  }
  return 0;
}

int32_t compact(const char* path, const Sink& say) {
  if (!path || !*path) {
    err_note(LMI_E_ARGUMENT, "no library path was given");
    return LMI_E_ARGUMENT;
  }
  struct Heap {
    ZBSTG_HEAP h = zbstg_begin(0);
    ~Heap() { if (h) zbstg_end(h); }
  } heap;
  if (!heap.h) return LMI_E_NULL_HEAP;
  // Mode 2 keeps other writers out while the copy is made.
  Library* h = open_library(heap.h, path, 2, 0);
  if (!h) return LMI_E_IO;
  struct Closer {
    Library*& h;
    ~Closer() { if (h) close_library_always(h); }
  } closer{h};
  if (h->base != 0 || h->trailer) {
    err_note(LMI_E_ARGUMENT, "a library inside an executable cannot be compacted");
    return LMI_E_ARGUMENT;
  }
  std::vector<OutEntry> entries;
  uint32_t depth = 0;
  int32_t rc = collect(h, &entries, &depth);
  std::vector<uint8_t> list;
  if (rc == 0) rc = read_list(h, &list) ? LMI_E_DAMAGED : 0;
  if (rc) {
    err_note(rc, "the library is damaged: check it, then repair or salvage it");
    return rc;
  }
  uint64_t before = h->fsize;
  std::string full = h->path, tmp = h->path + ".compacting";
  plat::DeleteFileA(tmp.c_str());  // left behind by an interrupted run
  std::vector<uint8_t> header(h->fixed, h->fixed + kBlock);
  rc = write_fresh(tmp, header.data(), entries, list, [&](size_t i, std::vector<uint8_t>* b) {
    int32_t r = read_chain(h, entries[i].first, entries[i].length, b);
    if (r) say(r, entries[i].name, "entry '" + entries[i].name + "' cannot be read");
    return r;
  });
  if (rc) return rc;
  // Check the copy before it replaces the original.
  Library* n = open_library(heap.h, tmp.c_str(), 1, 0);
  std::vector<Finding> found;
  if (n) {
    found = check(n);
    close_library(n);
  }
  if (!n || !found.empty()) {
    plat::DeleteFileA(tmp.c_str());
    err_note(LMI_E_CREATE, "the compacted copy did not check clean; the library is unchanged");
    return LMI_E_CREATE;
  }
  rc = close_library_always(h);
  h = nullptr;
  if (rc) {
    plat::DeleteFileA(tmp.c_str());
    return rc;
  }
  if (!plat::MoveFileExA(tmp.c_str(), full.c_str(),
                         plat::MOVEFILE_REPLACE_EXISTING | plat::MOVEFILE_WRITE_THROUGH)) {
    err_note_system(LMI_E_IO, "replace", full);
    plat::DeleteFileA(tmp.c_str());
    return LMI_E_IO;
  }
  uint32_t newDepth = 0;
  uint64_t after = 0;
  if (Library* a = open_library(heap.h, full.c_str(), 1, 0)) {
    std::vector<OutEntry> again;
    collect(a, &again, &newDepth);
    after = a->fsize;
    close_library(a);
  }
  say(ZBSHR_LIB_NOTE_INFO, "",
      "kept " + std::to_string(entries.size()) + " entries; " + std::to_string(before) + " -> " +
          std::to_string(after) + " bytes; directory depth " + std::to_string(depth) + " -> " +
          std::to_string(newDepth));
  return int32_t(entries.size());
}

}  // namespace

ZBSHR_API(int32_t) zbshr_lib_compact(const char* path, ZBSHR_LIB_PROBLEM cb, void* ctx) {
  err_begin();
  try {
    return err_end(compact(path, Sink{cb, ctx}));
  } catch (...) {
    return err_end(LMI_E_IO);
  }
}
