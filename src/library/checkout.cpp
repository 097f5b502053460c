// Library files: check-out records. Each library keeps one byte string of
// records {other library, entry name, user, status byte}; every change
// rewrites the whole string as a new data chain.
#include <algorithm>

#include "library/recovery.h"
#include "zbshr/memory.h"

using namespace zbshr::lm;

namespace {

struct Record {
  size_t start = 0, end = 0;  // bytes [start, end) of the list
  std::string other, name, user;
  char status = 0;
};

// Splits a list into records; false when it ends inside a record.
bool parse(const std::vector<uint8_t>& list, std::vector<Record>* out) {
  const char* b = reinterpret_cast<const char*>(list.data());
  size_t p = 0, n = list.size();
  while (p < n) {
    Record r;
    r.start = p;
    std::string* f[3] = {&r.other, &r.name, &r.user};
    for (auto s : f) {
      const void* z = std::memchr(b + p, 0, n - p);
      if (!z) return false;
      size_t e = size_t(static_cast<const char*>(z) - b);
      s->assign(b + p, e - p);
      p = e + 1;
    }
    if (p >= n) return false;
    r.status = b[p++];
    r.end = p;
    out->push_back(std::move(r));
  }
  return true;
}

void append_record(std::vector<uint8_t>* list, const std::string& other, const char* name,
                   const std::string& user, char status) {
  for (const std::string& s : {other, std::string(name), user}) {
    list->insert(list->end(), s.begin(), s.end());
    list->push_back(0);
  }
  list->push_back(uint8_t(status));
}

// Rewrites the list of `h` with one record added.
int32_t add_record(Library* h, const std::string& other, const char* name, const std::string& user,
                   char status) {
  Op op(h);
  std::vector<uint8_t> list;
  if (read_list(h, &list)) return op.end(LMI_E_IO);
  append_record(&list, other, name, user, status);
  return op.end(write_list(h, list, true));
}

template <class F>
int32_t guard(F&& f) {
  err_begin();
  try {
    return err_end(f());
  } catch (...) {
    return err_end(LMI_E_IO);
  }
}

// Closes a library opened here (keeping nothing open on failure).
// Closes a library in every case; returns the error of its final writes.
int32_t finish(Library* h) { return h ? close_library_always(h) : 0; }

// Runs op on the library at path, opened here in the given mode and closed
// again afterwards; a library that does not open is an I/O error.
template <class F>
int32_t with_library(ZBSTG_HEAP heap, const char* path, int32_t mode, F&& op) {
  Library* h = open_library(heap, path, mode, 0);
  if (!h) return LMI_E_IO;
  // A change is one operation, with the tail it frees released inside it.
  int32_t rc = mode == 1 ? op(h) : tx_begin(h);
  if (rc == 0 && mode != 1) rc = tx_end_releasing(h, op(h));
  int32_t c = finish(h);
  return rc ? rc : c;
}

// The first record for entry `name`, or null.
const Record* find_record(const std::vector<Record>& recs, const char* name) {
  for (const Record& r : recs)
    if (r.name == name) return &r;
  return nullptr;
}

}  // namespace

namespace zbshr::lm {

// ------------------------------------------------------------------ check-out list

int32_t read_list(Library* h, std::vector<uint8_t>* out) {
  out->clear();
  uint32_t first = rd32(h->fixed + hdr::kListFirst);
  uint32_t len = rd32(h->fixed + hdr::kListLen);
  if (len == 0) return 0;
  if (first == 0) return LMI_E_IO;
  return read_chain(h, first, len, out) ? LMI_E_IO : 0;
}

int32_t write_list(Library* h, const std::vector<uint8_t>& bytes, bool freeOld) {
  int32_t rc;
  if (freeOld) {
    rc = free_chain(h, rd32(h->fixed + hdr::kListLen), rd32(h->fixed + hdr::kListFirst));
    if (rc) return rc;
  }
  uint32_t first = 0;
  if (!bytes.empty()) {
    rc = write_chain(h, bytes.data(), uint32_t(bytes.size()), &first);
    if (rc) return rc;
  }
  wr32(h->fixed + hdr::kListFirst, first);
  wr32(h->fixed + hdr::kListLen, uint32_t(bytes.size()));
  rc = flush_maps(h);
  if (rc) return rc;
  return write_at(h, h->base, h->fixed, kBlock);
}

int32_t drop_check_out_record(Library* h, const char* name, std::string* other, char* status,
                              bool onlyIfPresent) {
  *status = 0;
  Op op(h);
  std::vector<uint8_t> list;
  if (read_list(h, &list)) return op.end(LMI_E_IO);
  std::vector<Record> recs;
  parse(list, &recs);
  if (const Record* r = find_record(recs, name)) {
    *other = r->other;
    *status = r->status;
    list.erase(list.begin() + long(r->start), list.begin() + long(r->end));
  }
  if (onlyIfPresent && *status == 0) return op.end(0);
  return op.end(write_list(h, list, true));
}

}  // namespace zbshr::lm

ZBSHR_API(int32_t) LMI_CheckOutEntry(ZBSTG_HEAP heap, char* name, char* sourcePath,
                                     char* workPath, char* user) {
  if (!name || !sourcePath || !workPath || !user) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lower_in_place(name);
    lower_in_place(sourcePath);
    lower_in_place(workPath);
    Library* s = open_library(heap, sourcePath, 2, 0);
    if (!s) return LMI_E_IO;
    Library* w = open_library(heap, workPath, 2, 0);
    if (!w) {
      finish(s);
      return LMI_E_IO;
    }
    // Both records are committed together, as one change of the two libraries.
    pair_begin(s);
    pair_begin(w);
    int32_t rc = tx_begin(s);
    if (rc == 0) {
      int32_t rw = tx_begin(w);
      if (rw == 0) {
        rc = add_record(s, w->path, name, user, 'd');
        if (rc == 0) rc = add_record(w, s->path, name, user, 's');
        rc = tx_end_releasing(w, rc);
      } else {
        rc = rw;
      }
      rc = tx_end_releasing(s, rc);
    }
    if (rc == 0) {
      rc = pair_commit(s, w);
    } else {
      pair_discard(s);
      pair_discard(w);
    }
    int32_t cw = finish(w), cs = finish(s);
    return rc ? rc : cw ? cw : cs;
  });
}

ZBSHR_API(int32_t) LMI_CheckInEntry(ZBSTG_HEAP heap, char* name, char* workPath,
                                    char* sourcePath) {
  if (!name || !workPath || !sourcePath) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lower_in_place(name);
    lower_in_place(workPath);
    Library* w = open_library(heap, workPath, 2, 0);
    if (!w) return LMI_E_IO;
    std::vector<uint8_t> list;
    if (read_list(w, &list)) {
      finish(w);
      return LMI_E_IO;
    }
    std::vector<Record> recs;
    parse(list, &recs);
    Record found;
    if (const Record* r = find_record(recs, name)) found = *r;
    std::strcpy(sourcePath, found.other.c_str());
    Library* s = found.other.empty() ? nullptr : open_library(heap, found.other.c_str(), 2, 0);
    if (!s) {
      finish(w);
      return LMI_E_IO;
    }
    std::string other;
    char status;
    // Both records go together, as one change of the two libraries.
    pair_begin(s);
    pair_begin(w);
    int32_t rc = tx_begin(w);
    if (rc == 0) {
      int32_t rs = tx_begin(s);
      if (rs == 0) {
        rc = drop_check_out_record(w, name, &other, &status);
        if (rc == 0) rc = drop_check_out_record(s, name, &other, &status);
        rc = tx_end_releasing(s, rc);
      } else {
        rc = rs;
      }
      rc = tx_end_releasing(w, rc);
    }
    if (rc == 0) {
      rc = pair_commit(s, w);
    } else {
      pair_discard(s);
      pair_discard(w);
    }
    int32_t cs = finish(s), cw = finish(w);
    return rc ? rc : cs ? cs : cw;
  });
}

ZBSHR_API(int32_t) LMI_CheckRegisterEntry(ZBSTG_HEAP heap, char* libraryPath, char* name) {
  if (!libraryPath || !name) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lower_in_place(libraryPath);
    lower_in_place(name);
    return with_library(heap, libraryPath, 2,
                        [&](Library* h) { return add_record(h, "", name, "", 'r'); });
  });
}

ZBSHR_API(int32_t) LMI_CheckClearRegEntry(ZBSTG_HEAP heap, char* libraryPath, char* name) {
  if (!libraryPath || !name) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lower_in_place(libraryPath);
    lower_in_place(name);
    return with_library(heap, libraryPath, 2, [&](Library* h) {
      std::string other;
      char status;
      return drop_check_out_record(h, name, &other, &status);
    });
  });
}

ZBSHR_API(int32_t) LMI_IsEntryCheckedOut(LMI_HANDLE handle, char* name, char* userOut,
                                         char* statusOut, char* otherLibraryOut) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (h->state || h->listing) return LMI_E_BUSY;
  if (!name) return LMI_E_ARGUMENT;
  if (userOut) userOut[0] = 0;
  if (statusOut) *statusOut = 0;
  if (otherLibraryOut) otherLibraryOut[0] = 0;
  return guard([&]() -> int32_t {
    lower_in_place(name);
    std::vector<uint8_t> list;
    if (read_list(h, &list)) return LMI_E_IO;
    std::vector<Record> recs;
    parse(list, &recs);
    const Record* r = find_record(recs, name);
    if (!r) return 0;
    if (userOut) std::strcpy(userOut, r->user.c_str());
    if (statusOut) *statusOut = r->status;
    if (otherLibraryOut) std::strcpy(otherLibraryOut, r->other.c_str());
    if (r->status == 'r') return LMI_E_REGISTERED;
    if (r->status == 'd' || r->status == 's') return LMI_E_CHECKED_OUT;
    return 0;
  });
}

ZBSHR_API(int32_t) LMI_GetCheckOutEntries(LMI_HANDLE handle, void* buffer) {
  Library* h = library_of(handle);
  if (!h) return LMI_E_NULL_HANDLE;
  if (!buffer) return LMI_E_NULL_BUFFER;
  if (h->state || h->listing) return LMI_E_BUSY;
  if (h->mode != 1) return LMI_E_NOT_READABLE;
  return guard([&]() -> int32_t {
    std::vector<uint8_t> list;
    if (rd32(h->fixed + hdr::kListLen) == 0 || read_list(h, &list)) return LMI_E_IO;
    std::memcpy(buffer, list.data(), list.size());
    return 0;
  });
}

ZBSHR_API(int32_t) LMI_SetCheckOutEntries(ZBSTG_HEAP heap, char* libraryPath, const void* bytes,
                                          int32_t count) {
  if (!libraryPath) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  if (!bytes) return LMI_E_NULL_BUFFER;
  if (count <= 0) return LMI_E_ZERO_LENGTH;
  return guard([&]() -> int32_t {
    lower_in_place(libraryPath);
    return with_library(heap, libraryPath, 2, [&](Library* h) -> int32_t {
      const uint8_t* b = static_cast<const uint8_t*>(bytes);
      // The old chain is not freed: its blocks stay marked in use.
      Op op(h);
      int32_t rc = op.end(write_list(h, std::vector<uint8_t>(b, b + count), false));
      return rc ? LMI_E_IO : 0;
    });
  });
}

ZBSHR_API(int32_t) LMI_ListCheckOutEntries(ZBSTG_HEAP heap, char* libraryPath,
                                           LMI_CHECKOUTCALLBACK callback, void* userData) {
  if (!libraryPath) return LMI_E_ARGUMENT;
  if (!heap) return LMI_E_NULL_HEAP;
  return guard([&]() -> int32_t {
    lower_in_place(libraryPath);
    std::vector<uint8_t> list;
    int32_t rc = with_library(heap, libraryPath, 1,
                              [&](Library* h) -> int32_t { return read_list(h, &list) ? LMI_E_IO : 0; });
    if (rc) return rc;
    std::vector<Record> recs;
    bool whole = parse(list, &recs);
    for (Record& r : recs) {
      LMI_CHECKOUTINFO info{r.other.c_str(), r.name.c_str(), r.user.c_str(), r.status};
      if (callback) callback(&info, userData);
    }
    return whole ? 0 : LMI_E_IO;
  });
}
