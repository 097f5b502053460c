// Library files: block I/O, opening and closing. Every offset and length
// read from the file is checked against the file before it is used.
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

void* halloc(Library* h, uint32_t n) { return zbstg_alloc(h->heap, n, 0); }
void hfree(Library* h, void* p) {
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
  if (f == INVALID_HANDLE && mode != 1) {
    // Another program may be finishing with the file: wait 5 seconds, once.
    // A folder will not become a library by waiting.
    const DWORD error = GetLastError();
    const DWORD attrs = GetFileAttributesA(full.c_str());
    if (attrs != INVALID_FILE_ATTRIBUTES && !(attrs & FILE_ATTRIBUTE_DIRECTORY)) {
      DWORD start = GetTickCount();
      while (GetTickCount() - start < 5000)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      f = CreateFileA(full.c_str(), access, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
    } else {
      SetLastError(error);
    }
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

}  // namespace zbshr::lm
