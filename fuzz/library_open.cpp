// Fuzz target: opens arbitrary bytes as a library file and lists, reads,
// copies, renames and deletes its entries, then runs the checker. Nothing
// may crash, hang or read out of bounds, whatever the file holds.
//
// The first input byte picks the variant (plain library or executable with a
// trailer, read-ahead size); the rest is the file.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "library/lm.h"
#include "zbshr/library.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace {

int32_t ZBSHR_CALL cancelBox(void*, const char*, const char*, uint32_t) { return 2; }

std::string& folder() {
  static std::string dir = [] {
    auto d = std::filesystem::temp_directory_path() /
             ("zbshr-fuzz-library-" + std::to_string(std::random_device{}()));
    std::filesystem::create_directories(d);
    zbshr_set_msgbox_handler(cancelBox, nullptr);
    zbshr_lib_write_through(0);
    return d.string();
  }();
  return dir;
}

struct Names {
  std::vector<std::string> v;
};
int32_t ZBSHR_CALL collect(LMI_ENTRYINFO* i, void* ud) {
  auto* n = static_cast<Names*>(ud);
  if (n->v.size() < 64) n->v.emplace_back(i->name);
  return 0;
}
int32_t ZBSHR_CALL collectEx(LMI_ENTRYINFOEX* i, void*) { return i->size; }
int32_t ZBSHR_CALL collectCo(LMI_CHECKOUTINFO* i, void*) { return int32_t(std::strlen(i->user)); }

std::vector<char> buf(const std::string& s) {
  std::vector<char> v(s.begin(), s.end());
  v.resize(s.size() + 512, 0);
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > (1u << 20)) return 0;
  uint8_t sel = data[0];
  std::string path = folder() + ((sel & 1) ? "/app.exe" : "/lib.zbl");
  std::string other = folder() + "/other.zbl";
  std::filesystem::remove(other);
  {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(data + 1), std::streamsize(size - 1));
  }
  ZBSTG_HEAP heap = zbstg_begin(0);
  int32_t ra = (sel & 2) ? 512 : 0;

  Names names;
  {
    auto p = buf(path);
    LMI_HANDLE h = LMI_OpenLibrary(heap, p.data(), 1, ra);
    if (h) {
      auto all = buf(".*");
      LMI_ListEntries(h, all.data(), collect, &names);
      LMI_ListEntriesExtended(h, all.data(), collectEx, nullptr);
      std::vector<char> chunk(4096);
      for (auto& n : names.v) {
        auto nb = buf(n);
        LMI_ENTRYINFOEX ex;
        LMI_EntryInfoExtended(h, nb.data(), &ex);
        char user[600], other2[600], st;
        LMI_IsEntryCheckedOut(h, nb.data(), user, &st, other2);
        if (LMI_OpenEntry(h, nb.data(), 1, nullptr) == 0) {
          for (int k = 0; k < 64 && LMI_ReadEntry(h, chunk.data(), 4096) == 4096; ++k) {
          }
          LMI_CloseEntry(h);
        }
      }
      LMI_LIBRARYINFO li;
      if (LMI_LibraryInformation(h, &li) == 0 && li.checkOutLength > 0 &&
          li.checkOutLength < (1 << 20)) {
        std::vector<char> raw(size_t(li.checkOutLength));
        LMI_GetCheckOutEntries(h, raw.data());
      }
      zbshr::lm::verify(zbshr::lm::library_of(h));
      LMI_CloseLibrary(h);
    }
  }
  if (!names.v.empty()) {
    auto cp = buf(other);
    LMI_CreateLibrary(heap, cp.data(), "x");
    auto n1 = buf(names.v[0]), s1 = buf(path), d1 = buf(other);
    LMI_CopyEntry(heap, n1.data(), nullptr, s1.data(), d1.data());
    auto n2 = buf(names.v.back()), nn = buf("renamed"), s2 = buf(path);
    LMI_MoveEntry(heap, n2.data(), nn.data(), s2.data(), nullptr);
    auto s3 = buf(path);
    LMI_ListCheckOutEntries(heap, s3.data(), collectCo, nullptr);
    auto p = buf(path);
    LMI_HANDLE h = LMI_OpenLibrary(heap, p.data(), 2, ra);
    if (h) {
      for (size_t i = 0; i < names.v.size() && i < 4; ++i) {
        auto nb = buf(names.v[i]);
        LMI_DeleteEntry(h, nb.data());
      }
      auto nb = buf("new_entry");
      if (LMI_OpenEntry(h, nb.data(), 3, "c") == 0) {
        LMI_WriteEntry(h, data, int32_t(size > 3000 ? 3000 : size));
        LMI_CloseEntry(h);
      }
      zbshr::lm::verify(zbshr::lm::library_of(h));
      LMI_CloseLibrary(h);
    }
  }
  zbstg_end(heap);
  return 0;
}
