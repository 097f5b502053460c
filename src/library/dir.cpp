// Library files: the entry directory, a binary tree of directory nodes each
// holding a range of names (every name in a left subtree sorts below the
// node's names, every name in a right subtree above them).
#include <algorithm>
#include <string>

#include "library/lm.h"
#include "zbshr/memory.h"

namespace zbshr::lm {

uint8_t* root_img(Library* h) { return h->fixed + 1024; }
uint32_t root_off(Library* h) { return h->base + 1024; }

static bool valid_node(Library* h, const uint8_t* img) {
  if (std::memcmp(img, "NOD*", 4) != 0) return false;
  uint32_t freeb = rd16(img + node::kFree);
  if (freeb > h->entrySpace) return false;
  uint32_t end = kNodeHead + h->entrySpace - freeb;
  uint32_t count = 0, minOff = rd16(img + node::kMin), maxOff = rd16(img + node::kMax);
  bool minOk = false, maxOk = false;
  for (uint32_t p = kNodeHead; p < end;) {
    if (p + kRecHead > end || std::memcmp(img + p, "ENT*", 4) != 0) return false;
    uint32_t nl = rd16(img + p + rec::kNameLen);
    if (nl == 0 || p + kRecHead + nl > end) return false;
    const uint8_t* name = img + p + kRecHead;
    if (name[nl - 1] != 0 || std::memchr(name, 0, nl - 1)) return false;
    if (p + kRecHead == minOff) minOk = true;
    if (p + kRecHead == maxOff) maxOk = true;
    ++count;
    p += kRecHead + nl;
  }
  if (count != rd16(img + node::kCount)) return false;
  return count == 0 || (minOk && maxOk);
}

int32_t node_img(Library* h, uint32_t off, uint8_t** img) {
  if (off == root_off(h)) {
    *img = root_img(h);
    // The root stays in memory: it is checked once, and only this handle changes it.
    if (!h->rootChecked) {
      if (!valid_node(h, *img)) return LMI_E_DAMAGED;
      h->rootChecked = true;
    }
    return 0;
  }
  Library::Slot& slot = h->quick[(off >> 9) % Library::kQuick];
  if (slot.off == off) {
    *img = slot.img;
    return 0;
  }
  auto it = h->nodes.find(off);
  if (it != h->nodes.end()) {
    *img = it->second;
    slot = {off, it->second};
    return 0;
  }
  if (off < uint64_t(h->base) + h->fixedSize || (off - h->base) % kBlock ||
      uint64_t(off) + h->nodeSize > h->fsize)
    return LMI_E_DAMAGED;
  uint8_t* p = static_cast<uint8_t*>(zbstg_alloc(h->heap, h->nodeSize, 0));
  uint32_t got = 0;
  int32_t rc = read_at(h, off, p, h->nodeSize, &got);
  if (rc == 0 && (got != h->nodeSize || !valid_node(h, p))) rc = LMI_E_DAMAGED;
  if (rc) {
    zbstg_free(h->heap, p);
    return rc;
  }
  h->nodes.emplace(off, p);
  *img = p;
  return 0;
}

int32_t write_node(Library* h, uint32_t off, uint32_t from, uint32_t to) {
  uint8_t* img;
  if (off == root_off(h))
    img = root_img(h);
  else {
    auto it = h->nodes.find(off);
    if (it == h->nodes.end()) return LMI_E_DAMAGED;
    img = it->second;
  }
  // Only the bytes that changed need to go out: the rest on disk is the same.
  to = std::min(to, h->nodeSize);
  if (from >= to) return 0;
  return write_at(h, uint64_t(off) + from, img + from, to - from);
}

uint8_t* record_ptr(Library* h, uint32_t nodeOff, uint32_t recOff) {
  uint8_t* img;
  if (node_img(h, nodeOff, &img)) return nullptr;
  return img + recOff;
}

static const char* name_at(const uint8_t* img, uint32_t nameOff) {
  return reinterpret_cast<const char*>(img + nameOff);
}

// Compares a name with one node: kFound (record offset in *recOff), kAbsent,
// kRight or kLeft.
static int compare_node(Library* h, const uint8_t* img, const char* name, uint32_t* recOff) {
  uint32_t count = rd16(img + node::kCount);
  if (count == 0) return kAbsent;
  uint32_t mn = rd16(img + node::kMin), mx = rd16(img + node::kMax);
  int c = std::strcmp(name, name_at(img, mn));
  if (c == 0) {
    *recOff = mn - kRecHead;
    return kFound;
  }
  if (c < 0) return kLeft;
  c = std::strcmp(name, name_at(img, mx));
  if (c > 0) return kRight;
  if (c == 0) {
    *recOff = mx - kRecHead;
    return kFound;
  }
  uint32_t end = kNodeHead + h->entrySpace - rd16(img + node::kFree);
  for (uint32_t p = kNodeHead; p < end; p += kRecHead + rd16(img + p + rec::kNameLen))
    if (std::strcmp(name, name_at(img, p + kRecHead)) == 0) {
      *recOff = p;
      return kFound;
    }
  return kAbsent;
}

static int32_t search_from(Library* h, uint32_t off, uint32_t parent, const char* name, Search* s,
                           bool tolerant, uint32_t depth) {
  uint64_t limit = h->fsize / h->nodeSize + 2;
  for (;;) {
    if (++depth > limit) return LMI_E_DAMAGED;
    uint8_t* img;
    int32_t rc = node_img(h, off, &img);
    if (rc) return rc;
    s->parent = parent;
    uint32_t recOff = 0;
    int r = compare_node(h, img, name, &recOff);
    if (r == kFound) {
      s->result = kFound;
      s->node = off;
      s->rec = recOff;
      return kFound;
    }
    if (r == kAbsent) {
      s->result = kAbsent;
      s->node = off;
      if (tolerant) {
        for (uint32_t child : {rd32(img + node::kLeft), rd32(img + node::kRight)}) {
          if (!child) continue;
          Search t;
          rc = search_from(h, child, off, name, &t, true, depth);
          if (rc == kFound) {
            *s = t;
            return kFound;
          }
        }
      }
      return kAbsent;
    }
    uint32_t child = rd32(img + (r == kRight ? node::kRight : node::kLeft));
    if (!child) {
      s->result = r;
      s->node = off;
      return kAbsent;
    }
    parent = off;
    off = child;
  }
}

void drop_index(Library* h) {
  if (h->indexValid) {
    h->index.clear();
    h->indexValid = false;
  }
  h->lookups = 0;
}

// Once enough searches ran without a change to the directory, every name is
// indexed (with where its record lies) so that finding an existing entry no
// longer walks the tree; the tree stays the only thing on disk.
static void build_index(Library* h) {
  std::unordered_map<std::string, Library::Loc> idx;
  std::vector<std::pair<uint32_t, uint32_t>> stack{{root_off(h), 0}};
  uint64_t limit = h->fsize / h->nodeSize + 2, visited = 0;
  while (!stack.empty()) {
    auto [off, parent] = stack.back();
    stack.pop_back();
    uint8_t* img;
    if (++visited > limit || node_img(h, off, &img)) {
      h->lookups = 0;  // damaged: keep walking the tree
      return;
    }
    uint32_t end = kNodeHead + h->entrySpace - rd16(img + node::kFree);
    for (uint32_t p = kNodeHead; p < end; p += kRecHead + rd16(img + p + rec::kNameLen))
      idx.emplace(name_at(img, p + kRecHead), Library::Loc{off, p, parent});
    if (uint32_t r = rd32(img + node::kRight)) stack.push_back({r, off});
    if (uint32_t l = rd32(img + node::kLeft)) stack.push_back({l, off});
  }
  h->index = std::move(idx);
  h->indexValid = true;
}

int32_t find_entry(Library* h, const char* name, Search* s, bool tolerant) {
  *s = Search{};
  if (!tolerant) {
    if (!h->indexValid && ++h->lookups >= 64 + 8 * h->nodes.size()) build_index(h);
    if (h->indexValid) {
      auto it = h->index.find(name);
      if (it != h->index.end()) {
        s->result = kFound;
        s->node = it->second.node;
        s->rec = it->second.rec;
        s->parent = it->second.parent;
        return kFound;
      }
    }
  }
  return search_from(h, root_off(h), 0, name, s, tolerant, 0);
}

// ---- node editing

static void recompute_min_max(Library* h, uint8_t* img) {
  uint32_t end = kNodeHead + h->entrySpace - rd16(img + node::kFree);
  uint32_t mn = 0, mx = 0;
  for (uint32_t p = kNodeHead; p < end; p += kRecHead + rd16(img + p + rec::kNameLen)) {
    uint32_t n = p + kRecHead;
    if (!mn || std::strcmp(name_at(img, n), name_at(img, mn)) < 0) mn = n;
    if (!mx || std::strcmp(name_at(img, n), name_at(img, mx)) > 0) mx = n;
  }
  wr16(img + node::kMin, uint16_t(mn));
  wr16(img + node::kMax, uint16_t(mx));
}

// Appends a record; returns its offset in the node.
static uint32_t append_record(Library* h, uint8_t* img, const uint8_t* recb, uint32_t len) {
  drop_index(h);
  uint32_t freeb = rd16(img + node::kFree);
  uint32_t at = kNodeHead + h->entrySpace - freeb;
  std::memcpy(img + at, recb, len);
  uint32_t count = rd16(img + node::kCount);
  wr16(img + node::kCount, uint16_t(count + 1));
  wr16(img + node::kFree, uint16_t(freeb - len));
  uint32_t n = at + kRecHead;
  if (count == 0) {
    wr16(img + node::kMin, uint16_t(n));
    wr16(img + node::kMax, uint16_t(n));
  } else {
    if (std::strcmp(name_at(img, n), name_at(img, rd16(img + node::kMin))) < 0)
      wr16(img + node::kMin, uint16_t(n));
    if (std::strcmp(name_at(img, n), name_at(img, rd16(img + node::kMax))) > 0)
      wr16(img + node::kMax, uint16_t(n));
  }
  return at;
}

static uint32_t rec_size(const uint8_t* img, uint32_t recOff) {
  return kRecHead + rd16(img + recOff + rec::kNameLen);
}

static void remove_record_at(Library* h, uint8_t* img, uint32_t recOff) {
  drop_index(h);
  uint32_t len = rec_size(img, recOff);
  uint32_t freeb = rd16(img + node::kFree);
  uint32_t end = kNodeHead + h->entrySpace - freeb;
  std::memmove(img + recOff, img + recOff + len, end - recOff - len);
  std::memset(img + end - len, 0, len);
  wr16(img + node::kCount, uint16_t(rd16(img + node::kCount) - 1));
  wr16(img + node::kFree, uint16_t(freeb + len));
  recompute_min_max(h, img);
}

static int32_t new_node(Library* h, uint32_t parent, uint32_t* off) {
  drop_index(h);
  uint32_t nb = h->nodeSize / kBlock;
  uint32_t offs[6];
  int32_t rc = alloc_blocks(h, nb, true, false, offs);
  if (rc) return rc;
  for (uint32_t t = 1; t < nb; ++t)
    if (offs[t] != offs[0] + t * kBlock) return LMI_E_DAMAGED;
  uint8_t* img = static_cast<uint8_t*>(zbstg_alloc(h->heap, h->nodeSize, 0));
  std::memset(img, 0, h->nodeSize);
  std::memcpy(img, "NOD*", 4);
  wr32(img + node::kParent, parent);
  wr16(img + node::kFree, uint16_t(h->entrySpace));
  h->nodes[offs[0]] = img;
  *off = offs[0];
  return write_node(h, offs[0]);
}

static int32_t free_node(Library* h, uint32_t off) {
  drop_index(h);
  uint32_t nb = h->nodeSize / kBlock;
  uint32_t offs[6];
  for (uint32_t t = 0; t < nb; ++t) offs[t] = off + t * kBlock;
  int32_t rc = mark_blocks(h, nb, offs, false);
  if (rc) return rc;
  auto it = h->nodes.find(off);
  if (it != h->nodes.end()) {
    zbstg_free(h->heap, it->second);
    h->nodes.erase(it);
  }
  Library::Slot& slot = h->quick[(off >> 9) % Library::kQuick];
  if (slot.off == off) slot = {0, nullptr};
  return 0;
}

static int32_t set_parent(Library* h, uint32_t child, uint32_t parent) {
  if (!child) return 0;
  uint8_t* img;
  int32_t rc = node_img(h, child, &img);
  if (rc) return rc;
  wr32(img + node::kParent, parent);
  return write_node(h, child);
}

// Moves one record from `from` into `to` (which has room).
static void move_record(Library* h, uint8_t* from, uint32_t recOff, uint8_t* to) {
  uint8_t tmp[3072];
  uint32_t len = rec_size(from, recOff);
  std::memcpy(tmp, from + recOff, len);
  remove_record_at(h, from, recOff);
  append_record(h, to, tmp, len);
}

static uint32_t smallest_rec(const uint8_t* img) { return rd16(img + node::kMin) - kRecHead; }
static uint32_t greatest_rec(const uint8_t* img) { return rd16(img + node::kMax) - kRecHead; }

// Moves records of `img` into the node `dst`, smallest first (or greatest
// first), while the node lacks room, the record fits and does not cross `name`.
static void move_run(Library* h, uint8_t* img, uint8_t* dst, const char* name, uint32_t need,
                     bool smallestFirst) {
  while (rd16(img + node::kFree) < need && rd16(img + node::kCount) > 0) {
    uint32_t r = smallestFirst ? smallest_rec(img) : greatest_rec(img);
    int c = std::strcmp(name_at(img, r + kRecHead), name);
    if (smallestFirst ? c > 0 : c < 0) break;
    if (rd16(dst + node::kFree) < rec_size(img, r)) break;
    move_record(h, img, r, dst);
  }
}

// Makes room for a record of `need` bytes in a full node whose range holds the name.
static int32_t make_room(Library* h, uint32_t off, uint32_t parent, const char* name,
                         uint32_t need) {
  uint8_t* img;
  int32_t rc = node_img(h, off, &img);
  if (rc) return rc;
  auto free_of = [](const uint8_t* p) { return uint32_t(rd16(p + node::kFree)); };
  auto try_one = [&](uint32_t dstOff, bool smallest) -> int32_t {
    uint8_t* dst;
    int32_t e = node_img(h, dstOff, &dst);
    if (e) return e;
    uint32_t r = smallest ? smallest_rec(img) : greatest_rec(img);
    uint32_t len = rec_size(img, r);
    if (free_of(dst) < len || free_of(img) + len < need) return 0;
    move_record(h, img, r, dst);
    e = write_node(h, dstOff);
    return e ? e : 1;
  };
  // (a) up into the parent
  if (parent) {
    uint8_t* pimg;
    rc = node_img(h, parent, &pimg);
    if (rc) return rc;
    if (rd32(pimg + node::kRight) == off && !rd32(img + node::kLeft))
      rc = try_one(parent, true);
    else if (rd32(pimg + node::kLeft) == off && !rd32(img + node::kRight))
      rc = try_one(parent, false);
    if (rc < 0) return rc;
    if (rc == 1) return write_node(h, off);
  }
  // (b) into a left child that has no right child
  if (uint32_t l = rd32(img + node::kLeft)) {
    uint8_t* limg;
    rc = node_img(h, l, &limg);
    if (rc) return rc;
    if (!rd32(limg + node::kRight)) {
      rc = try_one(l, true);
      if (rc < 0) return rc;
      if (rc == 1) return write_node(h, off);
    }
  }
  // (c) into a right child that has no left child
  if (uint32_t r = rd32(img + node::kRight)) {
    uint8_t* rimg;
    rc = node_img(h, r, &rimg);
    if (rc) return rc;
    if (!rd32(rimg + node::kLeft)) {
      rc = try_one(r, false);
      if (rc < 0) return rc;
      if (rc == 1) return write_node(h, off);
    }
  }
  // (d) a new left child, (e) a new right child, (f) a new node between the
  // node and its left subtree, then the same on the right.
  bool made[2] = {false, false};
  for (int step = 0; step < 4 && free_of(img) < need; ++step) {
    bool left = step == 0 || step == 2;
    bool between = step >= 2;
    uint32_t side = left ? node::kLeft : node::kRight;
    uint32_t old = rd32(img + side);
    if (!between && old) continue;
    if (between && made[left ? 0 : 1]) continue;
    if (!rd16(img + node::kCount)) break;
    {
      uint32_t r0 = left ? smallest_rec(img) : greatest_rec(img);
      int c = std::strcmp(name_at(img, r0 + kRecHead), name);
      if (left ? c > 0 : c < 0) continue;  // nothing on this side can move
    }
    if (!between) made[left ? 0 : 1] = true;
    uint32_t n;
    rc = new_node(h, off, &n);
    if (rc) return rc;
    uint8_t* nimg = h->nodes[n];
    // new_node may have read other nodes; re-fetch our own image pointer
    rc = node_img(h, off, &img);
    if (rc) return rc;
    if (between && old) {
      wr32(nimg + side, old);
      rc = set_parent(h, old, n);
      if (rc) return rc;
    }
    wr32(img + side, n);
    move_run(h, img, nimg, name, need, left);
    rc = write_node(h, n);
    if (rc) return rc;
  }
  rc = write_node(h, off);
  if (rc) return rc;
  return free_of(img) >= need ? 0 : LMI_E_ARGUMENT;
}

int32_t insert_entry(Library* h, const char* name, Search* s) {
  uint32_t nl = uint32_t(std::strlen(name)) + 1;
  uint32_t need = kRecHead + nl;
  if (need > h->entrySpace) return LMI_E_ARGUMENT;
  uint8_t recb[3072] = {};
  std::memcpy(recb, "ENT*", 4);
  std::memcpy(recb + rec::kVersion, "0500", 4);
  wr32(recb + rec::kTime, uint32_t(now32()));
  wr16(recb + rec::kNameLen, uint16_t(nl));
  std::memcpy(recb + kRecHead, name, nl);

  uint32_t off = s->node;
  uint8_t* img;
  int32_t rc = node_img(h, off, &img);
  if (rc) return rc;
  if (rd16(img + node::kFree) < need) {
    if (s->result == kRight || s->result == kLeft) {
      uint32_t n;
      rc = new_node(h, off, &n);
      if (rc) return rc;
      rc = node_img(h, off, &img);
      if (rc) return rc;
      wr32(img + (s->result == kRight ? node::kRight : node::kLeft), n);
      rc = write_node(h, off);
      if (rc) return rc;
      off = n;
    } else {
      uint32_t parent = s->parent;
      rc = make_room(h, off, parent, name, need);
      if (rc) return rc;
    }
    rc = node_img(h, off, &img);
    if (rc) return rc;
  }
  uint32_t at = append_record(h, img, recb, need);
  rc = write_node(h, off, node::kFree, at + need);
  if (rc) return rc;
  s->result = kFound;
  s->node = off;
  s->rec = at;
  return 0;
}

// A node left empty by a removal is taken out of the tree (never the root's
// position: the root takes over its only child instead).
static int32_t drop_empty_node(Library* h, uint32_t off, uint32_t parent) {
  drop_index(h);
  uint8_t* img;
  int32_t rc = node_img(h, off, &img);
  if (rc) return rc;
  uint32_t l = rd32(img + node::kLeft), r = rd32(img + node::kRight);
  if (l && r) {
    // Hang the right subtree on the right side of the left subtree.
    uint32_t rm = l;
    uint64_t limit = h->fsize / h->nodeSize + 2, steps = 0;
    for (;;) {
      if (++steps > limit) return LMI_E_DAMAGED;
      uint8_t* m;
      rc = node_img(h, rm, &m);
      if (rc) return rc;
      uint32_t next = rd32(m + node::kRight);
      if (!next) break;
      rm = next;
    }
    uint8_t* m;
    rc = node_img(h, rm, &m);
    if (rc) return rc;
    wr32(m + node::kRight, r);
    rc = write_node(h, rm);
    if (rc) return rc;
    rc = set_parent(h, r, rm);
    if (rc) return rc;
    rc = node_img(h, off, &img);
    if (rc) return rc;
    wr32(img + node::kRight, 0);
    r = 0;
  }
  uint32_t child = l ? l : r;
  if (off != root_off(h)) {
    uint8_t* pimg;
    rc = node_img(h, parent, &pimg);
    if (rc) return rc;
    if (rd32(pimg + node::kLeft) == off) wr32(pimg + node::kLeft, child);
    if (rd32(pimg + node::kRight) == off) wr32(pimg + node::kRight, child);
    rc = write_node(h, parent);
    if (rc) return rc;
    rc = set_parent(h, child, parent);
    if (rc) return rc;
    return free_node(h, off);
  }
  if (!child) return write_node(h, off);
  uint8_t* cimg;
  rc = node_img(h, child, &cimg);
  if (rc) return rc;
  std::memcpy(root_img(h), cimg, h->nodeSize);
  wr32(root_img(h) + node::kParent, 0);
  rc = free_node(h, child);
  if (rc) return rc;
  rc = write_node(h, off);
  if (rc) return rc;
  rc = set_parent(h, rd32(root_img(h) + node::kLeft), off);
  if (rc) return rc;
  return set_parent(h, rd32(root_img(h) + node::kRight), off);
}

int32_t remove_entry(Library* h, const char* name, bool removeRecord) {
  Search s;
  int32_t rc = find_entry(h, name, &s);
  if (rc < 0) return rc;
  if (rc != kFound) return LMI_E_NOT_FOUND;
  uint8_t* img;
  rc = node_img(h, s.node, &img);
  if (rc) return rc;
  uint8_t* r = img + s.rec;
  rc = free_chain(h, rd32(r + rec::kLength), rd32(r + rec::kFirst));
  if (rc) return rc;
  if (!removeRecord) {
    wr32(r + rec::kFirst, 0);
    return write_node(h, s.node);
  }
  uint32_t oldEnd = kNodeHead + h->entrySpace - rd16(img + node::kFree);
  remove_record_at(h, img, s.rec);
  if (rd16(img + node::kCount) > 0) return write_node(h, s.node, node::kFree, oldEnd);
  uint32_t parent = s.parent;
  return drop_empty_node(h, s.node, parent);
}

}  // namespace zbshr::lm
