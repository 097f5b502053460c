// Library files: block I/O, opening and closing, free-space bitmaps, data
// chains. Every offset, length and chain read from the file is checked
// against the file before it is used.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <new>
#include <thread>

#include "library/recovery.h"
#include "zbshr/memory.h"

namespace zbshr::lm {

using namespace zbshr::plat;

// ------------------------------------------------------------------ utilities

void lower_in_place(char* s) {
  if (!s) return;
  for (; *s; ++s) {
    uint8_t c = uint8_t(*s);
    if (IsDBCSLeadByte(c) && s[1]) {
      ++s;  // the trail byte of a double-byte character stays as it is
      continue;
    }
    if (c >= 'A' && c <= 'Z') *s = char(c + 32);
  }
}

std::string full_path(const char* path) {
  if (!path || !*path) return {};
  char buf[1024];
  DWORD n = GetFullPathNameA(path, sizeof buf, buf, nullptr);
  if (n == 0 || n >= sizeof buf) return {};
  lower_in_place(buf);
  return std::string(buf, n);
}

static std::string extension_of(const std::string& p) {
  size_t slash = p.find_last_of("/\\");
  size_t dot = p.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
  std::string e = p.substr(dot);
  for (auto& c : e)
    if (c >= 'A' && c <= 'Z') c = char(c + 32);
  return e;
}

bool is_executable_or_library(const std::string& path) {
  std::string e = extension_of(path);
  return e == ".exe" || e == ".dll";
}
bool is_executable(const std::string& path) { return extension_of(path) == ".exe"; }

int32_t now32() { return int32_t(uint32_t(std::time(nullptr))); }

static int g_writeThrough = -1;
bool write_through_setting() {
  if (g_writeThrough < 0) {
    const char* e = std::getenv("ZBSHR_LIB_WRITE_THROUGH");
    g_writeThrough = (e && e[0] == '0' && e[1] == 0) ? 0 : 1;
  }
  return g_writeThrough != 0;
}
void set_write_through(bool on) { g_writeThrough = on ? 1 : 0; }

// ------------------------------------------------------------------ block I/O

int disk_dialog(UINT textId, const char* fallback) {
  char title[128], text[256];
  if (LoadStringA(module_instance(), 300, title, sizeof title) <= 0)
    std::strcpy(title, "Library Manager");
  if (LoadStringA(module_instance(), textId, text, sizeof text) <= 0) std::strcpy(text, fallback);
  MessageBeep(MB_ICONSTOP);
  return MessageBoxA(GetActiveWindow(), text, title, MB_RETRYCANCEL | MB_ICONSTOP);
}

static int32_t read_now(Library* h, uint64_t off, void* buf, uint32_t n, uint32_t* got) {
  for (;;) {
    DWORD r = 0;
    if ((h->pos == int64_t(off) || SetFilePointerEx(h->file, int64_t(off), nullptr, FILE_BEGIN)) &&
        ReadFile(h->file, buf, n, &r)) {
      h->pos = int64_t(off + r);
      *got = r;
      return 0;
    }
    h->pos = -1;
    err_note_system(LMI_E_IO, "read", h->path);
    if (disk_dialog(301, "Fatal disk error. Retry?") != IDRETRY) return LMI_E_IO;
  }
}

int32_t read_disk(Library* h, uint64_t off, void* buf, uint32_t n, uint32_t* got) {
  return read_now(h, off, buf, n, got);
}

int32_t read_at(Library* h, uint64_t off, void* buf, uint32_t n, uint32_t* got) {
  uint32_t r = 0;
  if (h->pending.empty() && h->fsize == h->diskSize) {
    int32_t rc = read_now(h, off, buf, n, &r);
    if (rc) return rc;
  } else {
    // Writes held back in memory are laid over what the disk holds; only
    // the gaps between them are read from the disk.
    uint32_t avail = off >= h->fsize ? 0 : uint32_t(std::min<uint64_t>(n, h->fsize - off));
    uint8_t* out = static_cast<uint8_t*>(buf);
    uint64_t at = off, end = off + avail;
    auto it = h->pending.upper_bound(off);
    if (it != h->pending.begin() && std::prev(it)->first + std::prev(it)->second.size() > off) --it;
    while (at < end) {
      uint64_t gapEnd = it != h->pending.end() ? std::min<uint64_t>(it->first, end) : end;
      if (at < gapEnd) {  // not held back: the disk (zeros past its end)
        uint32_t want = uint32_t(gapEnd - at), disk = 0;
        if (at < h->diskSize) disk = uint32_t(std::min<uint64_t>(want, h->diskSize - at));
        uint32_t rn = 0;
        if (disk) {
          int32_t rc = read_now(h, at, out + (at - off), disk, &rn);
          if (rc) return rc;
        }
        if (rn < want) std::memset(out + (at - off) + rn, 0, want - rn);
        at = gapEnd;
        continue;
      }
      uint64_t b = std::min<uint64_t>(it->first + it->second.size(), end);
      std::memcpy(out + (at - off), it->second.data() + (at - it->first), size_t(b - at));
      at = b;
      ++it;
    }
    r = avail;
  }
  if (got) {
    *got = r;
    return 0;
  }
  return r == n ? 0 : LMI_E_DAMAGED;
}

static int32_t write_now(Library* h, uint64_t off, const void* buf, uint32_t n) {
  for (;;) {
    DWORD put = 0;
    bool at = h->pos == int64_t(off) || SetFilePointerEx(h->file, int64_t(off), nullptr, FILE_BEGIN);
    h->pos = -1;
    if (io_hook) {
      int64_t k = io_hook('w', false, off, n);
      if (k >= 0 && k < int64_t(n)) {  // a torn write (tests): part goes out, then it fails
        if (at && k) WriteFile(h->file, buf, DWORD(k), &put);
        io_hook('e', false, off, uint32_t(k));
        return LMI_E_IO;
      }
    }
    if (!at || !WriteFile(h->file, buf, n, &put)) {
      err_note_system(LMI_E_IO, "write", h->path);
      if (disk_dialog(301, "Fatal disk error. Retry?") != IDRETRY) return LMI_E_IO;
      continue;
    }
    if (put < n) {
      if (disk_dialog(302, "The disk is full. Retry?") != IDRETRY) {
        if (off + put > h->diskSize) h->diskSize = off + put;
        if (h->diskSize > h->fsize) h->fsize = h->diskSize;
        return LMI_E_DISK_FULL;
      }
      // Cut back what this write added to the file, then write again.
      if (off + put > h->diskSize &&
          SetFilePointerEx(h->file, int64_t(std::max<uint64_t>(off, h->diskSize)), nullptr, FILE_BEGIN))
        SetEndOfFile(h->file);
      continue;
    }
    if (off + n > h->diskSize) h->diskSize = off + n;
    if (off + n > h->fsize) h->fsize = off + n;
    h->pos = int64_t(off + n);
    return 0;
  }
}

int32_t flush_pending(Library* h) {
  return h->txDepth || h->batch ? spill_pending(h) : write_pending(h);
}

int32_t write_pending(Library* h) {
  while (!h->pending.empty()) {
    auto it = h->pending.begin();
    const std::vector<uint8_t>& v = it->second;
    for (size_t done = 0; done < v.size();) {
      uint32_t n = uint32_t(std::min<size_t>(v.size() - done, 1u << 24));
      int32_t rc = write_now(h, it->first + done, v.data() + done, n);
      if (rc) return rc;
      done += n;
    }
    h->pendingBytes -= v.size();
    h->pending.erase(it);
  }
  h->pendingBytes = 0;
  return 0;
}

int32_t write_at(Library* h, uint64_t off, const void* buf, uint32_t n) {
  if ((h->txDepth == 0 && !h->batch) || n == 0) return write_now(h, off, buf, n);
  if (h->batch && h->txDepth) save_undo(h, off, n);
  // Inside an operation: hold the bytes back until the commit, joining them
  // with the ranges they touch, so that many small writes leave as a few
  // large ones.
  const uint8_t* src = static_cast<const uint8_t*>(buf);
  uint64_t a = off, b = off + n;
  auto it = h->pending.upper_bound(a);
  if (it != h->pending.begin()) {
    auto prev = std::prev(it);
    if (prev->first + prev->second.size() >= a) it = prev;
  }
  if (it != h->pending.end() && it->first <= a && it->first + it->second.size() >= a) {
    // Extend the range that starts at or before the write.
    std::vector<uint8_t>& v = it->second;
    uint64_t start = it->first;
    size_t before = v.size();
    // Overwrite what the range holds, append the rest (no zero fill first).
    size_t inside = size_t(std::min<uint64_t>(start + v.size(), b) - a);
    std::memcpy(v.data() + (a - start), src, inside);
    v.insert(v.end(), src + inside, src + n);
    h->pendingBytes += v.size() - before;
    // Absorb the ranges the write reached.
    auto next = std::next(it);
    while (next != h->pending.end() && next->first <= start + v.size()) {
      uint64_t end = next->first + next->second.size();
      if (end > start + v.size()) {
        size_t keep = size_t(end - (start + v.size()));
        v.insert(v.end(), next->second.end() - long(keep), next->second.end());
        h->pendingBytes += keep;
      }
      h->pendingBytes -= next->second.size();
      next = h->pending.erase(next);
    }
  } else {
    std::vector<uint8_t> v(src, src + n);
    // Ranges that begin inside the new one are merged into it.
    auto next = h->pending.lower_bound(a);
    while (next != h->pending.end() && next->first <= b) {
      uint64_t end = next->first + next->second.size();
      if (end > b) v.insert(v.end(), next->second.end() - long(end - b), next->second.end());
      h->pendingBytes -= next->second.size();
      next = h->pending.erase(next);
    }
    h->pendingBytes += v.size();
    h->pending.emplace(a, std::move(v));
  }
  if (b > h->fsize) h->fsize = b;
  if (h->pendingBytes > (8u << 20)) return flush_pending(h);
  return 0;
}

// Sets the end of the file (nothing is copied). Inside an operation the disk
// is cut only at the commit, after the writes held back.
int32_t truncate_at(Library* h, uint64_t end) {
  if (h->batch && h->txDepth && h->fsize > end) save_undo(h, end, h->fsize - end);
  for (auto it = h->pending.lower_bound(end); it != h->pending.end();) {
    h->pendingBytes -= it->second.size();
    it = h->pending.erase(it);
  }
  if (!h->pending.empty()) {
    auto last = std::prev(h->pending.end());
    if (last->first + last->second.size() > end) {
      h->pendingBytes -= last->second.size() - size_t(end - last->first);
      last->second.resize(size_t(end - last->first));
    }
  }
  if (h->diskSize > end && h->txDepth == 0 && !h->batch) {
    h->pos = -1;
    if (io_hook && io_hook('t', false, end, 0) == 0) return LMI_E_IO;
    if (!SetFilePointerEx(h->file, int64_t(end), nullptr, FILE_BEGIN) || !SetEndOfFile(h->file))
      return LMI_E_IO;
    h->diskSize = end;
  }
  h->fsize = end;
  return 0;
}

// ------------------------------------------------------------------ open / close

static void* halloc(Library* h, uint32_t n) { return zbstg_alloc(h->heap, n, 0); }
static void hfree(Library* h, void* p) {
  if (p) zbstg_free(h->heap, p);
}

static bool large_layout(const uint8_t* v) {
  static const char* const k[] = {"0200", "0300", "0301", "0400", "0500"};
  for (auto s : k)
    if (std::memcmp(v, s, 4) == 0) return true;
  return false;
}

void destroy(Library* h) {
  if (!h) return;
  ZBSTG_HEAP heap = h->heap;
  void* raw = h->raw;
  for (auto& kv : h->nodes) hfree(h, kv.second);
  for (size_t k = 1; k < h->maps.size(); ++k) hfree(h, h->maps[k].img);
  hfree(h, h->fixed);
  hfree(h, h->dbuf);
  hfree(h, h->dtab);
  h->~Library();
  zbstg_free(heap, raw);
}

// Runs `fix` on the library with write access before anything is read: a
// reader's handle `f` is closed, the file reopened for writing, fixed, and
// reopened as the reader asked. False (and `f` closed) when that fails.
template <class Fix>
bool fix_with_write_access(HFILE& f, const std::string& full, int32_t mode, DWORD access, Fix fix) {
  HFILE w = f;
  if (mode == 1) {
    CloseHandle(f);
    w = CreateFileA(full.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING,
                    FILE_ATTRIBUTE_NORMAL);
    if (w == INVALID_HANDLE) return false;
  }
  const bool ok = fix(w);
  if (!ok || mode == 1) CloseHandle(w);
  if (!ok) return false;
  if (mode == 1) {
    f = CreateFileA(full.c_str(), access, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
    if (f == INVALID_HANDLE) return false;
  }
  return true;
}

Library* open_library(ZBSTG_HEAP heap, const char* path, int32_t mode, int32_t readAhead) {
  if (!heap || !path) return nullptr;
  if (readAhead != 0 && readAhead < 512) return nullptr;
  if (mode < 1 || mode > 3) return nullptr;
  if (readAhead > kMaxReadAhead) readAhead = kMaxReadAhead;
  if (readAhead == 0) readAhead = kDefaultReadAhead;
  std::string full = full_path(path);
  if (full.empty()) return nullptr;

  bool wt = write_through_setting();
  DWORD access = mode == 1 ? GENERIC_READ : (GENERIC_READ | GENERIC_WRITE);
  HFILE f = CreateFileA(full.c_str(), access, FILE_SHARE_READ, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL);
  if (f == INVALID_HANDLE && mode != 1 &&
      GetFileAttributesA(full.c_str()) != INVALID_FILE_ATTRIBUTES) {
    // Another program may be finishing with the file: wait 5 seconds, once.
    DWORD start = GetTickCount();
    while (GetTickCount() - start < 5000)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    f = CreateFileA(full.c_str(), access, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  }
  if (f == INVALID_HANDLE) err_note_system(LMI_E_IO, "open", full);
  if (f == INVALID_HANDLE) return nullptr;
  // A journal left by a process that ended in the middle of an operation is
  // rolled back before anything is read. Holding the file (with the sharing
  // mode above) means no writer is running. A reader needs write access for
  // the rollback; without it the open is refused.
  if (journal_is_hot(full) &&
      !fix_with_write_access(f, full, mode, access, [&](HFILE w) { return recover_journal(full, w) == 0; }))
    return nullptr;
  if (is_executable_or_library(full) &&
      GetFileAttributesA(trailer_keeper_path(full).c_str()) != INVALID_FILE_ATTRIBUTES &&
      !fix_with_write_access(f, full, mode, access, [&](HFILE w) { return restore_trailer(w, full); }))
    return nullptr;

  // Heap blocks are 4-byte aligned; the handle needs the alignment of its members.
  void* mem = zbstg_alloc(heap, uint32_t(sizeof(Library) + alignof(Library)), 0);
  if (!mem) {
    CloseHandle(f);
    return nullptr;
  }
  uintptr_t at = (reinterpret_cast<uintptr_t>(mem) + alignof(Library) - 1) & ~uintptr_t(alignof(Library) - 1);
  Library* h = new (reinterpret_cast<void*>(at)) Library();
  h->raw = mem;
  h->heap = heap;
  h->file = f;
  h->mode = mode;
  h->path = full;
  h->readAhead = readAhead;
  h->writeThrough = wt;
  auto fail = [&]() -> Library* {
    CloseHandle(h->file);
    destroy(h);
    return nullptr;
  };
  int64_t size = 0;
  if (!GetFileSizeEx(f, &size) || size < 0) return fail();
  h->fsize = h->diskSize = uint64_t(size);
  if (h->fsize > kMaxOffset) return fail();

  if (is_executable_or_library(full)) {
    uint8_t tr[kBlock];
    if (h->fsize >= kBlock && read_at(h, h->fsize - kBlock, tr, kBlock) == 0 &&
        std::memcmp(tr, "TRL*", 4) == 0) {
      h->base = rd32(tr + 4);
      h->trailer = true;
      if (uint64_t(h->base) + kBlock > h->fsize - kBlock) return fail();
      if (mode != 1) {
        // The base is kept beside the file until the close puts the trailer back.
        if (!keep_trailer_base(full, h->base)) return fail();
        h->pos = -1;
        if (!SetFilePointerEx(f, int64_t(h->fsize - kBlock), nullptr, FILE_BEGIN) ||
            !SetEndOfFile(f))
          return fail();
        h->fsize -= kBlock;
        h->diskSize = h->fsize;
      }
    } else if (is_executable(full)) {
      DWORD stub = 0;
      load_resource_data(module_instance(), 256, 305, &stub);
      h->base = stub;
    }
  }

  h->fixed = static_cast<uint8_t*>(halloc(h, 4096 + 4));
  std::memset(h->fixed, 0, 4096 + 4);
  if (uint64_t(h->base) + 2048 > h->fsize) err_note(LMI_E_IO, "open " + full + ": not a library (too short)");
  if (uint64_t(h->base) + 2048 > h->fsize) return fail();
  if (read_at(h, h->base, h->fixed, 2048) != 0) return fail();
  if (std::memcmp(h->fixed + 4, "Quillbrander", 13) != 0) err_note(LMI_E_IO, "open " + full + ": not a library");
  if (std::memcmp(h->fixed + 4, "Quillbrander", 13) != 0) return fail();
  if (large_layout(h->fixed + hdr::kVersion)) {
    h->nodeSize = 3072;
    h->entrySpace = 3040;
    h->fixedSize = 4096;
    if (uint64_t(h->base) + 4096 > h->fsize) return fail();
    if (read_at(h, uint64_t(h->base) + 2048, h->fixed + 2048, 2048) != 0) return fail();
  } else {
    h->nodeSize = 1024;
    h->entrySpace = 992;
    h->fixedSize = 2048;
  }
  h->dblocks = uint32_t(readAhead) / kBlock;
  h->dbuf = static_cast<uint8_t*>(halloc(h, h->dblocks * kBlock));
  h->dtab = static_cast<uint32_t*>(halloc(h, h->dblocks * 4));
  h->maps.push_back({h->base + kBlock, h->fixed + kBlock, false});
  return h;
}



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

bool block_in_use(Library* h, uint32_t off) {
  if (off < h->base || (off - h->base) % kBlock) return false;
  uint32_t i = (off - h->base) / kBlock;
  if (i / kBitsPerMap >= h->maps.size()) return false;
  return bit_at(h, i);
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
