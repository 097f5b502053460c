// Global memory on POSIX. A handle is a small record holding the block's
// address, the size asked for and the lock count; live handles are kept in a
// set so that a stale or foreign handle is refused instead of followed.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

#include "platform/internal.h"
#include "platform/platform.h"

namespace zbshr::plat {
namespace {

struct GlobalBlock {
  void* data;
  size_t size;
  UINT flags;
  int32_t locks;
};

std::mutex g_mutex;
std::unordered_set<GlobalBlock*>& live_blocks() {
  static auto* live = new std::unordered_set<GlobalBlock*>();  // never destroyed
  return *live;
}

// The live block of h, or null with ERROR_INVALID_HANDLE. Called under g_mutex.
GlobalBlock* find(HGLOBAL h) {
  auto* b = static_cast<GlobalBlock*>(h);
  if (live_blocks().count(b)) return b;
  SetLastError(ERROR_INVALID_HANDLE);
  return nullptr;
}

// True, with ERROR_NOT_ENOUGH_MEMORY, when a test has asked this call to fail.
bool out_of_memory_fault(Fault which) {
  if (!detail::fault_fires(which)) return false;
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return true;
}

}  // namespace

HGLOBAL GlobalAlloc(UINT flags, size_t bytes) {
  if (out_of_memory_fault(Fault::GlobalAlloc)) return nullptr;
  // A zero-size block still gets an address so that locking it works.
  void* data = (flags & GMEM_ZEROINIT) ? std::calloc(bytes ? bytes : 1, 1)
                                       : std::malloc(bytes ? bytes : 1);
  if (!data) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  auto* b = new (std::nothrow) GlobalBlock{data, bytes, flags, 0};
  if (!b) {
    std::free(data);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  try {
    std::lock_guard<std::mutex> lock(g_mutex);
    live_blocks().insert(b);
  } catch (...) {
    std::free(data);
    delete b;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return b;
}

void* GlobalLock(HGLOBAL h) {
  if (out_of_memory_fault(Fault::GlobalLock)) return nullptr;
  std::lock_guard<std::mutex> lock(g_mutex);
  GlobalBlock* b = find(h);
  if (!b) return nullptr;
  ++b->locks;
  return b->data;
}

BOOL GlobalUnlock(HGLOBAL h) {
  std::lock_guard<std::mutex> lock(g_mutex);
  GlobalBlock* b = find(h);
  if (!b) return 0;
  if (b->locks > 0) --b->locks;
  // As on Windows: non-zero while the block is still locked.
  if (b->locks == 0) {
    SetLastError(ERROR_SUCCESS);
    return 0;
  }
  return 1;
}

HGLOBAL GlobalReAlloc(HGLOBAL h, size_t bytes, UINT flags) {
  if (out_of_memory_fault(Fault::GlobalAlloc)) return nullptr;
  std::lock_guard<std::mutex> lock(g_mutex);
  GlobalBlock* b = find(h);
  if (!b) return nullptr;
  if (flags & GMEM_MODIFY) {
    // Only the block's attributes change; size and contents stay.
    b->flags = (b->flags & ~GMEM_MOVEABLE) | (flags & GMEM_MOVEABLE);
    return b;
  }
  void* data = std::realloc(b->data, bytes ? bytes : 1);
  if (!data) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  if ((flags & GMEM_ZEROINIT) && bytes > b->size)
    std::memset(static_cast<char*>(data) + b->size, 0, bytes - b->size);
  b->data = data;
  b->size = bytes;
  return b;
}

size_t GlobalSize(HGLOBAL h) {
  std::lock_guard<std::mutex> lock(g_mutex);
  GlobalBlock* b = find(h);
  if (!b) return 0;
  return b->size;
}

HGLOBAL GlobalFree(HGLOBAL h) {
  if (!h) return nullptr;
  std::lock_guard<std::mutex> lock(g_mutex);
  GlobalBlock* b = find(h);
  if (!b) return h;
  live_blocks().erase(b);
  std::free(b->data);
  delete b;
  return nullptr;
}

}  // namespace zbshr::plat
