// Demo step of the buffered files: write a file through a small buffer, read
// it back through another, and park a record in the block store.
#include <cstring>
#include <string>

#include "cli.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace {

int demo_buffered_files(const zcli::DemoContext& ctx) {
  FILE* out = ctx.out;
  std::string name = ctx.workdir + "/buffered.txt";
  ZBSTG_HEAP heap = zbstg_begin(0);
  if (heap == nullptr) return 1;
  uint32_t pool = zbstg_new_pool(heap);
  int rc = 0;

  // Build the text with the string builder, then write it line by line
  // through a 64-byte buffer.
  char* text = nullptr;
  int32_t cap = 0, used = 0;
  for (int i = 1; i <= 20; ++i) {
    std::string line = "line " + std::to_string(i) + ": buffered-file round trip\r\n";
    zbstg_str_build(heap, pool, &text, &cap, &used, line.c_str());
  }

  OSFILE w{};
  if (!osFileOpenNew(heap, pool, &w, name.c_str(), 64)) {
    std::fprintf(out, "cannot create %s (error %u)\n", name.c_str(), w.of.nErrCode);
    zbstg_end(heap);
    return 1;
  }
  std::fprintf(out, "created %s with a %d-byte buffer\n", w.of.szPathName, w.capacity);
  uint32_t written = 0;
  for (const char* p = text; *p;) {
    const char* eol = std::strchr(p, '\n');
    uint32_t n = static_cast<uint32_t>(eol ? eol - p + 1 : std::strlen(p));
    if (osFileWrite(&w, p, n) != n) {
      rc = 1;
      break;
    }
    written += n;
    p += n;
  }
  if (osFileClose(&w, 1) != 1) rc = 1;
  std::fprintf(out, "wrote %u bytes (builder capacity %d, used %d)\n", written, cap, used);

  OSFILE r{};
  if (!osFileOpenRead(heap, pool, &r, name.c_str(), 100)) {
    std::fprintf(out, "cannot open %s for reading (error %u)\n", name.c_str(), r.of.nErrCode);
    zbstg_end(heap);
    return 1;
  }
  uint32_t size = osFileSize(&r);
  std::string back;
  char chunk[37];
  uint32_t got;
  while ((got = osFileRead(&r, chunk, sizeof chunk)) > 0) back.append(chunk, got);
  osFileClose(&r, 0);
  bool same = back == std::string(text, static_cast<size_t>(used));
  std::fprintf(out, "file size %u, read back %zu bytes in 37-byte pieces: %s\n", size,
               back.size(), same ? "identical" : "DIFFERENT");
  if (!same || size != written) rc = 1;

  // The block store parks a record in a temporary file.
  ZBFSTG store = zbfstg_begin(heap, pool);
  if (store != nullptr) {
    const char record[] = "a parked record";
    int32_t pos = zbfstg_alloc(store, record, sizeof record);
    void* copy = zbfstg_get(store, pos);
    std::fprintf(out, "block store: record of %zu bytes at position %d, read back: %s\n",
                 sizeof record, pos,
                 copy && std::memcmp(copy, record, sizeof record) == 0 ? "identical" : "FAILED");
    if (copy == nullptr) rc = 1;
    zbstg_free(heap, copy);
    zbfstg_end(store);
  } else {
    std::fprintf(out, "block store: no temporary file could be made\n");
    rc = 1;
  }

  zbstg_end(heap);
  return rc;
}

}  // namespace

ZBSHR_DEMO_STEP(system_files, 20, "buffered files", demo_buffered_files);
