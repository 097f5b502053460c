// Library files: the exported LMI_ library, entry, copy and move operations.
#include <algorithm>
#include <new>

#include "library/recovery.h"
#include "zbshr/format.h"
#include "zbshr/memory.h"

using namespace zbshr::lm;
namespace plat = zbshr::plat;

namespace zbshr::lm {

Library* H(LMI_HANDLE h) { return reinterpret_cast<Library*>(h); }

// Opens the named entry of `h` for reading (the comment goes into the handle).
int32_t openRead(Library* h, const char* name, bool tolerant) {
  Search s;
  int32_t rc = findEntry(h, name, &s, tolerant);
  if (rc < 0) return rc;
  if (rc != kFound) return LMI_E_NOT_FOUND;
  const uint8_t* r = recordPtr(h, s.node, s.rec);
  uint32_t clen = rd16(r + rec::kCommentLen), len = rd32(r + rec::kLength);
  if (clen > 255 || clen > len || len > h->fsize) return LMI_E_DAMAGED;
  readerStart(h, &h->rd, rd32(r + rec::kFirst), len, h->dbuf, h->dblocks * kBlock);
  if (clen) {
    int32_t n = readerRead(h, &h->rd, h->comment, clen);
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
static int32_t commentOf(Library* h, const uint8_t* r, char* out) {
  out[0] = 0;
  uint32_t clen = rd16(r + rec::kCommentLen), first = rd32(r + rec::kFirst);
  if (clen == 0 || first == 0) return 0;
  if (clen > 255 || clen > rd32(r + rec::kLength) || !validDataOffset(h, first))
    return LMI_E_DAMAGED;
  uint8_t blk[kBlock];
  int32_t rc = readAt(h, first, blk, kBlock);
  if (rc) return rc;
  if (std::memcmp(blk, "DAT*", 4) != 0 || rd16(blk + 8) < clen) return LMI_E_DAMAGED;
  std::memcpy(out, blk + 10, clen);
  out[clen] = 0;
  return 0;
}

static void trimComment(char* dst, const char* src) {
  size_t n = std::min<size_t>(std::strlen(src), 255);
  std::memcpy(dst, src, n);
  while (n > 0 && dst[n - 1] == ' ') --n;
  dst[n] = 0;
}

int32_t openWrite(Library* h, const char* name, const char* comment) {
  Search s;
  int32_t rc = findEntry(h, name, &s);
  if (rc < 0) return rc;
  writerStart(h);
  if (rc == kFound) {
    uint8_t* r = recordPtr(h, s.node, s.rec);
    uint32_t clen = rd16(r + rec::kCommentLen), len = rd32(r + rec::kLength);
    h->comment[0] = 0;
    if (clen) {
      if (clen > 255 || clen > len || len > h->fsize) return LMI_E_DAMAGED;
      ChainReader cr;
      readerStart(h, &cr, rd32(r + rec::kFirst), len, h->dbuf, h->dblocks * kBlock);
      int32_t n = readerRead(h, &cr, h->comment, clen);
      if (n < 0) return n;
      if (uint32_t(n) != clen) return LMI_E_DAMAGED;
      h->comment[clen] = 0;
    }
    rc = freeChain(h, len, rd32(r + rec::kFirst));
    if (rc) return rc;
    r = recordPtr(h, s.node, s.rec);
    wr32(r + rec::kFirst, 0);
    wr32(r + rec::kLength, 0);
    wr32(r + rec::kTime, uint32_t(now32()));
    wr16(r + rec::kCommentLen, 0);
    rc = writeNode(h, s.node, s.rec + rec::kFirst, s.rec + kRecHead);
    if (rc) return rc;
  } else {
    h->comment[0] = 0;
    rc = insertEntry(h, name, &s);
    if (rc) return rc;
  }
  if (comment && *comment) trimComment(h->comment, comment);
  uint32_t clen = uint32_t(std::strlen(h->comment));
  rc = clen ? appendData(h, h->comment, clen) : 0;
  uint8_t* r = recordPtr(h, s.node, s.rec);
  wr16(r + rec::kCommentLen, uint16_t(rc == 0 ? clen : 0));
  wr32(r + rec::kLength, h->wLength);
  h->eNode = s.node;
  h->eRec = s.rec;
  h->state = 3;
  return 0;
}

// Ends the entry in hand. A written entry is one operation from openWrite to
// here: the data, the bitmaps, the record and the released tail are
// committed together, or nothing is.
int32_t closeEntry(Library* h) {
  int state = h->state;
  h->state = 0;
  if (state == 1) return 0;
  if (state == kWriteFailed) return LMI_E_IO;  // rolled back when the write failed
  int32_t rc = flushData(h);
  if (rc == 0) {
    uint8_t* r = recordPtr(h, h->eNode, h->eRec);
    if (!r) rc = LMI_E_DAMAGED;
    if (rc == 0) {
      wr32(r + rec::kFirst, h->wFirst);
      wr32(r + rec::kLength, h->wLength);
      rc = writeNode(h, h->eNode, h->eRec + rec::kFirst, h->eRec + kRecHead);
    }
  }
  if (rc == 0) rc = flushMaps(h);
  if (rc == 0 && h->freed) rc = releaseTail(h);
  h->appending = false;
  return txEnd(h, rc);
}

}  // namespace zbshr::lm

namespace {

template <class F>
int32_t guard(F&& f) {
  errBegin();
  try {
    return errEnd(f());
  } catch (...) {
    return errEnd(LMI_E_IO);
  }
}

bool busy(Library* h) { return h->state != 0 || h->listing; }

}  // namespace

// ====================================================================== libraries

ZBSHR_API(LMI_HANDLE) LMI_OpenLibrary(ZBSTG_HEAP heap, char* path, int32_t mode,
                                      int32_t readAheadSize) {
  if (!heap || !path || (readAheadSize != 0 && readAheadSize < 512) || mode < 1 || mode > 3)
    return nullptr;
  errBegin();
  try {
    lowerInPlace(path);
    Library* lib = openLibrary(heap, path, mode, readAheadSize);
    errEnd(lib ? 0 : LMI_E_IO);
    return reinterpret_cast<LMI_HANDLE>(lib);
  } catch (...) {
    errEnd(LMI_E_IO);
    return nullptr;
  }
}

ZBSHR_API(int32_t) LMI_CreateLibrary(ZBSTG_HEAP heap, char* path, const char* comment) {
  if (!path) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lowerInPlace(path);
    std::string p = path;
    size_t slash = p.find_last_of("/\\");
    size_t dot = p.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
      p += ".zbl";
    } else {
      std::string e = p.substr(dot);
      if (e != ".zbd" && e != ".zbl" && e != ".tmp") return LMI_E_ARGUMENT;
    }
    std::string full = fullPath(p.c_str());
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
    bool wt = writeThroughSetting();
    int32_t rc = writeAt(&tmp, 0, img, 1024);
    if (rc == 0) rc = writeAt(&tmp, 1024, img + 1024, 3072);
    if (rc == 0 && wt && ((ioHook && ioHook('s', false, 0, 0) == 0) || !plat::FlushFileBuffers(f)))
      rc = LMI_E_IO;
    plat::CloseHandle(f);
    if (rc == 0 && ioHook && ioHook('m', false, 0, 0) == 0) rc = LMI_E_IO;
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
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  return guard([&]() -> int32_t {
    if (h->kept_by_session) return 0;
    if (h->state) {
      bool failedWrite = h->state == kWriteFailed;
      int32_t rc = closeEntry(h);
      if (rc && h->mode != 1 && !failedWrite) return rc;
    }
    return closeLibrary(h);
  });
}

ZBSHR_API(int32_t) LMI_DeleteLibrary(ZBSTG_HEAP heap, char* path) {
  if (!path) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lowerInPlace(path);
    Library* h = openLibrary(heap, path, 1, 0);
    if (!h) return LMI_E_IO;
    std::string full = h->path;
    if (closeLibrary(h)) return LMI_E_IO;
    return plat::DeleteFileA(full.c_str()) ? 0 : LMI_E_IO;
  });
}

ZBSHR_API(int32_t) LMI_LibraryInformation(LMI_HANDLE handle, LMI_LIBRARYINFO* info) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!info) return LMI_E_NULL_INFO;
  info->checkOutLength = int32_t(rd32(h->fixed + hdr::kListLen));
  info->creationTime = int32_t(rd32(h->fixed + hdr::kCreated));
  info->comment = reinterpret_cast<const char*>(h->fixed + hdr::kComment);
  return 0;
}

ZBSHR_API(int32_t) LMI_ModifyLibrary(LMI_HANDLE handle, LMI_LIBRARYMOD* modification) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!modification) return LMI_E_NULL_INFO;
  if (h->mode != 3) return LMI_E_READ_ONLY;
  if (!modification->comment) return 0;
  return guard([&]() -> int32_t {
    Op op(h);
    std::memset(h->fixed + hdr::kComment, 0, 256);
    std::memcpy(h->fixed + hdr::kComment, modification->comment,
                std::min<size_t>(std::strlen(modification->comment), 255));
    return op.end(writeAt(h, h->base, h->fixed, kBlock));
  });
}

// ====================================================================== entries

ZBSHR_API(int32_t) LMI_OpenEntry(LMI_HANDLE handle, char* name, int32_t mode,
                                 const char* comment) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (busy(h)) return LMI_E_BUSY;
  if (!name) return LMI_E_ARGUMENT;
  if (mode != 1 && mode != 3) return LMI_E_MODE;
  if (mode == 3 && h->mode == 1) return LMI_E_READ_ONLY;
  if (mode == 1 && h->mode == 3) return LMI_E_NOT_READABLE;
  return guard([&]() -> int32_t {
    lowerInPlace(name);
    if (mode == 1) return openRead(h, name, false);
    int32_t rc = txBegin(h);
    if (rc) return rc;
    try {
      rc = openWrite(h, name, comment);
      if (rc == 0) rc = flushMaps(h);
    } catch (...) {
      rc = LMI_E_IO;
    }
    if (rc) {
      h->state = 0;
      return txEnd(h, rc);
    }
    return 0;
  });
}

ZBSHR_API(int32_t) LMI_ReadEntry(LMI_HANDLE handle, void* buffer, int32_t count) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!buffer) return LMI_E_NULL_BUFFER;
  if (count <= 0) return LMI_E_ZERO_LENGTH;
  if (h->state != 1) return LMI_E_NOT_READABLE;
  return guard([&]() -> int32_t { return readerRead(h, &h->rd, buffer, uint32_t(count)); });
}

ZBSHR_API(int32_t) LMI_WriteEntry(LMI_HANDLE handle, const void* buffer, int32_t count) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!buffer) return LMI_E_NULL_BUFFER;
  if (count <= 0) return LMI_E_ZERO_LENGTH;
  if (h->state == kWriteFailed) return LMI_E_IO;
  if (h->state != 3) return LMI_E_READ_ONLY;
  return guard([&]() -> int32_t {
    int32_t rc;
    try {
      rc = appendData(h, buffer, uint32_t(count));
      if (uint8_t* r = recordPtr(h, h->eNode, h->eRec)) wr32(r + rec::kLength, h->wLength);
    } catch (...) {
      rc = LMI_E_IO;
    }
    if (rc == 0) return count;
    // The entry is given up: everything since it was opened is rolled back,
    // and the entry stays in hand (refusing writes) until it is closed.
    txRollback(h);
    h->state = kWriteFailed;
    return rc;
  });
}

ZBSHR_API(int32_t) LMI_CloseEntry(LMI_HANDLE handle) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (h->state == 0) return LMI_E_NOT_OPEN;
  return guard([&]() -> int32_t { return closeEntry(h); });
}

ZBSHR_API(int32_t) LMI_EntryExists(LMI_HANDLE handle, char* name) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (busy(h)) return LMI_E_BUSY;
  if (!name) return LMI_E_ARGUMENT;
  return guard([&]() -> int32_t {
    lowerInPlace(name);
    Search s;
    int32_t rc = findEntry(h, name, &s);
    if (rc < 0) return rc;
    return rc == kFound ? 0 : LMI_E_NOT_FOUND;
  });
}

namespace {

// Finds the record for an information call: the entry in hand when the name
// is its name, otherwise a search (with nothing in hand).
int32_t infoRecord(Library* h, char* name, const uint8_t** r, bool* inHand) {
  lowerInPlace(name);
  *inHand = false;
  if (h->listing || h->state == kWriteFailed) return LMI_E_BUSY;
  if (h->state) {
    const uint8_t* cur = recordPtr(h, h->eNode, h->eRec);
    if (!cur || std::strcmp(reinterpret_cast<const char*>(cur + kRecHead), name) != 0)
      return LMI_E_BUSY;
    *r = cur;
    *inHand = true;
    return 0;
  }
  Search s;
  int32_t rc = findEntry(h, name, &s);
  if (rc < 0) return rc;
  if (rc != kFound) return LMI_E_NOT_FOUND;
  *r = recordPtr(h, s.node, s.rec);
  return 0;
}

int32_t sizeOf(const uint8_t* r, int32_t* size) {
  uint32_t len = rd32(r + rec::kLength), clen = rd16(r + rec::kCommentLen);
  if (clen > len) return LMI_E_DAMAGED;
  *size = int32_t(len - clen);
  return 0;
}

// Answers an information call: `extra(h, r, inHand)` fills what only that
// kind of information has, and may fail, before the shared fields are set.
template <class Info, class Extra>
int32_t entryInfo(LMI_HANDLE handle, char* name, Info* info, Extra&& extra) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!name) return LMI_E_ARGUMENT;
  if (!info) return LMI_E_NULL_INFO;
  return guard([&]() -> int32_t {
    const uint8_t* r;
    bool inHand;
    int32_t rc = infoRecord(h, name, &r, &inHand);
    if (rc) return rc;
    int32_t size;
    if ((rc = sizeOf(r, &size))) return rc;
    if ((rc = extra(h, r, inHand))) return rc;
    info->time = int32_t(rd32(r + rec::kTime));
    info->size = size;
    info->name = reinterpret_cast<const char*>(r + kRecHead);
    return 0;
  });
}

}  // namespace

ZBSHR_API(int32_t) LMI_EntryInformation(LMI_HANDLE handle, char* name, LMI_ENTRYINFO* info) {
  return entryInfo(handle, name, info, [](Library*, const uint8_t*, bool) -> int32_t { return 0; });
}

ZBSHR_API(int32_t) LMI_EntryInfoExtended(LMI_HANDLE handle, char* name, LMI_ENTRYINFOEX* info) {
  return entryInfo(handle, name, info, [&](Library* h, const uint8_t* r, bool inHand) -> int32_t {
    if (!inHand) return commentOf(h, r, info->comment);
    std::strcpy(info->comment, h->comment);
    return 0;
  });
}

namespace {

// First status byte recorded for each entry name in a check-out list.
void statusMap(const std::vector<uint8_t>& list, std::unordered_map<std::string, char>* out) {
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
int32_t listEntries(Library* h, char* pattern, Cb callback, void* userData, bool extended) {
  if (!h) return LMI_E_NULL_HANDLE;
  if (!pattern) return LMI_E_PATTERN;
  return guard([&]() -> int32_t {
    lowerInPlace(pattern);
    uint32_t size = uint32_t(std::strlen(pattern)) * 3;
    std::vector<unsigned char> compiled(size + 1);
    if (size == 0 || shregExprCmpl(compiled.data(), pattern, int32_t(size)) != 0)
      return LMI_E_PATTERN;
    std::unordered_map<std::string, char> status;
    if (extended) {
      std::vector<uint8_t> list;
      int32_t rc = readList(h, &list);
      if (rc) return rc;
      statusMap(list, &status);
    }
    bool wasListing = h->listing;
    h->listing = true;
    int32_t rc = walkTree(h, [&](uint32_t nodeOff, uint32_t recOff) -> int32_t {
      const uint8_t* r = recordPtr(h, nodeOff, recOff);
      const char* name = reinterpret_cast<const char*>(r + kRecHead);
      if (shregExprMatch(name, compiled.data()) <= 0) return 0;
      Info info{};
      int32_t size = 0;
      if (sizeOf(r, &size)) size = 0;
      info.time = int32_t(rd32(r + rec::kTime));
      info.size = size;
      info.name = name;
      if constexpr (std::is_same_v<Info, LMI_ENTRYINFOEX>) {
        bool inHand = h->state && nodeOff == h->eNode && recOff == h->eRec;
        if (inHand)
          std::strcpy(info.comment, h->comment);
        else if (commentOf(h, r, info.comment))
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
  return listEntries<LMI_ENTRYINFO>(H(handle), pattern, callback, userData, false);
}

ZBSHR_API(int32_t) LMI_ListEntriesExtended(LMI_HANDLE handle, char* pattern,
                                           LMI_LISTCALLBACKEX callback, void* userData) {
  return listEntries<LMI_ENTRYINFOEX>(H(handle), pattern, callback, userData, true);
}

ZBSHR_API(int32_t) LMI_DeleteEntry(LMI_HANDLE handle, char* name) {
  Library* h = H(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (busy(h)) return LMI_E_BUSY;
  if (!name) return LMI_E_ARGUMENT;
  if (h->mode == 1) return LMI_E_READ_ONLY;
  return guard([&]() -> int32_t {
    lowerInPlace(name);
    // The entry and its check-out record go in one operation. An unreadable
    // list does not keep the entry from being deleted.
    Op op(h);
    int32_t rc = removeEntry(h, name, true);
    if (rc == 0) rc = flushMaps(h);
    std::string other;
    char status = 0;
    std::vector<uint8_t> list;
    if (rc == 0 && readList(h, &list) == 0)
      rc = dropCheckOutRecord(h, name, &other, &status, true);
    rc = op.end(rc);
    if (rc) return rc;
    // The record in the other library of a check-out; its failures are not reported.
    if ((status == 'd' || status == 's') && !other.empty()) {
      if (Library* o = openLibrary(h->heap, other.c_str(), 2, 0)) {
        std::string ignored;
        char st;
        dropCheckOutRecord(o, name, &ignored, &st, true);
        closeLibraryAlways(o);
      }
    }
    return 0;
  });
}

ZBSHR_API(int32_t) LMI_ModifyEntry(LMI_HANDLE handle, char* name, const char* comment) {
  Library* h = H(handle);
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
int32_t renameEntry(Library* h, const char* name, const char* newName) {
  if (kRecHead + std::strlen(newName) + 1 > h->entrySpace) return LMI_E_ARGUMENT;
  Search s;
  int32_t rc = findEntry(h, name, &s);
  if (rc < 0) return rc;
  if (rc != kFound) return LMI_E_NOT_FOUND;
  uint8_t* r = recordPtr(h, s.node, s.rec);
  uint32_t first = rd32(r + rec::kFirst), len = rd32(r + rec::kLength);
  uint16_t clen = rd16(r + rec::kCommentLen);
  wr32(r + rec::kLength, 0);
  rc = removeEntry(h, name, true);
  if (rc) return rc;
  rc = findEntry(h, newName, &s);
  if (rc < 0) return rc;
  if (rc == kFound) {
    rc = removeEntry(h, newName, false);
    if (rc) return rc;
    rc = findEntry(h, newName, &s);
    if (rc < 0) return rc;
  } else {
    rc = insertEntry(h, newName, &s);
    if (rc) return rc;
  }
  r = recordPtr(h, s.node, s.rec);
  wr32(r + rec::kFirst, first);
  wr32(r + rec::kLength, len);
  wr16(r + rec::kCommentLen, clen);
  return writeNode(h, s.node);
}

// Fills the entry just opened for writing in d from what `cr` has left to
// read in s, stamped with the source's time, and closes it.
int32_t copyInto(Library* d, Library* s, ChainReader* cr, uint32_t time,
                 std::vector<uint8_t>& chunk) {
  if (uint8_t* w = recordPtr(d, d->eNode, d->eRec)) wr32(w + rec::kTime, time);
  int32_t rc = 0;
  int32_t n;
  do {
    n = readerRead(s, cr, chunk.data(), 4096);
    if (n > 0) rc = appendData(d, chunk.data(), uint32_t(n));
  } while (rc == 0 && n == 4096);
  if (n < 0 && rc == 0) rc = n;
  if (rc == 0) return closeEntry(d);
  d->state = 0;
  d->appending = false;
  return txEnd(d, rc);
}

int32_t copyMove(ZBSTG_HEAP heap, char* name, char* newName, char* sourcePath,
                 char* destinationPath, bool move, bool sequential) {
  if (!name || !sourcePath) return LMI_E_ARGUMENT;
  if (!newName && !destinationPath) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lowerInPlace(name);
    lowerInPlace(newName);
    lowerInPlace(sourcePath);
    lowerInPlace(destinationPath);
    std::string src = fullPath(sourcePath);
    if (src.empty()) return LMI_E_ARGUMENT;
    std::string dst;
    if (destinationPath) {
      dst = fullPath(destinationPath);
      if (dst.empty() || dst == src) return LMI_E_ARGUMENT;
    } else if (std::strcmp(newName, name) == 0) {
      return LMI_E_ARGUMENT;
    }
    const char* target = newName ? newName : name;

    if (move && !destinationPath) {
      Library* h = openLibrary(heap, src.c_str(), 2, 0);
      if (!h) return LMI_E_IO;
      int32_t rc;
      {
        Op op(h);
        rc = renameEntry(h, name, target);
        if (rc == 0) rc = flushMaps(h);
        if (rc == 0 && h->freed) rc = releaseTail(h);
        rc = op.end(rc);
      }
      int32_t c = closeLibraryAlways(h);
      return rc ? rc : c;
    }

    bool same = !destinationPath;
    Library* s = openLibrary(heap, src.c_str(), (move || same) ? 2 : 1, 0);
    if (!s) return LMI_E_IO;
    Library* d = s;
    if (!same) {
      d = openLibrary(heap, dst.c_str(), 2, 0);
      if (!d) {
        closeLibraryAlways(s);
        return LMI_E_IO;
      }
    }
    int32_t rc = 0;
    std::vector<uint8_t> chunk(4096);
    uint32_t time = 0;
    if (same) {
      // One handle reads the source chain directly while it writes the copy.
      Search se;
      rc = findEntry(s, name, &se, sequential);
      if (rc >= 0 && rc != kFound) rc = LMI_E_NOT_FOUND;
      if (rc == kFound) {
        const uint8_t* r = recordPtr(s, se.node, se.rec);
        uint32_t first = rd32(r + rec::kFirst), len = rd32(r + rec::kLength);
        uint32_t clen = rd16(r + rec::kCommentLen);
        time = rd32(r + rec::kTime);
        char comment[256];
        rc = (clen > 255 || clen > len || len > s->fsize) ? LMI_E_DAMAGED : 0;
        std::vector<uint8_t> rbuf(16384);
        ChainReader cr;
        readerStart(s, &cr, first, len, rbuf.data(), uint32_t(rbuf.size()));
        if (rc == 0 && clen) {
          int32_t n = readerRead(s, &cr, comment, clen);
          rc = n < 0 ? n : uint32_t(n) != clen ? LMI_E_DAMAGED : 0;
        }
        comment[rc == 0 ? clen : 0] = 0;
        if (rc == 0) rc = txBegin(d);
        if (rc == 0) {
          rc = openWrite(d, target, comment);
          rc = rc == 0 ? copyInto(d, s, &cr, time, chunk) : txEnd(d, rc);
        }
      }
    } else {
      // A move changes both libraries as one.
      if (move) {
        pairBegin(s);
        pairBegin(d);
      }
      rc = openRead(s, name, sequential);
      if (rc == 0) {
        const uint8_t* r = recordPtr(s, s->eNode, s->eRec);
        time = rd32(r + rec::kTime);
        char comment[256];
        std::strcpy(comment, s->comment);
        rc = txBegin(d);
        if (rc == 0) {
          rc = openWrite(d, target, comment);
          rc = rc == 0 ? copyInto(d, s, &s->rd, time, chunk) : txEnd(d, rc);
        }
        closeEntry(s);
        if (move && rc == 0) rc = LMI_DeleteEntry(reinterpret_cast<LMI_HANDLE>(s), name);
      }
      if (move && rc == 0) {
        rc = pairCommit(s, d);
      } else if (move) {
        pairDiscard(s);
        pairDiscard(d);
      }
    }
    if (!same) {
      int32_t c = closeLibraryAlways(d);
      if (rc == 0) rc = c;
    }
    int32_t c = closeLibraryAlways(s);
    if (rc == 0) rc = c;
    return rc;
  });
}

}  // namespace

ZBSHR_API(int32_t) LMI_CopyEntry(ZBSTG_HEAP heap, char* name, char* newName, char* sourcePath,
                                 char* destinationPath) {
  return copyMove(heap, name, newName, sourcePath, destinationPath, false, false);
}

ZBSHR_API(int32_t) LMI_CopyEntrySequential(ZBSTG_HEAP heap, char* name, char* newName,
                                           char* sourcePath, char* destinationPath) {
  return copyMove(heap, name, newName, sourcePath, destinationPath, false, true);
}

ZBSHR_API(int32_t) LMI_MoveEntry(ZBSTG_HEAP heap, char* name, char* newName, char* sourcePath,
                                 char* destinationPath) {
  return copyMove(heap, name, newName, sourcePath, destinationPath, true, false);
}

ZBSHR_API(int32_t) zbshr_lib_write_through(int32_t on) {
  int32_t prev = writeThroughSetting() ? 1 : 0;
  if (on == 0 || on == 1) setWriteThrough(on != 0);
  return prev;
}
