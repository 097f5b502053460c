// Libraries inside executables: keeping the library base beside the file
// while the trailer is off it.
#include "library/lm.h"
#include "library/recovery.h"

namespace zbshr::lm {

using namespace zbshr::plat;

// While an executable's library is open for writing its trailer is off the
// file; a small file beside it (`<file>-trailer`: "TRS*", the base, the base
// inverted) keeps the base until the close has written the trailer back. One
// found at an open whose file has no trailer means a writer ended without its
// close: the trailer is put back. Returns false when that was needed and failed.
bool restore_trailer(HFILE f, const std::string& full) {
  std::string sp = trailer_keeper_path(full);
  if (GetFileAttributesA(sp.c_str()) == INVALID_FILE_ATTRIBUTES) return true;
  HFILE k = CreateFileA(sp.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL);
  if (k == INVALID_HANDLE) return false;
  uint8_t b[12] = {};
  DWORD got = 0;
  bool whole = ReadFile(k, b, sizeof b, &got) && got == sizeof b && std::memcmp(b, "TRS*", 4) == 0 &&
               rd32(b + 4) == ~rd32(b + 8);
  CloseHandle(k);
  int64_t size = 0;
  if (!GetFileSizeEx(f, &size)) return false;
  uint8_t tr[kBlock] = {};
  bool has = size >= int64_t(kBlock) && SetFilePointerEx(f, size - kBlock, nullptr, FILE_BEGIN) &&
             ReadFile(f, tr, 4, &got) && got == 4 && std::memcmp(tr, "TRL*", 4) == 0;
  if (whole && !has) {
    uint32_t base = rd32(b + 4);
    uint8_t hd[4] = {};
    if (uint64_t(base) + 2048 > uint64_t(size) || !SetFilePointerEx(f, base, nullptr, FILE_BEGIN) ||
        !ReadFile(f, hd, 4, &got) || got != 4 || std::memcmp(hd, "HDR*", 4) != 0)
      return false;  // not what it says: left alone
    std::memcpy(tr, "TRL*", 4);
    wr32(tr + 4, base);
    DWORD put = 0;
    if (!SetFilePointerEx(f, size, nullptr, FILE_BEGIN) || !WriteFile(f, tr, kBlock, &put) ||
        put != kBlock || !FlushFileBuffers(f))
      return false;
  }
  DeleteFileA(sp.c_str());  // (a torn one was written before the trailer came off)
  return true;
}

bool keep_trailer_base(const std::string& full, uint32_t base) {
  uint8_t keep[12];
  std::memcpy(keep, "TRS*", 4);
  wr32(keep + 4, base);
  wr32(keep + 8, ~base);
  HFILE k = CreateFileA(trailer_keeper_path(full).c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                        CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL);
  DWORD put = 0;
  bool kept = k != INVALID_HANDLE && WriteFile(k, keep, sizeof keep, &put) && put == sizeof keep &&
              FlushFileBuffers(k);
  if (k != INVALID_HANDLE) CloseHandle(k);
  if (!kept) err_note_system(LMI_E_IO, "create", trailer_keeper_path(full));
  return kept;
}

}  // namespace zbshr::lm
