// Library files: the free-space bitmaps and the data chains of the entries.
// Every offset, length and chain read from the file is checked against the
// file before it is used.
#include <algorithm>

#include "library/recovery.h"

namespace zbshr::lm {

using namespace zbshr::plat;

// ------------------------------------------------------------------ bitmaps

int32_t load_maps(Library* h) {
  if (h->mapsLoaded) return 0;
  if (std::memcmp(h->fixed + kBlock, "FRE*", 4) != 0) return LMI_E_DAMAGED;
  uint64_t limit = (h->fsize - h->base) / kMapRange + 2;
  uint32_t next = rd32(h->fixed + kBlock + 4);
  while (next) {
    if (h->maps.size() >= limit) return LMI_E_DAMAGED;
    if (next < h->base + h->fixedSize || (next - h->base) % kBlock || next + uint64_t(kBlock) > h->fsize)
      return LMI_E_DAMAGED;
    for (auto& m : h->maps)
      if (m.off == next) return LMI_E_DAMAGED;
    uint8_t* img = static_cast<uint8_t*>(halloc(h, kBlock));
    int32_t rc = read_at(h, next, img, kBlock);
    if (rc == 0 && std::memcmp(img, "FRE*", 4) != 0) rc = LMI_E_DAMAGED;
    if (rc) {
      hfree(h, img);
      return rc;
    }
    h->maps.push_back({next, img, false});
    next = rd32(img + 4);
  }
  h->mapsLoaded = true;
  return 0;
}

int32_t flush_maps(Library* h) {
  for (auto& m : h->maps) {
    if (!m.dirty) continue;
    int32_t rc = write_at(h, m.off, m.img, kBlock);
    if (rc) return rc;
    m.dirty = false;
  }
  return 0;
}

static inline bool bit_at(const Library* h, uint32_t i) {
  const uint8_t* img = h->maps[i / kBitsPerMap].img;
  uint32_t j = i % kBitsPerMap;
  return img[8 + j / 8] & (0x80 >> (j % 8));
}

int32_t mark_blocks(Library* h, uint32_t count, uint32_t* offs, bool allocating) {
  int32_t rc = load_maps(h);
  if (rc) return rc;
  for (uint32_t j = 0; j < count; ++j) {
    if (offs[j] < h->base + h->fixedSize || (offs[j] - h->base) % kBlock) return LMI_E_DAMAGED;
    uint32_t i = (offs[j] - h->base) / kBlock;
    if (i / kBitsPerMap < h->maps.size()) {
      if (bit_at(h, i) == allocating) return LMI_E_DAMAGED;
    } else if (!allocating) {
      return LMI_E_DAMAGED;
    }
  }
  for (uint32_t j = 0; j < count;) {
    uint32_t i = (offs[j] - h->base) / kBlock;
    uint32_t k = i / kBitsPerMap;
    if (k >= h->maps.size()) {
      // The blocks are being appended past the last bitmap's range: a new
      // bitmap takes the first block of its range and the request moves up.
      if (k != h->maps.size() || i % kBitsPerMap) return LMI_E_NO_SPACE;
      uint8_t* img = static_cast<uint8_t*>(halloc(h, kBlock));
      std::memset(img, 0, kBlock);
      std::memcpy(img, "FRE*", 4);
      img[8] = 0x80;
      Bitmap& last = h->maps.back();
      wr32(last.img + 4, offs[j]);
      last.dirty = true;
      rc = write_at(h, offs[j], img, kBlock);
      if (rc) {
        wr32(last.img + 4, 0);
        hfree(h, img);
        return rc;
      }
      h->maps.push_back({offs[j], img, false});
      for (uint32_t t = j; t + 1 < count; ++t) offs[t] = offs[t + 1];
      offs[count - 1] += kBlock;
      continue;
    }
    uint32_t b = i % kBitsPerMap;
    Bitmap& m = h->maps[k];
    m.img[8 + b / 8] ^= uint8_t(0x80 >> (b % 8));
    m.dirty = true;
    if (!allocating && i < h->freeHint) h->freeHint = i;
    ++j;
  }
  return 0;
}

int32_t alloc_blocks(Library* h, uint32_t n, bool contiguous, bool mayRetryScattered,
                     uint32_t* out) {
  int32_t rc = load_maps(h);
  if (rc) return rc;
  uint32_t nb = uint32_t((h->fsize - h->base) / kBlock);
  uint64_t covered64 = uint64_t(h->maps.size()) * kBitsPerMap;
  uint32_t covered = uint32_t(std::min<uint64_t>(nb, covered64));
  if (!h->appending) {
    uint32_t found = 0;
    uint64_t totalFree = 0;
    bool sawFree = false;
    uint32_t firstFree = covered;
    uint32_t i = std::min(h->freeHint, covered);
    while (i < covered) {
      uint32_t j = i % kBitsPerMap;
      const uint8_t* img = h->maps[i / kBitsPerMap].img;
      if (j % 8 == 0 && i + 8 <= covered && img[8 + j / 8] == 0xFF &&
          (j + 8) <= kBitsPerMap) {
        if (contiguous) found = 0;
        i += 8;
        continue;
      }
      if (!(img[8 + j / 8] & (0x80 >> (j % 8)))) {
        if (!sawFree) {
          sawFree = true;
          firstFree = i;
        }
        ++totalFree;
        out[found++] = h->base + i * kBlock;
        if (found == n) break;
      } else if (contiguous) {
        found = 0;
      }
      ++i;
    }
    h->freeHint = firstFree;
    if (found == n) return mark_blocks(h, n, out, true);
    if (contiguous && mayRetryScattered && totalFree >= n)
      return alloc_blocks(h, n, false, false, out);
  }
  // Take every block at the end of the file.
  if (covered64 < nb) return LMI_E_NO_SPACE;
  uint32_t start = nb;
  uint32_t r = uint32_t(h->maps.size()) * kBitsPerMap;  // first block needing a new bitmap
  if (contiguous && nb < r && r < uint64_t(nb) + n) start = r;  // keep a node in one piece
  uint64_t end = uint64_t(h->base) + uint64_t(kBlock) * (uint64_t(start) + n + 1);
  if (end > kMaxOffset) err_note(LMI_E_DISK_FULL, "the library would grow past the 2 GiB limit of its format");
  if (end > kMaxOffset) return LMI_E_DISK_FULL;
  for (uint32_t t = 0; t < n; ++t) out[t] = h->base + (start + t) * kBlock;
  h->appending = true;
  return mark_blocks(h, n, out, true);
}

int32_t release_tail(Library* h) {
  int32_t rc = load_maps(h);
  if (rc) return rc;
  auto only_own = [](const uint8_t* img) {
    if (img[8] != 0x80) return false;
    for (uint32_t b = 9; b < kBlock; ++b)
      if (img[b]) return false;
    return true;
  };
  while (h->maps.size() > 1 && only_own(h->maps.back().img)) {
    hfree(h, h->maps.back().img);
    h->maps.pop_back();
    wr32(h->maps.back().img + 4, 0);
    h->maps.back().dirty = true;
  }
  size_t k = h->maps.size() - 1;
  const uint8_t* img = h->maps[k].img;
  int32_t high = -1;
  for (int32_t b = kBlock - 1; b >= 8 && high < 0; --b)
    if (img[b])
      for (int bit = 0; bit <= 7; ++bit)
        if (img[b] & (1 << bit)) {
          high = (b - 8) * 8 + (7 - bit);
          break;
        }
  uint64_t end = uint64_t(h->base) + uint64_t(k) * kMapRange + uint64_t(high + 1) * kBlock;
  if (end < uint64_t(h->base) + h->fixedSize) end = uint64_t(h->base) + h->fixedSize;
  rc = flush_maps(h);
  if (rc) return rc;
  if (h->fsize > end) {
    rc = truncate_at(h, end);
    if (rc) return rc;
  }
  uint32_t nb = uint32_t((h->fsize - h->base) / kBlock);
  if (h->freeHint > nb) h->freeHint = nb;
  h->freed = false;
  return 0;
}

// ------------------------------------------------------------------ data chains

bool valid_data_offset(Library* h, uint32_t off) {
  return off >= uint64_t(h->base) + h->fixedSize && (off - h->base) % kBlock == 0 &&
         uint64_t(off) + kBlock <= h->fsize;
}

static uint32_t chain_blocks(uint32_t length) { return (length + kPayload - 1) / kPayload; }

// Collects the offsets of a chain's blocks, reading through a buffer so that
// adjacent blocks cost one read.
static int32_t chain_offsets(Library* h, uint32_t first, uint32_t length,
                             std::vector<uint32_t>* offs) {
  uint32_t n = chain_blocks(length);
  if (uint64_t(n) * kBlock > h->fsize) return LMI_E_DAMAGED;
  offs->clear();
  offs->reserve(n);
  std::vector<uint8_t> buf(std::min<uint32_t>(65024, std::max<uint32_t>(h->dblocks, 1) * kBlock));
  uint32_t bufOff = 0, bufLen = 0;
  uint32_t cur = first;
  for (uint32_t t = 0; t < n; ++t) {
    if (!valid_data_offset(h, cur)) return LMI_E_DAMAGED;
    if (!(bufLen && cur >= bufOff && cur + kBlock <= uint64_t(bufOff) + bufLen)) {
      uint32_t want = uint32_t(std::min<uint64_t>(buf.size(), h->fsize - cur));
      want -= want % kBlock;
      uint32_t got = 0;
      int32_t rc = read_at(h, cur, buf.data(), want, &got);
      if (rc) return rc;
      if (got < kBlock) return LMI_E_DAMAGED;
      bufOff = cur;
      bufLen = got - got % kBlock;
    }
    const uint8_t* blk = buf.data() + (cur - bufOff);
    if (std::memcmp(blk, "DAT*", 4) != 0) return LMI_E_DAMAGED;
    offs->push_back(cur);
    cur = rd32(blk + 4);
  }
  std::vector<uint32_t> sorted(*offs);
  std::sort(sorted.begin(), sorted.end());
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return LMI_E_DAMAGED;
  return 0;
}

int32_t free_chain(Library* h, uint32_t length, uint32_t first) {
  if (length == 0 || first == 0) return 0;
  std::vector<uint32_t> offs;
  int32_t rc = chain_offsets(h, first, length, &offs);
  if (rc) return rc;
  rc = mark_blocks(h, uint32_t(offs.size()), offs.data(), false);
  if (rc) return rc;
  h->freed = true;
  return 0;
}

void reader_start(Library* /*h*/, ChainReader* r, uint32_t first, uint32_t length, uint8_t* buf,
                  uint32_t bufSize) {
  *r = ChainReader{};
  r->next = first;
  r->left = length;
  r->blocksLeft = chain_blocks(length);
  r->buf = buf;
  r->bufSize = std::min<uint32_t>(bufSize, 65535);
  r->bufSize -= r->bufSize % kBlock;
}

int32_t reader_read(Library* h, ChainReader* r, void* outv, uint32_t n) {
  uint8_t* out = static_cast<uint8_t*>(outv);
  uint32_t copied = 0;
  while (copied < n && r->left > 0) {
    if (!r->inHand || r->unread == 0) {
      uint32_t nxt = r->inHand ? rd32(r->buf + r->cur + 4) : r->next;
      if (nxt == 0 || r->blocksLeft == 0 || !valid_data_offset(h, nxt)) return LMI_E_DAMAGED;
      if (r->bufLen && nxt >= r->bufOff && uint64_t(nxt) + kBlock <= uint64_t(r->bufOff) + r->bufLen) {
        r->cur = nxt - r->bufOff;
      } else {
        uint32_t want = uint32_t(std::min<uint64_t>(r->bufSize, h->fsize - nxt));
        want -= want % kBlock;
        uint32_t got = 0;
        int32_t rc = read_at(h, nxt, r->buf, want, &got);
        if (rc) return rc;
        if (got < kBlock) return LMI_E_DAMAGED;
        r->bufOff = nxt;
        r->bufLen = got - got % kBlock;
        r->cur = 0;
      }
      const uint8_t* blk = r->buf + r->cur;
      uint16_t used = rd16(blk + 8);
      if (std::memcmp(blk, "DAT*", 4) != 0 || used == 0 || used > kPayload) return LMI_E_DAMAGED;
      r->inHand = true;
      r->unread = std::min<uint32_t>(used, r->left);
      r->pos = 0;
      r->blocksLeft--;
      // The last block of a chain ends it; anything else is a cycle or damage.
      if (r->blocksLeft == 0 && (rd32(blk + 4) != 0 || used < r->left)) return LMI_E_DAMAGED;
    }
    uint32_t take = std::min(r->unread, n - copied);
    std::memcpy(out + copied, r->buf + r->cur + 10 + r->pos, take);
    r->pos += take;
    r->unread -= take;
    r->left -= take;
    copied += take;
  }
  return int32_t(copied);
}

int32_t read_chain(Library* h, uint32_t first, uint32_t length, std::vector<uint8_t>* out) {
  if (length > h->fsize) return LMI_E_DAMAGED;
  out->assign(length, 0);
  std::vector<uint8_t> buf(16384);
  ChainReader r;
  reader_start(h, &r, first, length, buf.data(), uint32_t(buf.size()));
  uint32_t got = 0;
  while (got < length) {
    int32_t n = reader_read(h, &r, out->data() + got, length - got);
    if (n < 0) return n;
    if (n == 0) return LMI_E_DAMAGED;
    got += uint32_t(n);
  }
  return 0;
}

void writer_start(Library* h) {
  h->wWaiting = 0;
  h->wFree = 0;
  h->keptOff = 0;
  h->wFirst = 0;
  h->wLength = 0;
}

int32_t flush_data(Library* h) {
  uint32_t n = h->wWaiting;
  if (n == 0) return 0;
  int32_t rc = alloc_blocks(h, n, false, false, h->dtab);
  if (rc) return rc;
  for (uint32_t t = 0; t < n; ++t)
    if (h->dtab[t] < uint64_t(h->base) + h->fixedSize) return LMI_E_DAMAGED;
  for (uint32_t t = 0; t < n; ++t)
    wr32(h->dbuf + t * kBlock + 4, t + 1 < n ? h->dtab[t + 1] : 0);
  if (h->keptOff) {
    wr32(h->kept + 4, h->dtab[0]);
    rc = write_at(h, h->keptOff, h->kept, kBlock);
    if (rc) return rc;
  }
  for (uint32_t t = 0; t < n;) {
    uint32_t s = t;
    while (t + 1 < n && h->dtab[t + 1] == h->dtab[t] + kBlock && (t + 2 - s) * kBlock <= 65535) ++t;
    rc = write_at(h, h->dtab[s], h->dbuf + s * kBlock, (t - s + 1) * kBlock);
    if (rc) return rc;
    ++t;
  }
  std::memcpy(h->kept, h->dbuf + (n - 1) * kBlock, kBlock);
  h->keptOff = h->dtab[n - 1];
  if (!h->wFirst) h->wFirst = h->dtab[0];
  h->wWaiting = 0;
  h->wFree = 0;
  return 0;
}

int32_t append_data(Library* h, const void* bytesv, uint32_t count) {
  const uint8_t* bytes = static_cast<const uint8_t*>(bytesv);
  if (uint64_t(h->wLength) + count > kMaxOffset) err_note(LMI_E_DISK_FULL, "the entry would pass the 2 GiB limit of the format");
  if (uint64_t(h->wLength) + count > kMaxOffset) return LMI_E_DISK_FULL;
  while (count > 0) {
    if (h->wWaiting > 0 && h->wFree > 0) {
      uint8_t* blk = h->dbuf + (h->wWaiting - 1) * kBlock;
      uint16_t used = rd16(blk + 8);
      uint32_t take = std::min(h->wFree, count);
      std::memcpy(blk + 10 + used, bytes, take);
      wr16(blk + 8, uint16_t(used + take));
      h->wFree -= take;
      h->wLength += take;
      bytes += take;
      count -= take;
      continue;
    }
    if (h->wWaiting == h->dblocks) {
      int32_t rc = flush_data(h);
      if (rc) return rc;
    }
    uint8_t* blk = h->dbuf + h->wWaiting * kBlock;
    std::memset(blk, 0, kBlock);
    std::memcpy(blk, "DAT*", 4);
    h->wWaiting++;
    h->wFree = kPayload;
  }
  return 0;
}

int32_t write_chain(Library* h, const void* bytes, uint32_t count, uint32_t* first) {
  writer_start(h);
  int32_t rc = append_data(h, bytes, count);
  if (rc == 0) rc = flush_data(h);
  if (rc) return rc;
  *first = h->wFirst;
  return 0;
}

}  // namespace zbshr::lm
