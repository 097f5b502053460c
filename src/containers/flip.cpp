// Byte-order flipping of values in place, one value at a time. Each flip
// returns the address just past the value so that a record can be walked
// field by field.
#include <atomic>

#include "zbshr/containers.h"

namespace {

std::atomic<int32_t> g_native{0};

unsigned char* bytes(void* p) { return static_cast<unsigned char*>(p); }

void reverse(unsigned char* p, int n) {
  for (int i = 0, j = n - 1; i < j; ++i, --j) {
    const unsigned char t = p[i];
    p[i] = p[j];
    p[j] = t;
  }
}

// The library's own flip functions take only the address; call them with
// their real signature rather than through the two-argument type.
using AnyFn = void (*)();

template <class F>
bool same(SHFLIPFN flip, F* f) {
  return reinterpret_cast<AnyFn>(flip) == reinterpret_cast<AnyFn>(f);
}

void* call_flip(SHFLIPFN flip, void* p, int32_t extra) {
  if (same(flip, &shFlipShort)) return shFlipShort(p);
  if (same(flip, &shFlipLong)) return shFlipLong(p);
  if (same(flip, &shFlipDouble)) return shFlipDouble(p);
  if (same(flip, &shFlipSHDEC)) return shFlipSHDEC(p);
  return flip(p, extra);
}

}  // namespace

ZBSHR_API(void*) shFlipShort(void* value) {
  if (!value) return nullptr;
  reverse(bytes(value), 2);
  return bytes(value) + 2;
}

ZBSHR_API(void*) shFlipLong(void* value) {
  if (!value) return nullptr;
  reverse(bytes(value), 4);
  return bytes(value) + 4;
}

ZBSHR_API(void*) shFlipTimeT(void* value, int32_t) { return shFlipLong(value); }

ZBSHR_API(void*) shFlipDouble(void* value) {
  if (!value) return nullptr;
  unsigned char out[8];
  for (int i = 0; i < 8; ++i) out[i] = bytes(value)[7 - i];
  for (int i = 0; i < 8; ++i) bytes(value)[i] = out[i];
  return bytes(value) + 8;
}

ZBSHR_API(void*) shFlipSHDEC(void* value) {
  if (!value) return nullptr;
  // Seven 16-bit words; the two bytes after them (14, 15) stay as they are.
  for (int off = 0; off <= 12; off += 2) reverse(bytes(value) + off, 2);
  return bytes(value) + 16;
}

ZBSHR_API(void*) shFlipDataLoop(void* value, SHFLIPFN flip, int32_t count, int32_t extra) {
  if (!value || !flip) return value;
  for (int32_t i = 0; i < count && value; ++i) value = call_flip(flip, value, extra);
  return value;
}

ZBSHR_API(void*) shFlipDataLoopNative(void* value, SHFLIPFN, int32_t, int32_t) { return value; }

ZBSHR_API(int32_t) shSetFlipDataNative(int32_t native) {
  g_native.store(native, std::memory_order_relaxed);
  return native;
}

ZBSHR_API(int32_t) shGetFlipDataNative(void) { return g_native.load(std::memory_order_relaxed); }
