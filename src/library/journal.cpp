// Library files: operations, the rollback journal, and the close of a library.
//
// An operation holds its writes in memory (Library::pending). Before any
// block that existed when the operation began is overwritten in place, its
// old bytes go into `<library>-journal`, which is synced first; the library
// is then written and synced, and the journal's header is wiped (and synced).
// Bytes past the old end of the file are not saved: a rollback cuts the file
// back to its old length. When the operation shortens the file, a commit
// mark (with the new length) is written to the journal after the library is
// synced and before the file is cut, so that a crash in between completes the
// cut rather than rolling back into blocks that are gone.
//
// Journal layout (little-endian):
//   0    "JRN*", version 1, salt, old file length, library base, CRC-32 of bytes 0..19
//   512  commit mark: "CMT*", salt, new length, CRC-32 of bytes 0..11 (or zeros)
//   1024 records: file offset, byte count (at most 64 KB), CRC-32 of salt,
//        offset, count and the bytes; then the old bytes.
// Records are read up to the first one that does not check: a record cut
// short by a crash was never followed by a write to the library.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>

#include "library/lm.h"
#include "library/recovery.h"
#include "zbshr/memory.h"

namespace zbshr::lm {

using namespace zbshr::plat;

int64_t (*io_hook)(char kind, bool journal, uint64_t off, uint32_t n) = nullptr;

namespace {

constexpr uint32_t kJHeader = 1024;   // header block and commit-mark block
constexpr uint32_t kMaxRecord = 65536;
constexpr uint32_t kMaxSuperName = kBlock - 32;  // the header block holds it whole

uint32_t crc32(uint32_t crc, const uint8_t* p, size_t n) {
  static uint32_t table[256];
  static bool ready = [] {
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      table[i] = c;
    }
    return true;
  }();
  (void)ready;
  crc = ~crc;
  for (size_t i = 0; i < n; ++i) crc = table[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

std::string journal_path(const std::string& lib) { return lib + "-journal"; }

// Raw file changes, each announced to the test hook first. A failed write
// asks the user whether to retry, as every write of a library does: 0,
// LMI_E_IO or LMI_E_DISK_FULL.
int32_t raw_write(HFILE f, bool journal, uint64_t off, const void* buf, uint32_t n) {
  if (io_hook) {
    int64_t k = io_hook('w', journal, off, n);
    if (k >= 0 && k < int64_t(n)) {  // a torn write (tests): part goes out, then it fails
      DWORD put = 0;
      if (k && SetFilePointerEx(f, int64_t(off), nullptr, FILE_BEGIN))
        WriteFile(f, buf, DWORD(k), &put);
      io_hook('e', journal, off, uint32_t(k));
      return LMI_E_IO;
    }
  }
  for (;;) {
    DWORD put = 0;
    if (!SetFilePointerEx(f, int64_t(off), nullptr, FILE_BEGIN) || !WriteFile(f, buf, n, &put)) {
      if (disk_dialog(301, "Fatal disk error. Retry?") != IDRETRY) return LMI_E_IO;
      continue;
    }
    if (put < n) {
      if (disk_dialog(302, "The disk is full. Retry?") != IDRETRY) return LMI_E_DISK_FULL;
      continue;
    }
    return 0;
  }
}

bool raw_sync(HFILE f, bool journal) {
  if (io_hook && io_hook('s', journal, 0, 0) == 0) return false;
  return FlushFileBuffers(f);
}

bool raw_cut(HFILE f, bool journal, uint64_t len) {
  if (io_hook && io_hook('t', journal, len, 0) == 0) return false;
  return SetFilePointerEx(f, int64_t(len), nullptr, FILE_BEGIN) && SetEndOfFile(f);
}

bool raw_read(HFILE f, uint64_t off, void* buf, uint32_t n) {
  DWORD got = 0;
  return SetFilePointerEx(f, int64_t(off), nullptr, FILE_BEGIN) && ReadFile(f, buf, n, &got) &&
         got == n;
}

struct JHeader {
  uint32_t salt = 0, origLen = 0, base = 0;
  std::string super;  // the super-journal of a change of two libraries, or empty
};

bool read_header(HFILE j, JHeader* out) {
  uint8_t b[kBlock];
  if (!raw_read(j, 0, b, 24)) return false;
  uint32_t version = rd32(b + 4);
  if (std::memcmp(b, "JRN*", 4) != 0 || (version != 1 && version != 2) ||
      crc32(0, b, 20) != rd32(b + 20))
    return false;
  out->salt = rd32(b + 8);
  out->origLen = rd32(b + 12);
  out->base = rd32(b + 16);
  out->super.clear();
  if (version == 2) {  // the name of the super-journal follows, with its own check
    if (!raw_read(j, 24, b + 24, kBlock - 24)) return false;
    uint32_t n = rd32(b + 24);
    if (n == 0 || n > kMaxSuperName || crc32(0, b, 28 + n) != rd32(b + 28 + n)) return false;
    out->super.assign(reinterpret_cast<const char*>(b + 28), n);
  }
  return true;
}

// The new length of a committed operation, or -1 when there is no valid mark.
int64_t read_mark(HFILE j, uint32_t salt) {
  uint8_t b[16];
  if (!raw_read(j, 512, b, sizeof b)) return -1;
  if (std::memcmp(b, "CMT*", 4) != 0 || rd32(b + 4) != salt || crc32(0, b, 12) != rd32(b + 12))
    return -1;
  return rd32(b + 8);
}

uint32_t record_crc(uint32_t salt, uint32_t off, uint32_t len, const uint8_t* data) {
  uint8_t head[12];
  wr32(head, salt);
  wr32(head + 4, off);
  wr32(head + 8, len);
  return crc32(crc32(0, head, sizeof head), data, len);
}

// Puts the saved bytes back into `lib` and gives it its old length; with
// `honourMark`, a committed operation is completed instead (its cut redone).
// Returns 0, or LMI_E_IO when the library could not be written.
//
// A journal that names a super-journal belongs to a change of two libraries:
// with `resolve`, it is a committed change when the super-journal is gone
// (only its cut is completed) and is rolled back while it exists; its name is
// reported in *super.
int32_t apply_journal(HFILE lib, HFILE j, bool honourMark, bool resolve = false,
                      std::string* super = nullptr) {
  JHeader hd;
  if (!read_header(j, &hd)) return 0;  // never completed: nothing was written in place
  bool committed = false;
  if (!hd.super.empty()) {
    committed = resolve && GetFileAttributesA(hd.super.c_str()) == INVALID_FILE_ATTRIBUTES;
    honourMark = committed;
    if (super) *super = hd.super;
  }
  int64_t mark = honourMark ? read_mark(j, hd.salt) : -1;
  if (committed && mark < 0) return raw_sync(lib, false) ? 0 : LMI_E_IO;
  if (mark >= 0) {
    int64_t size = 0;
    if (!GetFileSizeEx(lib, &size)) return LMI_E_IO;
    if (size > mark && !raw_cut(lib, false, uint64_t(mark))) return LMI_E_IO;
    return raw_sync(lib, false) ? 0 : LMI_E_IO;
  }
  int64_t jsize = 0;
  if (!GetFileSizeEx(j, &jsize)) return LMI_E_IO;
  std::vector<uint8_t> data;
  for (uint64_t at = kJHeader; at + 12 <= uint64_t(jsize);) {
    uint8_t head[12];
    if (!raw_read(j, at, head, 12)) break;
    uint32_t off = rd32(head), len = rd32(head + 4);
    if (len == 0 || len > kMaxRecord || uint64_t(off) + len > hd.origLen ||
        at + 12 + len > uint64_t(jsize))
      break;
    data.resize(len);
    if (!raw_read(j, at + 12, data.data(), len)) break;
    if (record_crc(hd.salt, off, len, data.data()) != rd32(head + 8)) break;
    if (int32_t rc = raw_write(lib, false, off, data.data(), len)) return rc;
    at += 12 + len;
  }
  int64_t size = 0;
  if (!GetFileSizeEx(lib, &size)) return LMI_E_IO;
  if (uint64_t(size) != hd.origLen && !raw_cut(lib, false, hd.origLen)) return LMI_E_IO;
  return raw_sync(lib, false) ? 0 : LMI_E_IO;
}

// Wipes the journal's header so that it is no longer hot.
bool wipe_header(HFILE j, bool sync) {
  uint8_t zero[24] = {};
  return raw_write(j, true, 0, zero, sizeof zero) == 0 && (!sync || raw_sync(j, true));
}

uint32_t next_salt(Library* h) {
  if (h->rng == 0) {
    std::random_device rd;
    h->rng = (uint64_t(rd()) << 32 | rd()) ^
             uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^ 1;
  }
  h->rng ^= h->rng << 13;
  h->rng ^= h->rng >> 7;
  h->rng ^= h->rng << 17;
  return uint32_t(h->rng >> 16) | 1;
}

// The journal's header block (512 bytes).
void header_bytes(Library* h, uint8_t* b) {
  std::memset(b, 0, kBlock);
  uint32_t n = uint32_t(h->jSuper.size());
  std::memcpy(b, "JRN*", 4);
  wr32(b + 4, n ? 2 : 1);
  wr32(b + 8, h->jSalt);
  wr32(b + 12, uint32_t(h->txOrigLen));
  wr32(b + 16, h->base);
  wr32(b + 20, crc32(0, b, 20));
  if (n) {
    wr32(b + 24, n);
    std::memcpy(b + 28, h->jSuper.data(), n);
    wr32(b + 28 + n, crc32(0, b, 28 + n));
  }
}

// Saves in the journal the old bytes of every block the held-back writes
// will overwrite below the operation's old end of file, then syncs it.
int32_t save_old(Library* h, bool force = false) {
  std::vector<std::pair<uint32_t, uint32_t>> runs;  // [first block, end block)
  for (auto& kv : h->pending) {
    uint64_t a = kv.first, b = std::min<uint64_t>(kv.first + kv.second.size(), h->txOrigLen);
    if (a >= b) continue;
    for (uint32_t blk = uint32_t(a / kBlock); uint64_t(blk) * kBlock < b; ++blk) {
      if (!h->journaled.insert(blk).second) continue;
      if (!runs.empty() && runs.back().second == blk &&
          (blk - runs.back().first) * kBlock < kMaxRecord)
        runs.back().second = blk + 1;
      else
        runs.push_back({blk, blk + 1});
    }
  }
  if (runs.empty() && (!force || h->jEnd)) return 0;
  std::vector<uint8_t> out;
  if (h->jEnd == 0) {
    h->jSalt = next_salt(h);
    out.assign(kJHeader, 0);
    header_bytes(h, out.data());
  }
  std::vector<uint8_t> old;
  for (auto& r : runs) {
    uint64_t off = uint64_t(r.first) * kBlock;
    uint32_t len = uint32_t(std::min<uint64_t>(uint64_t(r.second) * kBlock, h->txOrigLen) - off);
    old.resize(len);
    uint32_t got = 0;
    int32_t rc = read_disk(h, off, old.data(), len, &got);
    if (rc) return rc;
    if (got != len) return LMI_E_IO;
    size_t at = out.size();
    out.resize(at + 12 + len);
    wr32(out.data() + at, uint32_t(off));
    wr32(out.data() + at + 4, len);
    wr32(out.data() + at + 8, record_crc(h->jSalt, uint32_t(off), len, old.data()));
    std::memcpy(out.data() + at + 12, old.data(), len);
  }
  if (h->jfile == INVALID_HANDLE) {
    h->jfile = CreateFileA(journal_path(h->path).c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                           OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL);
    if (h->jfile == INVALID_HANDLE) {
      // Every change needs its journal beside the library (a read-only folder refuses it).
      err_note_system(LMI_E_IO, "create the rollback journal", journal_path(h->path));
      return LMI_E_IO;
    }
  }
  for (size_t done = 0; done < out.size();) {
    uint32_t n = uint32_t(std::min<size_t>(out.size() - done, 1u << 24));
    if (int32_t rc = raw_write(h->jfile, true, h->jEnd + done, out.data() + done, n)) {
      h->jEnd = std::max<uint64_t>(h->jEnd, kJHeader);  // the header may be on disk
      return rc;
    }
    done += n;
  }
  h->jEnd += out.size();
  if (h->writeThrough && !raw_sync(h->jfile, true)) return LMI_E_IO;
  return 0;
}

}  // namespace

bool journal_is_hot(const std::string& libPath) {
  std::string jp = journal_path(libPath);
  if (GetFileAttributesA(jp.c_str()) == INVALID_FILE_ATTRIBUTES) return false;
  HFILE j = CreateFileA(jp.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL);
  if (j == INVALID_HANDLE) return true;  // cannot tell: treat it as hot
  JHeader hd;
  bool hot = read_header(j, &hd);
  CloseHandle(j);
  return hot;
}

// Removes a super-journal once no journal it lists still depends on it.
static void drop_super_if_done(const std::string& super) {
  HFILE f = CreateFileA(super.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL);
  if (f == INVALID_HANDLE) return;
  int64_t size = 0;
  std::vector<uint8_t> b;
  bool ok = GetFileSizeEx(f, &size) && size >= 4 && size < 65536;
  if (ok) {
    b.resize(size_t(size));
    ok = raw_read(f, 0, b.data(), uint32_t(size)) && std::memcmp(b.data(), "SJR*", 4) == 0 &&
         b.back() == 0;
  }
  CloseHandle(f);
  if (!ok) return;  // cannot tell what it covers: it stays
  for (size_t at = 4; at < b.size();) {
    std::string jp(reinterpret_cast<const char*>(b.data() + at));
    at += jp.size() + 1;
    if (GetFileAttributesA(jp.c_str()) == INVALID_FILE_ATTRIBUTES) continue;
    HFILE j = CreateFileA(jp.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                          FILE_ATTRIBUTE_NORMAL);
    if (j == INVALID_HANDLE) return;  // in use or unreadable: it may still depend on it
    JHeader hd;
    bool depends = read_header(j, &hd) && hd.super == super;
    CloseHandle(j);
    if (depends) return;
  }
  DeleteFileA(super.c_str());
}

int32_t recover_journal(const std::string& libPath, HFILE file) {
  std::string jp = journal_path(libPath);
  if (GetFileAttributesA(jp.c_str()) == INVALID_FILE_ATTRIBUTES) return 0;
  HFILE j = CreateFileA(jp.c_str(), GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL);
  if (j == INVALID_HANDLE) return LMI_E_IO;
  std::string super;
  int32_t rc = apply_journal(file, j, true, true, &super);
  if (rc == 0 && !wipe_header(j, true)) rc = LMI_E_IO;
  CloseHandle(j);
  if (rc == 0) DeleteFileA(jp.c_str());
  if (rc == 0 && !super.empty()) drop_super_if_done(super);
  return rc;
}

int32_t tx_begin(Library* h) {
  if (h->mode == 1) return LMI_E_READ_ONLY;
  if (h->failed) return LMI_E_IO;
  if (h->txDepth++ > 0) return 0;
  if (!h->batch) {
    h->txOrigLen = h->diskSize;
    h->journaled.clear();
    h->jEnd = 0;
    h->batch = !h->writeThrough;
  }
  if (h->batch) {
    h->undo.clear();
    h->undoLen = h->fsize;
  }
  return 0;
}

void save_undo(Library* h, uint64_t off, uint64_t n) {
  uint64_t end = std::min<uint64_t>(off + n, h->undoLen);
  if (off >= end) return;  // past the old end: the old length covers it
  std::vector<uint8_t> old(size_t(end - off));
  uint32_t got = 0;
  if (read_at(h, off, old.data(), uint32_t(old.size()), &got) == 0) old.resize(got);
  h->undo.emplace_back(off, std::move(old));
}

// Undoes the operation in hand of a batch, in memory.
static void undo_operation(Library* h) {
  int depth = h->txDepth;
  h->txDepth = 0;  // the writes below are not recorded again
  bool ok = true;
  for (auto it = h->undo.rbegin(); it != h->undo.rend(); ++it)
    if (write_at(h, it->first, it->second.data(), uint32_t(it->second.size()))) ok = false;
  h->undo.clear();
  if (h->fsize > h->undoLen) truncate_at(h, h->undoLen);
  h->fsize = h->undoLen;
  h->txDepth = depth;
  if (!ok || reload_handle(h, true)) h->failed = true;
}

int32_t spill_pending(Library* h) {
  int32_t rc = save_old(h);
  return rc ? rc : write_pending(h);
}

static int32_t commit(Library* h) {
  if (h->pending.empty() && h->fsize == h->diskSize && h->jEnd == 0) return 0;
  int32_t rc = spill_pending(h);
  if (rc) return rc;
  bool wt = h->writeThrough;
  if (h->fsize < h->diskSize) {
    if (h->jEnd) {
      if (wt && !raw_sync(h->file, false)) return LMI_E_IO;
      uint8_t m[16];
      std::memcpy(m, "CMT*", 4);
      wr32(m + 4, h->jSalt);
      wr32(m + 8, uint32_t(h->fsize));
      wr32(m + 12, crc32(0, m, 12));
      if (int32_t rc = raw_write(h->jfile, true, 512, m, sizeof m)) return rc;
      if (wt && !raw_sync(h->jfile, true)) return LMI_E_IO;
      // Committed: from here on the blocks past the new end are gone for a
      // rollback. A failure leaves the cut to the next open (the journal
      // stays) and the handle refuses further writes.
      h->pos = -1;
      if (!raw_cut(h->file, false, h->fsize) || (wt && !raw_sync(h->file, false)) ||
          !wipe_header(h->jfile, wt)) {
        h->failed = true;
        return 0;
      }
      h->diskSize = h->fsize;
      h->jEnd = 0;
      h->journaled.clear();
      return 0;
    }
    h->pos = -1;
    if (!raw_cut(h->file, false, h->fsize)) return LMI_E_IO;
    h->diskSize = h->fsize;
  }
  if (wt && !raw_sync(h->file, false)) return LMI_E_IO;
  if (h->jEnd && !wipe_header(h->jfile, wt)) {
    // Whether the journal still counts is unknown: make it whole again so
    // that the rollback which follows (here or at the next open) is certain.
    uint8_t b[kBlock];
    header_bytes(h, b);
    if (raw_write(h->jfile, true, 0, b, sizeof b) || (wt && !raw_sync(h->jfile, true)))
      h->failed = true;
    return LMI_E_IO;
  }
  h->jEnd = 0;
  h->journaled.clear();
  return 0;
}

void tx_rollback(Library* h) {
  if (h->txDepth == 0) return;
  if (h->batch) {
    undo_operation(h);
    h->txDepth = 0;
    return;
  }
  h->txDepth = 0;
  h->pending.clear();
  h->pendingBytes = 0;
  h->pos = -1;
  int32_t rc = 0;
  if (h->jEnd) {
    rc = apply_journal(h->file, h->jfile, false);
    if (rc == 0 && !wipe_header(h->jfile, h->writeThrough)) rc = LMI_E_IO;
    if (rc == 0) h->jEnd = 0;
  }
  // Bytes written past the old end (with or without a journal) go.
  int64_t size = 0;
  if (rc == 0 && (!GetFileSizeEx(h->file, &size) ||
                  (uint64_t(size) != h->txOrigLen && !raw_cut(h->file, false, h->txOrigLen))))
    rc = LMI_E_IO;
  h->journaled.clear();
  if (rc == 0) rc = reload_handle(h);
  if (rc) h->failed = true;
}

int32_t tx_end(Library* h, int32_t rc) {
  if (h->txDepth == 0) return rc ? rc : LMI_E_IO;  // rolled back by an inner step
  if (rc) {
    tx_rollback(h);
    return rc;
  }
  if (--h->txDepth > 0) return 0;
  if (h->batch) {
    h->undo.clear();  // done; the batch is committed at close
    return 0;
  }
  ++h->txDepth;
  rc = commit(h);
  if (rc) {
    if (!h->failed) tx_rollback(h);
    h->txDepth = 0;
    return rc;
  }
  h->txDepth = 0;
  h->pending.clear();  // (empty unless a committed cut failed)
  h->pendingBytes = 0;
  return 0;
}

int32_t batch_commit(Library* h) {
  if (!h->batch) return 0;
  h->batch = false;
  h->undo.clear();
  h->txDepth = 1;
  int32_t rc = commit(h);
  if (rc && !h->failed) tx_rollback(h);
  h->txDepth = 0;
  h->pending.clear();
  h->pendingBytes = 0;
  return rc;
}

int32_t tx_end_releasing(Library* h, int32_t rc) {
  if (rc == 0 && h->freed && h->txDepth == 1) rc = release_tail(h);
  return tx_end(h, rc);
}

// ---- a change of two libraries as one

void pair_begin(Library* h) {
  if (h->batch || h->txDepth) return;  // already holding its changes back
  h->txOrigLen = h->diskSize;
  h->journaled.clear();
  h->jEnd = 0;
  h->jSuper.clear();
  h->batch = true;
}

void pair_discard(Library* h) {
  if (!h->batch) return;
  h->batch = false;
  h->undo.clear();
  h->txDepth = 1;
  tx_rollback(h);  // from the disk: what went out early is rolled back too
  h->jSuper.clear();
}

namespace {

bool changed(Library* h) { return !h->pending.empty() || h->fsize != h->diskSize || h->jEnd; }

// Journal (naming the super-journal) saved and synced, library written and
// synced, the new length marked; the file is not cut yet.
int32_t prepare(Library* h, const std::string& super) {
  bool wt = h->writeThrough;
  bool had = h->jEnd != 0;  // written early, without the name
  h->jSuper = super;
  int32_t rc = save_old(h, true);
  if (rc) return rc;
  if (had) {
    uint8_t b[kBlock];
    header_bytes(h, b);
    if ((rc = raw_write(h->jfile, true, 0, b, kBlock)) != 0) return rc;
    if (wt && !raw_sync(h->jfile, true)) return LMI_E_IO;
  }
  if ((rc = write_pending(h)) != 0) return rc;
  if (wt && !raw_sync(h->file, false)) return LMI_E_IO;
  if (h->fsize < h->diskSize) {
    uint8_t m[16];
    std::memcpy(m, "CMT*", 4);
    wr32(m + 4, h->jSalt);
    wr32(m + 8, uint32_t(h->fsize));
    wr32(m + 12, crc32(0, m, 12));
    if ((rc = raw_write(h->jfile, true, 512, m, sizeof m)) != 0) return rc;
    if (wt && !raw_sync(h->jfile, true)) return LMI_E_IO;
  }
  return 0;
}

// After the commit: the cut, then the journal is no longer hot. A failure
// leaves it to the next open (the journal stays) and the handle refuses writes.
void settle(Library* h) {
  bool wt = h->writeThrough;
  if (h->fsize < h->diskSize) {
    h->pos = -1;
    if (!raw_cut(h->file, false, h->fsize) || (wt && !raw_sync(h->file, false))) {
      h->failed = true;
      return;
    }
    h->diskSize = h->fsize;
  }
  if (!wipe_header(h->jfile, wt)) {
    h->failed = true;
    return;
  }
  h->jEnd = 0;
  h->journaled.clear();
  h->jSuper.clear();
}

}  // namespace

int32_t pair_commit(Library* a, Library* b) {
  // What a close would still write (a freed tail, dirty bitmaps) belongs to the change.
  for (Library* h : {a, b}) {
    int32_t rc = tx_begin(h);
    if (rc == 0) {
      if (h->freed) rc = release_tail(h);
      if (rc == 0) rc = flush_maps(h);
      rc = tx_end(h, rc);
    }
    if (rc) {
      pair_discard(a);
      pair_discard(b);
      return rc;
    }
  }
  if (!changed(a) || !changed(b)) {  // one library alone: its own commit
    int32_t ra = batch_commit(a), rb = batch_commit(b);
    return ra ? ra : rb;
  }
  char tag[16];
  std::snprintf(tag, sizeof tag, "-mj%08x", unsigned(next_salt(a)));
  std::string super = a->path + tag;
  std::string list = std::string("SJR*") + journal_path(a->path) + '\0' + journal_path(b->path) + '\0';
  if (super.size() > kMaxSuperName) {  // too long a path to name: one after the other
    int32_t ra = batch_commit(a);
    if (ra) {
      pair_discard(b);
      return ra;
    }
    return batch_commit(b);
  }
  int32_t rc = 0;
  {
    HFILE f = CreateFileA(super.c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS,
                          FILE_ATTRIBUTE_NORMAL);
    if (f == INVALID_HANDLE) {
      err_note_system(LMI_E_IO, "create", super);
      rc = LMI_E_IO;
    } else {
      rc = raw_write(f, true, 0, list.data(), uint32_t(list.size()));
      if (rc == 0 && a->writeThrough && !raw_sync(f, true)) rc = LMI_E_IO;
      CloseHandle(f);
    }
  }
  if (rc == 0) rc = prepare(a, super);
  if (rc == 0) rc = prepare(b, super);
  // The commit: with the super-journal gone, both journals count as done.
  if (rc == 0 && ((io_hook && io_hook('u', true, 0, 0) == 0) || !DeleteFileA(super.c_str())))
    rc = LMI_E_IO;
  if (rc) {
    pair_discard(a);
    pair_discard(b);
    if (!a->failed && !b->failed) DeleteFileA(super.c_str());
    return rc;
  }
  for (Library* h : {a, b}) {
    h->batch = false;
    h->undo.clear();
    h->pending.clear();
    h->pendingBytes = 0;
    settle(h);
  }
  return 0;
}

int32_t reload_handle(Library* h, bool keepPending) {
  for (auto& kv : h->nodes) zbstg_free(h->heap, kv.second);
  h->nodes.clear();
  for (auto& q : h->quick) q = Library::Slot{};
  drop_index(h);
  h->lookups = 0;
  for (size_t k = 1; k < h->maps.size(); ++k) zbstg_free(h->heap, h->maps[k].img);
  h->maps.resize(1);
  h->maps[0] = Bitmap{h->base + kBlock, h->fixed + kBlock, false};
  h->mapsLoaded = false;
  h->freeHint = 0;
  h->appending = false;
  h->freed = false;
  h->rootChecked = false;
  h->pos = -1;
  if (!keepPending) {
    h->pending.clear();
    h->pendingBytes = 0;
    int64_t size = 0;
    if (!GetFileSizeEx(h->file, &size) || size < 0) return LMI_E_IO;
    h->fsize = h->diskSize = uint64_t(size);
  }
  if (uint64_t(h->base) + h->fixedSize > h->fsize) return LMI_E_DAMAGED;
  return read_at(h, h->base, h->fixed, h->fixedSize);
}

// The final writes of a library opened for writing, as one operation; with
// write-through off this is where the changes become durable.
// A handle marked failed has nothing it may write: its failure was reported
// by the call that failed, and the journal stays for the next open.
static int32_t final_writes(Library* h) {
  if (h->failed) return 0;
  if (h->txDepth) tx_rollback(h);  // an operation left open by a failed call
  int32_t rc = tx_begin(h);
  if (rc) return rc;
  if (h->freed) rc = release_tail(h);
  if (rc == 0) rc = flush_maps(h);
  bool trailer = rc == 0 && h->trailer;
  if (trailer) {
    uint8_t tr[kBlock] = {};
    std::memcpy(tr, "TRL*", 4);
    wr32(tr + 4, h->base);
    rc = write_at(h, h->fsize, tr, kBlock);
  }
  rc = tx_end(h, rc);
  if (rc == 0) rc = batch_commit(h);
  if (rc) return rc;
  if (trailer) h->fsize -= kBlock;  // the trailer is not part of the library
  if (!h->writeThrough && !FlushFileBuffers(h->file)) return LMI_E_IO;
  return 0;
}

// The trailer is back on the file: what kept its base goes.
static void trailer_back(Library* h) {
  if (h->trailer && h->mode != 1 && !h->failed) DeleteFileA(trailer_keeper_path(h->path).c_str());
}

int32_t close_library(Library* h) {
  if (h->kept_by_session) return 0;
  if (h->mode != 1) {
    int32_t rc = final_writes(h);
    if (rc != 0) return rc;
    trailer_back(h);
  }
  close_journal(h);
  if (!CloseHandle(h->file)) return LMI_E_IO;
  destroy(h);
  return 0;
}

int32_t close_library_always(Library* h) {
  if (!h || h->kept_by_session) return 0;
  int32_t rc = h->mode != 1 ? final_writes(h) : 0;
  if (rc == 0) trailer_back(h);
  if (rc && h->txDepth) tx_rollback(h);
  close_journal(h);
  if (!CloseHandle(h->file) && rc == 0) rc = LMI_E_IO;
  destroy(h);
  return rc;
}

void close_journal(Library* h) {
  if (h->jfile == INVALID_HANDLE) return;
  CloseHandle(h->jfile);
  h->jfile = INVALID_HANDLE;
  if (!h->failed) DeleteFileA(journal_path(h->path).c_str());
}

}  // namespace zbshr::lm
