// Library files: checking, salvage, repair and compaction, and the per-thread
// record of why the last library call failed.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "library/lm.h"

namespace zbshr::lm {

// One finding of the checker, salvage, repair or compaction.
struct Finding {
  int32_t code;       // LMI_E_* for damage, ZBSHR_LIB_NOTE_LEAK, ZBSHR_LIB_NOTE_INFO
  std::string entry;  // entry concerned, empty for none
  std::string text;
};

// Full check of an open library (verify.cpp); the findings in file order.
std::vector<Finding> check(Library* h);

// Passes findings to a host callback.
struct Sink {
  ZBSHR_LIB_PROBLEM cb = nullptr;
  void* ctx = nullptr;
  void operator()(int32_t code, const std::string& entry, const std::string& text) const {
    if (cb) cb(ctx, code, entry.empty() ? nullptr : entry.c_str(), text.c_str());
  }
  void operator()(const Finding& f) const { (*this)(f.code, f.entry, f.text); }
};

// ---- last error (errors.cpp)
// Starts a library call: forgets the reason noted by the previous one.
void err_begin();
// Ends a library call with result rc (>= 0 success) and returns rc. A failure
// without a noted reason gets the generic text of its code.
int32_t err_end(int32_t rc);
// Notes why the call in progress fails (the first note of a call wins).
void err_note(int32_t code, const std::string& text);
// Notes a failed system call on `path` from the system's last error.
void err_note_system(int32_t code, const char* what, const std::string& path);
// Generic text of an LMI_E_* code.
const char* err_text(int32_t code);

// ---- writing a fresh library (compact.cpp)
struct OutEntry {
  std::string name;        // as stored (lower case)
  uint32_t time = 0;
  uint16_t commentLen = 0;
  uint32_t length = 0;     // stored bytes, comment included
  uint32_t first = 0;      // where the data went in the new file
};
// Supplies the stored bytes (comment and data) of entry i.
using FetchEntry = std::function<int32_t(size_t i, std::vector<uint8_t>* bytes)>;
// Writes a new library file at `path` (which must not exist) holding the
// entries (sorted here by name) under a balanced directory, the check-out list
// and the header fields of `header` (512 bytes), with every block in use.
// The file is synced before this returns; on failure it is deleted.
int32_t write_fresh(const std::string& path, const uint8_t* header, std::vector<OutEntry>& entries,
                    const std::vector<uint8_t>& list, const FetchEntry& fetch);
// True when the bytes form whole check-out records.
bool whole_check_out_list(const std::vector<uint8_t>& list, size_t* wholeBytes = nullptr);

}  // namespace zbshr::lm
