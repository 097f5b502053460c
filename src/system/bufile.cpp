// Buffered files: sequential writing or reading through a buffer allocated
// in the caller's heap and pool. The export formats write every byte through
// these functions.
#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace {

namespace plat = zbshr::plat;

// Callers may keep the object inside a heap block, which is only 4-byte
// aligned: an object that is not aligned for its pointer fields is worked on
// as a copy that is written back; an aligned one is used in place.
class Access {
 public:
  explicit Access(OSFILE* p) : p_(p) {
    if (p_ && reinterpret_cast<uintptr_t>(p_) % alignof(OSFILE) != 0) {
      std::memcpy(static_cast<void*>(&f_), static_cast<const void*>(p_), sizeof f_);
      copied_ = true;
    }
  }
  ~Access() {
    if (copied_) std::memcpy(static_cast<void*>(p_), static_cast<const void*>(&f_), sizeof f_);
  }
  Access(const Access&) = delete;
  Access& operator=(const Access&) = delete;
  OSFILE* get() { return copied_ ? &f_ : p_; }

 private:
  OSFILE* p_;
  bool copied_ = false;
  OSFILE f_;
};

bool usable(const OSFILE* f) { return f != nullptr && f->buffer != nullptr && f->capacity > 0; }

int32_t open_buffered(ZBSTG_HEAP heap, uint32_t pool, OSFILE* object, const char* name,
                      uint32_t buffer_size, uint16_t mode, bool read_mode) {
  if (object == nullptr || heap == nullptr) return 0;
  Access access(object);
  OSFILE* file = access.get();
  if (buffer_size == 0) buffer_size = OSFILE_DEFAULT_BUFFER;
  // Room, position and capacity are 32-bit signed counts.
  if (buffer_size > INT32_MAX) return 0;

  std::memset(&file->of, 0, sizeof file->of);
  int32_t h = osOpenFile(name, &file->of, mode);
  if (h == -1) return 0;

  void* buf = zbstg_alloc(heap, buffer_size, pool);
  if (buf == nullptr) {
    plat::_lclose(h);
    return 0;
  }
  file->heap = heap;
  file->pool = pool;
  file->hFile = h;
  file->buffer = static_cast<char*>(buf);
  file->position = 0;
  file->capacity = static_cast<int32_t>(buffer_size);
  file->room = read_mode ? 0 : file->capacity;
  file->readMode = read_mode ? 1 : 0;
  return 1;
}

// Writes `n` bytes of the buffer; true when all of them went out.
bool write_buffer(OSFILE* f, int32_t n) {
  int32_t put = plat::_lwrite(f->hFile, f->buffer, static_cast<plat::UINT>(n));
  return put == n;
}

// Writes the pending bytes; a short write leaves position and room as they
// were.
bool flush(OSFILE* f) {
  if (f->position == 0) return true;
  if (!write_buffer(f, f->position)) return false;
  f->position = 0;
  f->room = f->capacity;
  return true;
}

}  // namespace

extern "C" {

ZBSHR_API(int32_t) osFileExists(const char* name) {
  OSOFSTRUCT of;
  return osOpenFile(name, &of, OF_EXIST) != -1 ? 1 : 0;
}

ZBSHR_API(int32_t) osFileOpenNew(ZBSTG_HEAP heap, uint32_t pool, OSFILE* file, const char* name,
                                 uint32_t buffer_size) {
  return open_buffered(heap, pool, file, name, buffer_size, OF_CREATE, false);
}

ZBSHR_API(int32_t) osFileOpenRead(ZBSTG_HEAP heap, uint32_t pool, OSFILE* file, const char* name,
                                  uint32_t buffer_size) {
  return open_buffered(heap, pool, file, name, buffer_size, OF_READ, true);
}

ZBSHR_API(uint32_t) osFileWrite(OSFILE* object, const void* src, uint32_t n) {
  Access access(object);
  OSFILE* file = access.get();
  if (!usable(file) || file->readMode) return 0;

  if (src == nullptr) return flush(file) ? 1 : 0;
  if (n == 0) return 0;

  const auto* from = static_cast<const char*>(src);
  uint32_t taken = 0;
  for (;;) {
    uint32_t rest = n - taken;
    uint32_t room = file->room > 0 ? static_cast<uint32_t>(file->room) : 0;
    if (rest <= room) {
      std::memcpy(file->buffer + file->position, from + taken, rest);
      file->position += static_cast<int32_t>(rest);
      file->room -= static_cast<int32_t>(rest);
      return n;
    }
    if (room > 0) {
      std::memcpy(file->buffer + file->position, from + taken, room);
      file->position += static_cast<int32_t>(room);
      file->room = 0;
      taken += room;
    } else {
      // The buffer is full: write all of it. A short write leaves the object
      // as it was before this flush.
      if (!write_buffer(file, file->capacity)) return 0;
      file->position = 0;
      file->room = file->capacity;
    }
  }
}

ZBSHR_API(uint32_t) osFileRead(OSFILE* object, void* dst, uint32_t n) {
  Access access(object);
  OSFILE* file = access.get();
  if (!usable(file) || !file->readMode || (dst == nullptr && n != 0)) return 0;
  auto* to = static_cast<char*>(dst);
  uint32_t delivered = 0;
  for (;;) {
    uint32_t rest = n - delivered;
    uint32_t room = file->room > 0 ? static_cast<uint32_t>(file->room) : 0;
    if (rest > room) {
      if (room > 0) {
        std::memcpy(to + delivered, file->buffer + file->position, room);
        delivered += room;
      }
      int32_t got = plat::_lread(file->hFile, file->buffer, static_cast<plat::UINT>(file->capacity));
      file->position = 0;
      file->room = got > 0 ? got : 0;
      if (got <= 0) return delivered;
    } else {
      if (rest > 0) std::memcpy(to + delivered, file->buffer + file->position, rest);
      file->position += static_cast<int32_t>(rest);
      file->room -= static_cast<int32_t>(rest);
      return n;
    }
  }
}

ZBSHR_API(uint32_t) osFileSize(OSFILE* object) {
  Access access(object);
  OSFILE* file = access.get();
  if (file == nullptr || !file->readMode || file->hFile == 0) return 0;
  plat::LONG here = plat::_llseek(file->hFile, 0, plat::FILE_CURRENT);
  if (here == plat::HFILE_ERROR) return 0;
  plat::LONG size = plat::_llseek(file->hFile, 0, plat::FILE_END);
  plat::_llseek(file->hFile, here, plat::FILE_BEGIN);
  return size == plat::HFILE_ERROR ? 0 : static_cast<uint32_t>(size);
}

ZBSHR_API(int32_t) osFileClose(OSFILE* object, int32_t keep) {
  Access access(object);
  OSFILE* file = access.get();
  if (file == nullptr) return 0;
  int32_t result = keep;
  if (file->position != 0 && keep != 0 && !file->readMode) {
    if (!flush(file)) result = 0;
  }
  if (file->hFile != 0) {
    plat::_lclose(file->hFile);
    file->hFile = 0;
  }
  if (file->buffer != nullptr) {
    zbstg_free(file->heap, file->buffer);
    file->buffer = nullptr;
  }
  file->position = 0;
  file->room = 0;
  return result;
}

}  // extern "C"
