// Library files: the exported LMI_ library, entry, copy and move operations.
#include <algorithm>
#include <new>

#include "library/recovery.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"

using namespace zbshr::lm;
namespace plat = zbshr::plat;

namespace zbshr::lm {

Library* library_of(LMI_HANDLE h) { return reinterpret_cast<Library*>(h); }

// Opens the named entry of `h` for reading (the comment goes into the handle).
int32_t open_read(Library* h, const char* name, bool tolerant) {
  Search s;
  int32_t rc = find_entry(h, name, &s, tolerant);
  if (rc < 0) return rc;
  if (rc != kFound) return LMI_E_NOT_FOUND;
  const uint8_t* r = record_ptr(h, s.node, s.rec);
  uint32_t clen = rd16(r + rec::kCommentLen), len = rd32(r + rec::kLength);
  if (clen > 255 || clen > len || len > h->fsize) return LMI_E_DAMAGED;
  reader_start(h, &h->rd, rd32(r + rec::kFirst), len, h->dbuf, h->dblocks * kBlock);
  if (clen) {
    int32_t n = reader_read(h, &h->rd, h->comment, clen);
    if (n < 0) return n;
    if (uint32_t(n) != clen) return LMI_E_DAMAGED;
  }
  h->comment[clen] = 0;
  h->eNode = s.node;
  h->eRec = s.rec;
  h->state = 1;
  return 0;
}

// Reads an entry's comment from its first data block.
static int32_t comment_of(Library* h, const uint8_t* r, char* out) {
  out[0] = 0;
  uint32_t clen = rd16(r + rec::kCommentLen), first = rd32(r + rec::kFirst);
  if (clen == 0 || first == 0) return 0;
  if (clen > 255 || clen > rd32(r + rec::kLength) || !valid_data_offset(h, first))
    return LMI_E_DAMAGED;
  uint8_t blk[kBlock];
  int32_t rc = read_at(h, first, blk, kBlock);
  if (rc) return rc;
  if (std::memcmp(blk, "DAT*", 4) != 0 || rd16(blk + 8) < clen) return LMI_E_DAMAGED;
  std::memcpy(out, blk + 10, clen);
  out[clen] = 0;
  return 0;
}

static void trim_comment(char* dst, const char* src) {
  size_t n = std::min<size_t>(std::strlen(src), 255);
  std::memcpy(dst, src, n);
  while (n > 0 && dst[n - 1] == ' ') --n;
  dst[n] = 0;
}

int32_t open_write(Library* h, const char* name, const char* comment) {
  Search s;
  int32_t rc = find_entry(h, name, &s);
  if (rc < 0) return rc;
  writer_start(h);
  if (rc == kFound) {
    uint8_t* r = record_ptr(h, s.node, s.rec);
    uint32_t clen = rd16(r + rec::kCommentLen), len = rd32(r + rec::kLength);
    h->comment[0] = 0;
    if (clen) {
      if (clen > 255 || clen > len || len > h->fsize) return LMI_E_DAMAGED;
      ChainReader cr;
      reader_start(h, &cr, rd32(r + rec::kFirst), len, h->dbuf, h->dblocks * kBlock);
      int32_t n = reader_read(h, &cr, h->comment, clen);
      if (n < 0) return n;
      if (uint32_t(n) != clen) return LMI_E_DAMAGED;
      h->comment[clen] = 0;
    }
    rc = free_chain(h, len, rd32(r + rec::kFirst));
    if (rc) return rc;
    r = record_ptr(h, s.node, s.rec);
    wr32(r + rec::kFirst, 0);
    wr32(r + rec::kLength, 0);
    wr32(r + rec::kTime, uint32_t(now32()));
    wr16(r + rec::kCommentLen, 0);
    rc = write_node(h, s.node, s.rec + rec::kFirst, s.rec + kRecHead);
    if (rc) return rc;
  } else {
    h->comment[0] = 0;
    rc = insert_entry(h, name, &s);
    if (rc) return rc;
  }
  if (comment && *comment) trim_comment(h->comment, comment);
  uint32_t clen = uint32_t(std::strlen(h->comment));
  rc = clen ? append_data(h, h->comment, clen) : 0;
  uint8_t* r = record_ptr(h, s.node, s.rec);
  wr16(r + rec::kCommentLen, uint16_t(rc == 0 ? clen : 0));
  wr32(r + rec::kLength, h->wLength);
  h->eNode = s.node;
  h->eRec = s.rec;
  h->state = 3;
  return 0;
}

// Ends the entry in hand. A written entry is one operation from open_write to
// here: the data, the bitmaps, the record and the released tail are
// committed together, or nothing is.
int32_t close_entry(Library* h) {
  int state = h->state;
  h->state = 0;
  if (state == 1) return 0;
  if (state == kWriteFailed) return LMI_E_IO;  // rolled back when the write failed
  int32_t rc = flush_data(h);
  if (rc == 0) {
    uint8_t* r = record_ptr(h, h->eNode, h->eRec);
    if (!r) rc = LMI_E_DAMAGED;
    if (rc == 0) {
      wr32(r + rec::kFirst, h->wFirst);
      wr32(r + rec::kLength, h->wLength);
      rc = write_node(h, h->eNode, h->eRec + rec::kFirst, h->eRec + kRecHead);
    }
  }
  if (rc == 0) rc = flush_maps(h);
  if (rc == 0 && h->freed) rc = release_tail(h);
  h->appending = false;
  return tx_end(h, rc);
}

}  // namespace zbshr::lm

namespace {

template <class F>
int32_t guard(F&& f) {
  err_begin();
  try {
    return err_end(f());
  } catch (...) {
    return err_end(LMI_E_IO);
  }
}

bool busy(Library* h) { return h->state != 0 || h->listing; }

}  // namespace

// ====================================================================== libraries

ZBSHR_API(LMI_HANDLE) LMI_OpenLibrary(ZBSTG_HEAP heap, char* path, int32_t mode,
                                      int32_t readAheadSize) {
  if (!heap || !path || (readAheadSize != 0 && readAheadSize < 512) || mode < 1 || mode > 3)
    return nullptr;
  err_begin();
  try {
    lower_in_place(path);
    Library* lib = open_library(heap, path, mode, readAheadSize);
    err_end(lib ? 0 : LMI_E_IO);
    return reinterpret_cast<LMI_HANDLE>(lib);
  } catch (...) {
    err_end(LMI_E_IO);
    return nullptr;
  }
}

ZBSHR_API(int32_t) LMI_CreateLibrary(ZBSTG_HEAP heap, char* path, const char* comment) {
  if (!path) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lower_in_place(path);
    std::string p = path;
    size_t slash = p.find_last_of("/\\");
    size_t dot = p.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
      p += ".zbl";
    } else {
      std::string e = p.substr(dot);
      if (e != ".zbd" && e != ".zbl" && e != ".tmp") return LMI_E_ARGUMENT;
    }
    std::string full = full_path(p.c_str());
    if (full.empty()) return LMI_E_ARGUMENT;
    if (plat::GetFileAttributesA(full.c_str()) != plat::INVALID_FILE_ATTRIBUTES)
      return LMI_E_EXISTS;
    // The file is written under a scratch name and renamed into place, so
    // that a crash never leaves a half-written library under the real name.
    std::string scratch = full + "-creating";
    plat::HFILE f = plat::CreateFileA(scratch.c_str(), plat::GENERIC_READ | plat::GENERIC_WRITE, 0,
                                      plat::CREATE_ALWAYS, plat::FILE_ATTRIBUTE_NORMAL);
    if (f == plat::INVALID_HANDLE) return LMI_E_IO;
    Library tmp;
    tmp.file = f;
    uint8_t img[4096] = {};
    std::memcpy(img, "HDR*", 4);
    std::memcpy(img + 4, "Quillbrander", 12);
    std::memcpy(img + hdr::kVersion, "0500", 4);
    wr32(img + hdr::kCreated, uint32_t(now32()));
    if (comment) std::memcpy(img + hdr::kComment, comment, std::min<size_t>(std::strlen(comment), 255));
    std::memcpy(img + 512, "FRE*", 4);
    img[512 + 8] = 0xFF;  // blocks 0 to 7: header, this bitmap, the root node
    std::memcpy(img + 1024, "NOD*", 4);
    wr16(img + 1024 + node::kFree, 3040);
    bool wt = write_through_setting();
    int32_t rc = write_at(&tmp, 0, img, 1024);
    if (rc == 0) rc = write_at(&tmp, 1024, img + 1024, 3072);
    if (rc == 0 && wt && ((io_hook && io_hook('s', false, 0, 0) == 0) || !plat::FlushFileBuffers(f)))
      rc = LMI_E_IO;
    plat::CloseHandle(f);
    if (rc == 0 && io_hook && io_hook('m', false, 0, 0) == 0) rc = LMI_E_IO;
    if (rc == 0 &&
        !plat::MoveFileExA(scratch.c_str(), full.c_str(), wt ? plat::MOVEFILE_WRITE_THROUGH : 0))
      rc = plat::GetLastError() == plat::ERROR_ALREADY_EXISTS ? LMI_E_EXISTS : LMI_E_CREATE;
    if (rc) {
      plat::DeleteFileA(scratch.c_str());
      return rc == LMI_E_EXISTS ? rc : LMI_E_CREATE;
    }
    return 0;
  });
}

ZBSHR_API(int32_t) LMI_CloseLibrary(LMI_HANDLE handle) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  return guard([&]() -> int32_t {
    if (h->kept_by_session) return 0;
    if (h->state) {
      bool failedWrite = h->state == kWriteFailed;
      int32_t rc = close_entry(h);
      if (rc && h->mode != 1 && !failedWrite) return rc;
    }
    return close_library(h);
  });
}

ZBSHR_API(int32_t) LMI_DeleteLibrary(ZBSTG_HEAP heap, char* path) {
  if (!path) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lower_in_place(path);
    Library* h = open_library(heap, path, 1, 0);
    if (!h) return LMI_E_IO;
    std::string full = h->path;
    if (close_library(h)) return LMI_E_IO;
    return plat::DeleteFileA(full.c_str()) ? 0 : LMI_E_IO;
  });
}

ZBSHR_API(int32_t) LMI_LibraryInformation(LMI_HANDLE handle, LMI_LIBRARYINFO* info) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!info) return LMI_E_NULL_INFO;
  info->checkOutLength = int32_t(rd32(h->fixed + hdr::kListLen));
  info->creationTime = int32_t(rd32(h->fixed + hdr::kCreated));
  info->comment = reinterpret_cast<const char*>(h->fixed + hdr::kComment);
  return 0;
}

ZBSHR_API(int32_t) LMI_ModifyLibrary(LMI_HANDLE handle, LMI_LIBRARYMOD* modification) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!modification) return LMI_E_NULL_INFO;
  if (h->mode != 3) return LMI_E_READ_ONLY;
  if (!modification->comment) return 0;
  return guard([&]() -> int32_t {
    Op op(h);
    std::memset(h->fixed + hdr::kComment, 0, 256);
    std::memcpy(h->fixed + hdr::kComment, modification->comment,
                std::min<size_t>(std::strlen(modification->comment), 255));
    return op.end(write_at(h, h->base, h->fixed, kBlock));
  });
}

// ====================================================================== entries

ZBSHR_API(int32_t) LMI_OpenEntry(LMI_HANDLE handle, char* name, int32_t mode,
                                 const char* comment) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (busy(h)) return LMI_E_BUSY;
  if (!name) return LMI_E_ARGUMENT;
  if (mode != 1 && mode != 3) return LMI_E_MODE;
  if (mode == 3 && h->mode == 1) return LMI_E_READ_ONLY;
  if (mode == 1 && h->mode == 3) return LMI_E_NOT_READABLE;
  return guard([&]() -> int32_t {
    lower_in_place(name);
    if (mode == 1) return open_read(h, name, false);
    int32_t rc = tx_begin(h);
    if (rc) return rc;
    try {
      rc = open_write(h, name, comment);
      if (rc == 0) rc = flush_maps(h);
    } catch (...) {
      rc = LMI_E_IO;
    }
    if (rc) {
      h->state = 0;
      return tx_end(h, rc);
    }
    return 0;
  });
}

ZBSHR_API(int32_t) LMI_ReadEntry(LMI_HANDLE handle, void* buffer, int32_t count) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!buffer) return LMI_E_NULL_BUFFER;
  if (count <= 0) return LMI_E_ZERO_LENGTH;
  if (h->state != 1) return LMI_E_NOT_READABLE;
  return guard([&]() -> int32_t { return reader_read(h, &h->rd, buffer, uint32_t(count)); });
}

ZBSHR_API(int32_t) LMI_WriteEntry(LMI_HANDLE handle, const void* buffer, int32_t count) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!buffer) return LMI_E_NULL_BUFFER;
  if (count <= 0) return LMI_E_ZERO_LENGTH;
  if (h->state == kWriteFailed) return LMI_E_IO;
  if (h->state != 3) return LMI_E_READ_ONLY;
  return guard([&]() -> int32_t {
    int32_t rc;
    try {
      rc = append_data(h, buffer, uint32_t(count));
      if (uint8_t* r = record_ptr(h, h->eNode, h->eRec)) wr32(r + rec::kLength, h->wLength);
    } catch (...) {
      rc = LMI_E_IO;
    }
    if (rc == 0) return count;
    // The entry is given up: everything since it was opened is rolled back,
    // and the entry stays in hand (refusing writes) until it is closed.
    tx_rollback(h);
    h->state = kWriteFailed;
    return rc;
  });
}

ZBSHR_API(int32_t) LMI_CloseEntry(LMI_HANDLE handle) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (h->state == 0) return LMI_E_NOT_OPEN;
  return guard([&]() -> int32_t { return close_entry(h); });
}

ZBSHR_API(int32_t) LMI_EntryExists(LMI_HANDLE handle, char* name) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (busy(h)) return LMI_E_BUSY;
  if (!name) return LMI_E_ARGUMENT;
  return guard([&]() -> int32_t {
    lower_in_place(name);
    Search s;
    int32_t rc = find_entry(h, name, &s);
    if (rc < 0) return rc;
    return rc == kFound ? 0 : LMI_E_NOT_FOUND;
  });
}

namespace {

// Finds the record for an information call: the entry in hand when the name
// is its name, otherwise a search (with nothing in hand).
int32_t info_record(Library* h, char* name, const uint8_t** r, bool* inHand) {
  lower_in_place(name);
  *inHand = false;
  if (h->listing || h->state == kWriteFailed) return LMI_E_BUSY;
  if (h->state) {
    const uint8_t* cur = record_ptr(h, h->eNode, h->eRec);
    if (!cur || std::strcmp(reinterpret_cast<const char*>(cur + kRecHead), name) != 0)
      return LMI_E_BUSY;
    *r = cur;
    *inHand = true;
    return 0;
  }
  Search s;
  int32_t rc = find_entry(h, name, &s);
  if (rc < 0) return rc;
  if (rc != kFound) return LMI_E_NOT_FOUND;
  *r = record_ptr(h, s.node, s.rec);
  return 0;
}

int32_t size_of(const uint8_t* r, int32_t* size) {
  uint32_t len = rd32(r + rec::kLength), clen = rd16(r + rec::kCommentLen);
  if (clen > len) return LMI_E_DAMAGED;
  *size = int32_t(len - clen);
  return 0;
}

// Answers an information call: `extra(h, r, inHand)` fills what only that
// kind of information has, and may fail, before the shared fields are set.
template <class Info, class Extra>
int32_t entry_info(LMI_HANDLE handle, char* name, Info* info, Extra&& extra) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!name) return LMI_E_ARGUMENT;
  if (!info) return LMI_E_NULL_INFO;
  return guard([&]() -> int32_t {
    const uint8_t* r;
    bool inHand;
    int32_t rc = info_record(h, name, &r, &inHand);
    if (rc) return rc;
    int32_t size;
    if ((rc = size_of(r, &size))) return rc;
    if ((rc = extra(h, r, inHand))) return rc;
    info->time = int32_t(rd32(r + rec::kTime));
    info->size = size;
    info->name = reinterpret_cast<const char*>(r + kRecHead);
    return 0;
  });
}

}  // namespace

ZBSHR_API(int32_t) LMI_EntryInformation(LMI_HANDLE handle, char* name, LMI_ENTRYINFO* info) {
  return entry_info(handle, name, info, [](Library*, const uint8_t*, bool) -> int32_t { return 0; });
}

ZBSHR_API(int32_t) LMI_EntryInfoExtended(LMI_HANDLE handle, char* name, LMI_ENTRYINFOEX* info) {
  return entry_info(handle, name, info, [&](Library* h, const uint8_t* r, bool inHand) -> int32_t {
    if (!inHand) return comment_of(h, r, info->comment);
    std::strcpy(info->comment, h->comment);
    return 0;
  });
}

namespace {

// First status byte recorded for each entry name in a check-out list.
void status_map(const std::vector<uint8_t>& list, std::unordered_map<std::string, char>* out) {
  size_t p = 0, n = list.size();
  while (p < n) {
    const char* b = reinterpret_cast<const char*>(list.data());
    size_t f[3];
    for (int i = 0; i < 3; ++i) {
      const void* z = std::memchr(b + p, 0, n - p);
      if (!z) return;
      f[i] = p;
      p = size_t(static_cast<const char*>(z) - b) + 1;
    }
    if (p >= n) return;
    out->emplace(std::string(b + f[1]), b[p]);
    ++p;
  }
}

template <class Info, class Cb>
int32_t list_entries(Library* h, char* pattern, Cb callback, void* userData, bool extended) {
  if (!h) return LMI_E_NULL_HANDLE;
  if (!pattern) return LMI_E_PATTERN;
  return guard([&]() -> int32_t {
    lower_in_place(pattern);
    uint32_t size = uint32_t(std::strlen(pattern)) * 3;
    std::vector<unsigned char> compiled(size + 1);
    if (size == 0 || shregExprCmpl(compiled.data(), pattern, int32_t(size)) != 0)
      return LMI_E_PATTERN;
    std::unordered_map<std::string, char> status;
    if (extended) {
      std::vector<uint8_t> list;
      int32_t rc = read_list(h, &list);
      if (rc) return rc;
      status_map(list, &status);
    }
    bool wasListing = h->listing;
    h->listing = true;
    int32_t rc = walk_tree(h, [&](uint32_t nodeOff, uint32_t recOff) -> int32_t {
      const uint8_t* r = record_ptr(h, nodeOff, recOff);
      const char* name = reinterpret_cast<const char*>(r + kRecHead);
      if (shregExprMatch(name, compiled.data()) <= 0) return 0;
      Info info{};
      int32_t size = 0;
      if (size_of(r, &size)) size = 0;
      info.time = int32_t(rd32(r + rec::kTime));
      info.size = size;
      info.name = name;
      if constexpr (std::is_same_v<Info, LMI_ENTRYINFOEX>) {
        bool inHand = h->state && nodeOff == h->eNode && recOff == h->eRec;
        if (inHand)
          std::strcpy(info.comment, h->comment);
        else if (comment_of(h, r, info.comment))
          info.comment[0] = 0;
        auto it = status.find(name);
        info.status = it == status.end() ? 'x' : it->second;
      }
      if (callback) callback(&info, userData);
      return 0;
    });
    h->listing = wasListing;
    return rc;
  });
}

}  // namespace

ZBSHR_API(int32_t) LMI_ListEntries(LMI_HANDLE handle, char* pattern, LMI_LISTCALLBACK callback,
                                   void* userData) {
  return list_entries<LMI_ENTRYINFO>(library_of(handle), pattern, callback, userData, false);
}

ZBSHR_API(int32_t) LMI_ListEntriesExtended(LMI_HANDLE handle, char* pattern,
                                           LMI_LISTCALLBACKEX callback, void* userData) {
  return list_entries<LMI_ENTRYINFOEX>(library_of(handle), pattern, callback, userData, true);
}

ZBSHR_API(int32_t) LMI_DeleteEntry(LMI_HANDLE handle, char* name) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (busy(h)) return LMI_E_BUSY;
  if (!name) return LMI_E_ARGUMENT;
  if (h->mode == 1) return LMI_E_READ_ONLY;
  return guard([&]() -> int32_t {
    lower_in_place(name);
    // The entry and its check-out record go in one operation. An unreadable
    // list does not keep the entry from being deleted.
    Op op(h);
    int32_t rc = remove_entry(h, name, true);
    if (rc == 0) rc = flush_maps(h);
    std::string other;
    char status = 0;
    std::vector<uint8_t> list;
    if (rc == 0 && read_list(h, &list) == 0)
      rc = drop_check_out_record(h, name, &other, &status, true);
    rc = op.end(rc);
    if (rc) return rc;
    // The record in the other library of a check-out; its failures are not reported.
    if ((status == 'd' || status == 's') && !other.empty()) {
      if (Library* o = open_library(h->heap, other.c_str(), 2, 0)) {
        std::string ignored;
        char st;
        drop_check_out_record(o, name, &ignored, &st, true);
        close_library_always(o);
      }
    }
    return 0;
  });
}

ZBSHR_API(int32_t) LMI_ModifyEntry(LMI_HANDLE handle, char* name, const char* comment) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!comment) return LMI_E_NULL_INFO;
  if (!name) return LMI_E_ARGUMENT;
  if (h->mode == 1) return LMI_E_READ_ONLY;
  return guard([&]() -> int32_t {
    LMI_ENTRYINFO info;
    int32_t rc = LMI_EntryInformation(handle, name, &info);
    if (rc) return rc;
    std::vector<uint8_t> data(size_t(info.size) + 1);
    rc = LMI_OpenEntry(handle, name, 1, nullptr);
    if (rc) return rc;
    int32_t got = info.size ? LMI_ReadEntry(handle, data.data(), info.size) : 0;
    LMI_CloseEntry(handle);
    if (got < 0) return got;
    if (got != info.size) return LMI_E_IO;
    rc = LMI_OpenEntry(handle, name, 3, comment);
    if (rc) return rc;
    int32_t put = info.size ? LMI_WriteEntry(handle, data.data(), info.size) : 0;
    rc = LMI_CloseEntry(handle);
    if (put < 0) return put;
    if (rc) return rc;
    return put == info.size ? 0 : LMI_E_IO;
  });
}

// ====================================================================== copy and move

namespace {

// Renames an entry inside one library without touching its data blocks.
int32_t rename_entry(Library* h, const char* name, const char* newName) {
  if (kRecHead + std::strlen(newName) + 1 > h->entrySpace) return LMI_E_ARGUMENT;
  Search s;
  int32_t rc = find_entry(h, name, &s);
  if (rc < 0) return rc;
  if (rc != kFound) return LMI_E_NOT_FOUND;
  uint8_t* r = record_ptr(h, s.node, s.rec);
  uint32_t first = rd32(r + rec::kFirst), len = rd32(r + rec::kLength);
  uint16_t clen = rd16(r + rec::kCommentLen);
  wr32(r + rec::kLength, 0);
  rc = remove_entry(h, name, true);
  if (rc) return rc;
  rc = find_entry(h, newName, &s);
  if (rc < 0) return rc;
  if (rc == kFound) {
    rc = remove_entry(h, newName, false);
    if (rc) return rc;
    rc = find_entry(h, newName, &s);
    if (rc < 0) return rc;
  } else {
    rc = insert_entry(h, newName, &s);
    if (rc) return rc;
  }
  r = record_ptr(h, s.node, s.rec);
  wr32(r + rec::kFirst, first);
  wr32(r + rec::kLength, len);
  wr16(r + rec::kCommentLen, clen);
  return write_node(h, s.node);
}

// Fills the entry just opened for writing in d from what `cr` has left to
// read in s, stamped with the source's time, and closes it.
int32_t copy_into(Library* d, Library* s, ChainReader* cr, uint32_t time,
                  std::vector<uint8_t>& chunk) {
  if (uint8_t* w = record_ptr(d, d->eNode, d->eRec)) wr32(w + rec::kTime, time);
  int32_t rc = 0;
  int32_t n;
  do {
    n = reader_read(s, cr, chunk.data(), 4096);
    if (n > 0) rc = append_data(d, chunk.data(), uint32_t(n));
  } while (rc == 0 && n == 4096);
  if (n < 0 && rc == 0) rc = n;
  if (rc == 0) return close_entry(d);
  d->state = 0;
  d->appending = false;
  return tx_end(d, rc);
}

int32_t copy_move(ZBSTG_HEAP heap, char* name, char* newName, char* sourcePath,
                  char* destinationPath, bool move, bool sequential) {
  if (!name || !sourcePath) return LMI_E_ARGUMENT;
  if (!newName && !destinationPath) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lower_in_place(name);
    lower_in_place(newName);
    lower_in_place(sourcePath);
    lower_in_place(destinationPath);
    std::string src = full_path(sourcePath);
    if (src.empty()) return LMI_E_ARGUMENT;
    std::string dst;
    if (destinationPath) {
      dst = full_path(destinationPath);
      if (dst.empty() || dst == src) return LMI_E_ARGUMENT;
    } else if (std::strcmp(newName, name) == 0) {
      return LMI_E_ARGUMENT;
    }
    const char* target = newName ? newName : name;

    if (move && !destinationPath) {
      Library* h = open_library(heap, src.c_str(), 2, 0);
      if (!h) return LMI_E_IO;
      int32_t rc;
      {
        Op op(h);
        rc = rename_entry(h, name, target);
        if (rc == 0) rc = flush_maps(h);
        if (rc == 0 && h->freed) rc = release_tail(h);
        rc = op.end(rc);
      }
      int32_t c = close_library_always(h);
      return rc ? rc : c;
    }

    bool same = !destinationPath;
    Library* s = open_library(heap, src.c_str(), (move || same) ? 2 : 1, 0);
    if (!s) return LMI_E_IO;
    Library* d = s;
    if (!same) {
      d = open_library(heap, dst.c_str(), 2, 0);
      if (!d) {
        close_library_always(s);
        return LMI_E_IO;
      }
    }
    int32_t rc = 0;
    std::vector<uint8_t> chunk(4096);
    uint32_t time = 0;
    if (same) {
      // One handle reads the source chain directly while it writes the copy.
      Search se;
      rc = find_entry(s, name, &se, sequential);
      if (rc >= 0 && rc != kFound) rc = LMI_E_NOT_FOUND;
      if (rc == kFound) {
        const uint8_t* r = record_ptr(s, se.node, se.rec);
        uint32_t first = rd32(r + rec::kFirst), len = rd32(r + rec::kLength);
        uint32_t clen = rd16(r + rec::kCommentLen);
        time = rd32(r + rec::kTime);
        char comment[256];
        rc = (clen > 255 || clen > len || len > s->fsize) ? LMI_E_DAMAGED : 0;
        std::vector<uint8_t> rbuf(16384);
        ChainReader cr;
        reader_start(s, &cr, first, len, rbuf.data(), uint32_t(rbuf.size()));
        if (rc == 0 && clen) {
          int32_t n = reader_read(s, &cr, comment, clen);
          rc = n < 0 ? n : uint32_t(n) != clen ? LMI_E_DAMAGED : 0;
        }
        comment[rc == 0 ? clen : 0] = 0;
        if (rc == 0) rc = tx_begin(d);
        if (rc == 0) {
          rc = open_write(d, target, comment);
          rc = rc == 0 ? copy_into(d, s, &cr, time, chunk) : tx_end(d, rc);
        }
      }
    } else {
      // A move changes both libraries as one.
      if (move) {
        pair_begin(s);
        pair_begin(d);
      }
      rc = open_read(s, name, sequential);
      if (rc == 0) {
        const uint8_t* r = record_ptr(s, s->eNode, s->eRec);
        time = rd32(r + rec::kTime);
        char comment[256];
        std::strcpy(comment, s->comment);
        rc = tx_begin(d);
        if (rc == 0) {
          rc = open_write(d, target, comment);
          rc = rc == 0 ? copy_into(d, s, &s->rd, time, chunk) : tx_end(d, rc);
        }
        close_entry(s);
        if (move && rc == 0) rc = LMI_DeleteEntry(reinterpret_cast<LMI_HANDLE>(s), name);
      }
      if (move && rc == 0) {
        rc = pair_commit(s, d);
      } else if (move) {
        pair_discard(s);
        pair_discard(d);
      }
    }
    if (!same) {
      int32_t c = close_library_always(d);
      if (rc == 0) rc = c;
    }
    int32_t c = close_library_always(s);
    if (rc == 0) rc = c;
    return rc;
  });
}

}  // namespace

ZBSHR_API(int32_t) LMI_CopyEntry(ZBSTG_HEAP heap, char* name, char* newName, char* sourcePath,
                                 char* destinationPath) {
  return copy_move(heap, name, newName, sourcePath, destinationPath, false, false);
}

ZBSHR_API(int32_t) LMI_CopyEntrySequential(ZBSTG_HEAP heap, char* name, char* newName,
                                           char* sourcePath, char* destinationPath) {
  return copy_move(heap, name, newName, sourcePath, destinationPath, false, true);
}

ZBSHR_API(int32_t) LMI_MoveEntry(ZBSTG_HEAP heap, char* name, char* newName, char* sourcePath,
                                 char* destinationPath) {
  return copy_move(heap, name, newName, sourcePath, destinationPath, true, false);
}

ZBSHR_API(int32_t) zbshr_lib_write_through(int32_t on) {
  int32_t prev = write_through_setting() ? 1 : 0;
  if (on == 0 || on == 1) set_write_through(on != 0);
  return prev;
}
