// Library files: a full consistency check of an open library. It reads the
// file itself (not the handle's caches) and reports every problem it finds.
#include <algorithm>
#include <cstdio>
#include <unordered_set>

#include "library/recovery.h"
#include "zbshr/memory.h"

namespace zbshr::lm {

namespace {

struct Checker {
  Library* h;
  VerifyReport rep;
  std::vector<uint8_t> owner;  // per block: 0 free, else what uses it
  uint32_t nb = 0;
  std::vector<Finding> found;
  std::string entry;             // entry being checked, for the findings
  int32_t code = LMI_E_DAMAGED;  // code of the next finding

  template <class... A>
  void problem(const char* fmt, A... a) {
    char buf[512];
    std::snprintf(buf, sizeof buf, fmt, a...);
    if (found.size() < 10000) found.push_back({code, entry, buf});
  }

  bool read(uint64_t off, void* buf, uint32_t n) {
    uint32_t got = 0;
    return off + n <= h->fsize && read_at(h, off, buf, n, &got) == 0 && got == n;
  }

  // Claims a block for a user; reports a block used twice or outside the file.
  bool claim(uint32_t off, const char* what) {
    if (off < h->base || (off - h->base) % kBlock) {
      problem("%s: offset %u is not on a block boundary", what, off);
      return false;
    }
    uint32_t i = (off - h->base) / kBlock;
    if (i >= nb) {
      problem("%s: block at %u lies past the end of the file", what, off);
      return false;
    }
    if (owner[i]) {
      problem("%s: block at %u is used twice", what, off);
      return false;
    }
    owner[i] = 1;
    return true;
  }

  bool data_offset_ok(uint32_t off) {
    return off >= uint64_t(h->base) + h->fixedSize && (off - h->base) % kBlock == 0 &&
           uint64_t(off) + kBlock <= h->fsize;
  }

  // Walks a data chain of `len` bytes; returns false when it is broken.
  bool chain(uint32_t first, uint32_t len, const std::string& what) {
    uint32_t need = (len + kPayload - 1) / kPayload;
    if (len == 0) {
      if (first) problem("%s: empty data but first block %u", what.c_str(), first);
      return true;
    }
    uint32_t cur = first, total = 0;
    uint8_t blk[kBlock];
    for (uint32_t t = 0; t < need; ++t) {
      if (!data_offset_ok(cur)) {
        problem("%s: data block %u of %u at bad offset %u", what.c_str(), t + 1, need, cur);
        return false;
      }
      if (!claim(cur, what.c_str())) return false;
      if (!read(cur, blk, kBlock) || std::memcmp(blk, "DAT*", 4) != 0) {
        problem("%s: block at %u is not a data block", what.c_str(), cur);
        return false;
      }
      uint32_t used = rd16(blk + 8);
      uint32_t expect = t + 1 < need ? kPayload : len - kPayload * (need - 1);
      if (used != expect) problem("%s: block at %u holds %u bytes, expected %u", what.c_str(), cur, used, expect);
      total += used;
      ++rep.dataBlocks;
      cur = rd32(blk + 4);
    }
    if (cur != 0) problem("%s: chain goes on past its length", what.c_str());
    if (total != len) problem("%s: chain holds %u bytes, record says %u", what.c_str(), total, len);
    return true;
  }

  void run() {
    uint8_t* hd = h->fixed;
    if (std::memcmp(hd, "HDR*", 4) != 0) problem("header magic is not HDR*");
    if (std::memcmp(hd + 4, "Quillbrander", 13) != 0) problem("product name missing");
    if ((h->fsize - h->base) % kBlock) problem("library length %llu is not a whole number of blocks",
                                               (unsigned long long)(h->fsize - h->base));
    nb = uint32_t((h->fsize - h->base) / kBlock);
    rep.blocks = nb;
    owner.assign(nb, 0);
    for (uint32_t i = 0; i < h->fixedSize / kBlock && i < nb; ++i) owner[i] = 1;

    // Bitmap chain, from the file.
    std::vector<std::vector<uint8_t>> maps;
    {
      std::vector<uint8_t> m(kBlock);
      if (!read(uint64_t(h->base) + kBlock, m.data(), kBlock) || std::memcmp(m.data(), "FRE*", 4)) {
        problem("first bitmap is missing");
        return;
      }
      maps.push_back(m);
      uint32_t next = rd32(m.data() + 4);
      while (next) {
        uint32_t k = uint32_t(maps.size());
        if (uint64_t(k) * kMapRange > h->fsize) {
          problem("bitmap chain is longer than the file (cycle?)");
          break;
        }
        if (next != h->base + k * kMapRange)
          problem("bitmap %u at %u, not at the start of its range", k, next);
        if (!data_offset_ok(next) || !read(next, m.data(), kBlock) || std::memcmp(m.data(), "FRE*", 4)) {
          problem("bitmap %u at %u cannot be read", k, next);
          break;
        }
        claim(next, "bitmap");
        maps.push_back(m);
        next = rd32(m.data() + 4);
      }
    }
    rep.maps = uint32_t(maps.size());
    if (uint64_t(maps.size()) * kBitsPerMap < nb) problem("bitmaps cover fewer blocks than the file");

    // Directory tree.
    struct Item {
      uint32_t off, parent;
      std::string lo, hi;  // exclusive bounds ("" = none)
      bool hasLo, hasHi;
    };
    std::vector<Item> stack{{h->base + 1024, 0, "", "", false, false}};
    std::vector<uint8_t> img(h->nodeSize);
    std::vector<std::string> names;
    std::unordered_set<uint32_t> seen;
    while (!stack.empty()) {
      Item it = stack.back();
      stack.pop_back();
      if (!seen.insert(it.off).second) {
        // Reached again: a cycle (or a shared subtree). Not followed twice.
        problem("directory tree has a cycle: node at %u (parent %u) is reached twice", it.off,
                it.parent);
        continue;
      }
      ++rep.nodes;
      bool root = it.off == h->base + 1024;
      if (!root) {
        if (it.off < uint64_t(h->base) + h->fixedSize || (it.off - h->base) % kBlock ||
            uint64_t(it.off) + h->nodeSize > h->fsize) {
          problem("node at %u lies outside the file", it.off);
          continue;
        }
        bool ok = true;
        for (uint32_t t = 0; t < h->nodeSize / kBlock; ++t) ok = claim(it.off + t * kBlock, "node") && ok;
        if (!ok) continue;
      }
      if (!read(it.off, img.data(), h->nodeSize) || std::memcmp(img.data(), "NOD*", 4) != 0) {
        problem("node at %u is not a directory node", it.off);
        continue;
      }
      const uint8_t* n = img.data();
      if (rd32(n + node::kParent) != it.parent)
        problem("node at %u: parent %u, expected %u", it.off, rd32(n + node::kParent), it.parent);
      uint32_t freeb = rd16(n + node::kFree);
      if (freeb > h->entrySpace) {
        problem("node at %u: free bytes %u exceed the entry space", it.off, freeb);
        continue;
      }
      uint32_t end = kNodeHead + h->entrySpace - freeb, count = 0;
      std::string mn, mx;
      bool any = false, broken = false;
      uint32_t minOff = 0, maxOff = 0;
      for (uint32_t p = kNodeHead; p < end;) {
        if (p + kRecHead > end || std::memcmp(n + p, "ENT*", 4) != 0) {
          problem("node at %u: bad record at %u", it.off, p);
          broken = true;
          break;
        }
        uint32_t nl = rd16(n + p + rec::kNameLen);
        if (nl == 0 || p + kRecHead + nl > end || n[p + kRecHead + nl - 1] != 0 ||
            std::memchr(n + p + kRecHead, 0, nl - 1)) {
          problem("node at %u: record at %u runs past its node", it.off, p);
          broken = true;
          break;
        }
        std::string name(reinterpret_cast<const char*>(n + p + kRecHead));
        if ((it.hasLo && name <= it.lo) || (it.hasHi && name >= it.hi))
          problem("entry '%s' is out of order in the tree", name.c_str());
        if (!any || name < mn) mn = name, minOff = p + kRecHead;
        if (!any || name > mx) mx = name, maxOff = p + kRecHead;
        any = true;
        names.push_back(name);
        ++count;
        ++rep.entries;
        uint32_t len = rd32(n + p + rec::kLength), clen = rd16(n + p + rec::kCommentLen);
        entry = name;
        if (clen > 255 || clen > len) problem("entry '%s': comment length %u", name.c_str(), clen);
        entry.clear();
        entry = name;
        chain(rd32(n + p + rec::kFirst), len, "entry '" + name + "'");
        entry.clear();
        p += kRecHead + nl;
      }
      if (broken) continue;
      for (uint32_t b = end; b < h->nodeSize; ++b)
        if (n[b]) {
          problem("node at %u: bytes after the records are not zero", it.off);
          break;
        }
      if (count != rd16(n + node::kCount))
        problem("node at %u: count %u, holds %u records", it.off, rd16(n + node::kCount), count);
      if (any && (rd16(n + node::kMin) != minOff || rd16(n + node::kMax) != maxOff))
        problem("node at %u: smallest or greatest name offset is wrong", it.off);
      if (!any && (rd16(n + node::kMin) || rd16(n + node::kMax)))
        problem("node at %u: empty node with name offsets", it.off);
      uint32_t l = rd32(n + node::kLeft), r = rd32(n + node::kRight);
      // An empty node's children are bounded by its parent's bounds only.
      if (r) stack.push_back({r, it.off, any ? mx : it.lo, it.hi, any || it.hasLo, it.hasHi});
      if (l) stack.push_back({l, it.off, it.lo, any ? mn : it.hi, it.hasLo, any || it.hasHi});
    }
    std::sort(names.begin(), names.end());
    for (size_t i = 1; i < names.size(); ++i)
      if (names[i] == names[i - 1]) problem("entry '%s' appears twice", names[i].c_str());

    // Check-out list.
    uint32_t lfirst = rd32(hd + hdr::kListFirst), llen = rd32(hd + hdr::kListLen);
    rep.listBytes = llen;
    if (llen) {
      if (chain(lfirst, llen, "check-out list")) {
        std::vector<uint8_t> list;
        if (read_chain(h, lfirst, llen, &list) == 0 && !whole_check_out_list(list))
          problem("check-out list: its records are damaged");
      }
    } else if (lfirst) {
      problem("check-out list has a first block but no length");
    }

    // Bitmap marks against the blocks in use.
    uint32_t wrongUsed = 0, wrongFree = 0, firstBad = 0;
    for (uint32_t i = 0; i < uint64_t(maps.size()) * kBitsPerMap; ++i) {
      uint32_t j = i % kBitsPerMap;
      bool bit = maps[i / kBitsPerMap][8 + j / 8] & (0x80 >> (j % 8));
      bool used = i < nb && owner[i];
      if (!bit && i < nb) ++rep.freeBlocks;
      if (bit != used) {
        if (!wrongUsed && !wrongFree) firstBad = i;
        (bit ? wrongUsed : wrongFree)++;
      }
    }
    if (wrongUsed) {
      code = ZBSHR_LIB_NOTE_LEAK;
      problem("%u blocks are marked in use but belong to nothing (first at block %u)", wrongUsed, firstBad);
      code = LMI_E_DAMAGED;
    }
    if (wrongFree)
      problem("%u blocks in use are marked free (first at block %u)", wrongFree, firstBad);
  }
};

}  // namespace

std::vector<Finding> check(Library* h) {
  Checker c{h, {}, {}, 0, {}, {}, LMI_E_DAMAGED};
  c.run();
  return std::move(c.found);
}

VerifyReport verify(Library* h) {
  Checker c{h, {}, {}, 0, {}, {}, LMI_E_DAMAGED};
  c.run();
  for (const Finding& f : c.found)
    if (c.rep.problems.size() < 200) c.rep.problems.push_back(f.text);
  return c.rep;
}

bool whole_check_out_list(const std::vector<uint8_t>& list, size_t* wholeBytes) {
  size_t p = 0, whole = 0;
  while (p < list.size()) {
    size_t q = p;
    bool ok = true;
    for (int field = 0; field < 3 && ok; ++field) {
      while (q < list.size() && list[q]) ++q;
      ok = q < list.size();
      ++q;
    }
    if (!ok || q >= list.size() || (list[q] != 'd' && list[q] != 's' && list[q] != 'r')) break;
    p = whole = q + 1;
  }
  if (wholeBytes) *wholeBytes = whole;
  return whole == list.size();
}

}  // namespace zbshr::lm

using namespace zbshr::lm;

ZBSHR_API(int32_t) zbshr_lib_verify(const char* path, ZBSHR_LIB_PROBLEM cb, void* ctx) {
  err_begin();
  try {
    if (!path || !*path) {
      err_note(LMI_E_ARGUMENT, "no library path was given");
      return err_end(LMI_E_ARGUMENT);
    }
    ZBSTG_HEAP heap = zbstg_begin(0);
    if (!heap) return err_end(LMI_E_NULL_HEAP);
    Library* h = open_library(heap, path, 1, 0);
    if (!h) {
      err_note(LMI_E_IO, std::string("open ") + path + ": not a library, or it cannot be opened");
      zbstg_end(heap);
      return err_end(LMI_E_IO);
    }
    std::vector<Finding> found = check(h);
    close_library(h);
    zbstg_end(heap);
    Sink sink{cb, ctx};
    int32_t damage = 0;
    for (const Finding& f : found) {
      sink(f);
      if (f.code < 0) ++damage;
    }
    return err_end(damage);
  } catch (...) {
    return err_end(LMI_E_IO);
  }
}
