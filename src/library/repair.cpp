// Library files: repair in place. The directory is walked from the root with
// a visited set: a link to a node already reached (a cycle), or to something
// that is not a sound directory node, is cut. An entry whose data chain is
// broken or shares blocks with another is emptied, a check-out list that does
// not read whole is dropped, and the free-space bitmaps are rebuilt from the
// blocks that are reachable, which frees leaked blocks and marks in use the
// blocks that were wrongly free. Entries that read whole are not touched.
//
// All changes are one journaled operation: after a crash or a failed write
// the library is as it was before the repair.
#include <algorithm>
#include <unordered_set>

#include "library/recovery.h"
#include "zbshr/memory.h"

namespace zbshr::lm {

namespace {

struct Repairer {
  Library* h;
  const Sink& say;
  std::vector<uint8_t> owner;  // per block: reachable from the header or the directory
  uint32_t nb = 0;
  int32_t fixed = 0;

  void note(int32_t code, const std::string& entry, const std::string& text) {
    ++fixed;
    say(code, entry, text);
  }
  bool free(uint32_t off, uint32_t n) {
    if (off < h->base || (off - h->base) % kBlock) return false;
    uint32_t i = (off - h->base) / kBlock;
    if (uint64_t(i) + n > nb) return false;
    for (uint32_t t = 0; t < n; ++t)
      if (owner[i + t]) return false;
    return true;
  }
  void claim(uint32_t off, uint32_t n) {
    uint32_t i = (off - h->base) / kBlock;
    for (uint32_t t = 0; t < n; ++t) owner[i + t] = 1;
  }

  // Claims a whole chain of `len` bytes; false (nothing claimed) when it is broken.
  bool chain(uint32_t first, uint32_t len) {
    if (len == 0) return first == 0;
    uint32_t need = (len + kPayload - 1) / kPayload, cur = first;
    std::vector<uint32_t> offs;
    uint8_t blk[kBlock];
    for (uint32_t t = 0; t < need; ++t) {
      if (!valid_data_offset(h, cur) || !free(cur, 1) ||
          std::find(offs.begin(), offs.end(), cur) != offs.end())
        return false;
      if (read_at(h, cur, blk, kBlock) || std::memcmp(blk, "DAT*", 4)) return false;
      uint32_t used = rd16(blk + 8);
      if (used != (t + 1 < need ? kPayload : len - kPayload * (need - 1))) return false;
      offs.push_back(cur);
      cur = rd32(blk + 4);
    }
    if (cur != 0) return false;
    for (uint32_t o : offs) claim(o, 1);
    return true;
  }

  // A child link is sound when it leads to an unvisited, unclaimed, valid node.
  bool sound_node(uint32_t off, const std::unordered_set<uint32_t>& seen, std::string* why) {
    if (seen.count(off)) {
      *why = "it leads back to a node already reached (a cycle)";
      return false;
    }
    if (off < uint64_t(h->base) + h->fixedSize || !free(off, h->nodeSize / kBlock)) {
      *why = "it points outside the file or into blocks already in use";
      return false;
    }
    uint8_t* img;
    if (node_img(h, off, &img)) {
      *why = "it does not lead to a sound directory node";
      return false;
    }
    return true;
  }

  int32_t directory() {
    uint8_t* root;
    if (node_img(h, root_off(h), &root)) {
      err_note(LMI_E_DAMAGED, "the root directory node is damaged; salvage the library instead");
      return LMI_E_DAMAGED;
    }
    std::unordered_set<uint32_t> seen{root_off(h)};
    std::vector<uint32_t> stack{root_off(h)};
    while (!stack.empty()) {
      uint32_t off = stack.back();
      stack.pop_back();
      uint8_t* img;
      int32_t rc = node_img(h, off, &img);
      if (rc) return rc;
      uint32_t used = h->entrySpace - rd16(img + node::kFree);
      bool dirty = false;
      for (uint32_t p = kNodeHead; p < kNodeHead + used;) {
        uint8_t* r = img + p;
        std::string name(reinterpret_cast<const char*>(r + kRecHead));
        uint32_t len = rd32(r + rec::kLength), clen = rd16(r + rec::kCommentLen);
        if (clen > 255 || clen > len || !chain(rd32(r + rec::kFirst), len)) {
          wr32(r + rec::kFirst, 0);
          wr32(r + rec::kLength, 0);
          wr16(r + rec::kCommentLen, 0);
          dirty = true;
          note(LMI_E_DAMAGED, name, "entry '" + name + "': its data could not be read whole; emptied");
        }
        p += kRecHead + rd16(r + rec::kNameLen);
      }
      for (uint32_t field : {node::kLeft, node::kRight}) {
        uint32_t child = rd32(img + field);
        if (!child) continue;
        std::string why;
        if (!sound_node(child, seen, &why)) {
          wr32(img + field, 0);
          dirty = true;
          note(LMI_E_DAMAGED, "", "cut the " + std::string(field == node::kLeft ? "left" : "right") +
                                      " link of the node at " + std::to_string(off) + ": " + why);
          continue;
        }
        seen.insert(child);
        claim(child, h->nodeSize / kBlock);
        uint8_t* cimg;
        node_img(h, child, &cimg);
        if (rd32(cimg + node::kParent) != off) {
          wr32(cimg + node::kParent, off);
          rc = write_node(h, child);
          if (rc) return rc;
          note(LMI_E_DAMAGED, "", "set the parent of the node at " + std::to_string(child));
        }
        stack.push_back(child);
      }
      if (dirty) {
        rc = write_node(h, off);
        if (rc) return rc;
      }
    }
    drop_index(h);
    return 0;
  }

  int32_t check_out_list() {
    uint32_t first = rd32(h->fixed + hdr::kListFirst), len = rd32(h->fixed + hdr::kListLen);
    if (!first && !len) return 0;
    std::vector<uint8_t> list;
    if (len && read_chain(h, first, len, &list) == 0 && whole_check_out_list(list) && chain(first, len))
      return 0;
    wr32(h->fixed + hdr::kListFirst, 0);
    wr32(h->fixed + hdr::kListLen, 0);
    note(LMI_E_IO, "", "dropped the check-out list, which could not be read whole");
    return write_at(h, h->base, h->fixed, kBlock);
  }

  int32_t run() {
    nb = uint32_t((h->fsize - h->base) / kBlock);
    owner.assign(nb, 0);
    claim(h->base, std::min(nb, h->fixedSize / kBlock));

    // The bitmap chain: bitmap k sits at the start of range k.
    std::vector<uint32_t> maps{h->base + kBlock};
    std::vector<std::vector<uint8_t>> imgs{std::vector<uint8_t>(h->fixed + kBlock, h->fixed + 2 * kBlock)};
    uint32_t need = std::max<uint32_t>(1, (nb + kBitsPerMap - 1) / kBitsPerMap);
    for (uint32_t k = 1; k < need; ++k) {
      uint32_t off = h->base + k * kMapRange;
      std::vector<uint8_t> m(kBlock, 0);
      bool linked = rd32(imgs.back().data() + 4) == off;
      if (read_at(h, off, m.data(), kBlock) || std::memcmp(m.data(), "FRE*", 4)) {
        std::fill(m.begin(), m.end(), 0);
        std::memcpy(m.data(), "FRE*", 4);
        m[8] = 0x80;
        note(LMI_E_NO_SPACE, "", "rebuilt the missing bitmap for the range at " + std::to_string(off));
      } else if (!linked) {
        note(LMI_E_NO_SPACE, "", "linked the bitmap at " + std::to_string(off) + " into the chain");
      }
      maps.push_back(off);
      imgs.push_back(std::move(m));
      claim(off, 1);
    }
    // A bitmap block that is also used by data cannot be rebuilt here.
    for (size_t k = 1; k < maps.size(); ++k) {
      uint8_t blk[kBlock];
      if (read_at(h, maps[k], blk, kBlock) == 0 && std::memcmp(blk, "FRE*", 4) &&
          std::memcmp(blk, "\0\0\0\0", 4)) {
        err_note(LMI_E_NO_SPACE, "the block for bitmap " + std::to_string(k) +
                                    " holds other data; salvage the library instead");
        return LMI_E_NO_SPACE;
      }
    }

    int32_t rc = directory();
    if (rc) return rc;
    rc = check_out_list();
    if (rc) return rc;
    // New bitmaps from the blocks in use.
    uint32_t leaked = 0, wronglyFree = 0;
    for (size_t k = 0; k < maps.size(); ++k) {
      std::vector<uint8_t> m(kBlock, 0);
      std::memcpy(m.data(), "FRE*", 4);
      wr32(m.data() + 4, k + 1 < maps.size() ? maps[k + 1] : 0);
      for (uint32_t j = 0; j < kBitsPerMap; ++j) {
        uint32_t i = uint32_t(k) * kBitsPerMap + j;
        bool use = i < nb && owner[i];
        bool was = imgs[k][8 + j / 8] & (0x80 >> (j % 8));
        if (use) m[8 + j / 8] |= uint8_t(0x80 >> (j % 8));
        if (was && !use && i < nb) ++leaked;
        if (use && !was) ++wronglyFree;
      }
      if (m == imgs[k]) continue;
      if (k == 0) std::memcpy(h->fixed + kBlock, m.data(), kBlock);
      rc = write_at(h, maps[k], m.data(), kBlock);
      if (rc) return rc;
    }
    if (leaked) note(ZBSHR_LIB_NOTE_LEAK, "", "freed " + std::to_string(leaked) + " leaked blocks");
    if (wronglyFree)
      note(LMI_E_DAMAGED, "", "marked in use " + std::to_string(wronglyFree) + " blocks that were marked free");
    return 0;
  }
};

int32_t repair(const char* path, const Sink& say) {
  if (!path || !*path) {
    err_note(LMI_E_ARGUMENT, "no library path was given");
    return LMI_E_ARGUMENT;
  }
  struct Heap {
    ZBSTG_HEAP h = zbstg_begin(0);
    ~Heap() { if (h) zbstg_end(h); }
  } heap;
  if (!heap.h) return LMI_E_NULL_HEAP;
  Library* h = open_library(heap.h, path, 2, 0);
  if (!h) return LMI_E_IO;
  Repairer r{h, say, {}, 0, 0};
  int32_t rc;
  {
    // One operation: a crash or failure leaves the library as it was.
    Op op(h);
    rc = op.began ? op.began : r.run();
    rc = op.end(rc);
  }
  int32_t c = close_library_always(h);
  if (rc == 0) rc = c;
  return rc ? rc : r.fixed;
}

}  // namespace

}  // namespace zbshr::lm

ZBSHR_API(int32_t) zbshr_lib_repair(const char* path, ZBSHR_LIB_PROBLEM cb, void* ctx) {
  using namespace zbshr::lm;
  err_begin();
  try {
    return err_end(repair(path, Sink{cb, ctx}));
  } catch (...) {
    return err_end(LMI_E_IO);
  }
}
