// The fixed-size block store: byte blocks parked in a temporary file and read
// back as fresh copies.
//
// A record in the file is a 4-byte little-endian length followed by the
// bytes. zbfstg_alloc writes each record where the file is opened, at its
// start, and hands out positions from a running counter that starts at 0:
// callers of this store rely on exactly that, so it is kept.
#include <cstring>

#include "platform/platform.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

// The store record lives in a heap block, which is only 4-byte aligned: it is
// copied in and out rather than accessed in place.
struct zbfstg_s {
  ZBSTG_HEAP heap;
  uint32_t pool;
  char* file_name;  // in the store's heap and pool; goes with the pool
  int32_t next;     // next position handed out
};

namespace {

namespace plat = zbshr::plat;

zbfstg_s load(ZBFSTG st) {
  zbfstg_s s;
  std::memcpy(&s, static_cast<const void*>(st), sizeof s);
  return s;
}
void save(ZBFSTG st, const zbfstg_s& s) { std::memcpy(static_cast<void*>(st), &s, sizeof s); }

constexpr char kPrefix[] = "ZBTP";

}  // namespace

extern "C" {

ZBSHR_API(ZBFSTG) zbfstg_begin(ZBSTG_HEAP heap, uint32_t pool) {
  if (heap == nullptr) return nullptr;
  try {
    char dir[OS_OFS_MAXPATH];
    plat::DWORD n = plat::GetTempPathA(sizeof dir, dir);
    if (n == 0 || n >= sizeof dir) return nullptr;
    // The name is the folder, three letters of the prefix, a hexadecimal
    // number and ".TMP": well within the room left by the folder check.
    char name[OS_OFS_MAXPATH + 16];
    if (plat::GetTempFileNameA(dir, kPrefix, 0, name) == 0) return nullptr;

    auto* store = static_cast<ZBFSTG>(zbstg_alloc(heap, sizeof(zbfstg_s), pool));
    if (store == nullptr) {
      plat::DeleteFileA(name);
      return nullptr;
    }
    zbfstg_s s{heap, pool, zbstg_strdup(heap, name, pool), 0};
    if (s.file_name == nullptr) {
      plat::DeleteFileA(name);
      zbstg_free(heap, store);
      return nullptr;
    }
    save(store, s);
    return store;
  } catch (...) {
    return nullptr;
  }
}

ZBSHR_API(int32_t) zbfstg_alloc(ZBFSTG handle, const void* data, int32_t n) {
  if (handle == nullptr || n < 0 || (data == nullptr && n > 0)) return 0;
  zbfstg_s st = load(handle);
  zbfstg_s* store = &st;
  // The counter is a 32-bit position: refuse a block that would overflow it.
  if (static_cast<int64_t>(store->next) + n + 4 > INT32_MAX) return 0;

  OSOFSTRUCT of;
  int32_t h = osOpenFile(store->file_name, &of, OF_READWRITE);
  if (h == -1) return 0;

  unsigned char len[4] = {
      static_cast<unsigned char>(n & 0xFF), static_cast<unsigned char>((n >> 8) & 0xFF),
      static_cast<unsigned char>((n >> 16) & 0xFF), static_cast<unsigned char>((n >> 24) & 0xFF)};
  int32_t result = 0;
  // No seek: the record lands at the start of the file.
  if (plat::_lwrite(h, len, 4) == 4 &&
      plat::_lwrite(h, data, static_cast<plat::UINT>(n)) == n) {
    result = store->next;
    store->next += n + 4;
    save(handle, st);
  }
  plat::_lclose(h);
  return result;
}

ZBSHR_API(void*) zbfstg_get(ZBFSTG handle, int32_t pos) {
  if (handle == nullptr || pos < 0) return nullptr;
  zbfstg_s st = load(handle);
  const zbfstg_s* store = &st;
  OSOFSTRUCT of;
  int32_t h = osOpenFile(store->file_name, &of, OF_READ);
  if (h == -1) return nullptr;

  void* block = nullptr;
  unsigned char len[4];
  // The file's size bounds the length, so a position that does not start a
  // record cannot ask for an absurd block.
  plat::LONG size = plat::_llseek(h, 0, plat::FILE_END);
  if (size != plat::HFILE_ERROR && plat::_llseek(h, pos, plat::FILE_BEGIN) == pos &&
      plat::_lread(h, len, 4) == 4) {
    uint32_t n = static_cast<uint32_t>(len[0]) | (static_cast<uint32_t>(len[1]) << 8) |
                 (static_cast<uint32_t>(len[2]) << 16) | (static_cast<uint32_t>(len[3]) << 24);
    if (static_cast<int64_t>(n) <= static_cast<int64_t>(size) - pos - 4) {
      block = zbstg_alloc(store->heap, n, store->pool);
      if (block != nullptr &&
          plat::_lread(h, block, n) != static_cast<int32_t>(n)) {
        zbstg_free(store->heap, block);
        block = nullptr;
      }
    }
  }
  plat::_lclose(h);
  return block;
}

ZBSHR_API(int32_t) zbfstg_free(ZBFSTG /*store*/, int32_t /*pos*/) { return 1; }

ZBSHR_API(int32_t) zbfstg_end(ZBFSTG handle) {
  if (handle == nullptr) return 0;
  zbfstg_s st = load(handle);
  zbstg_remove(st.file_name);
  // The file name stays in the pool, which frees it with the pool.
  zbstg_free(st.heap, handle);
  return 1;
}

}  // extern "C"
