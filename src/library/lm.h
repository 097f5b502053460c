// Library files: the handle and the block-level machinery shared by the
// exported LMI_ functions (lmi.cpp, checkout.cpp) and the checker (verify.cpp).
//
// On-disk layout (all integers little-endian, all stored positions absolute
// file offsets): block 0 header "HDR*", block 1 first free-space bitmap
// "FRE*", then the root directory node "NOD*" (3072 bytes in the large
// layout, 1024 in the old one). Entries live in directory nodes as "ENT*"
// records; their data in chains of "DAT*" blocks of 502 payload bytes.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/platform.h"
#include "zbshr/library.h"

namespace zbshr::lm {

constexpr uint32_t kBlock = 512;
constexpr uint32_t kPayload = 502;
constexpr uint32_t kBitsPerMap = 4032;
constexpr uint32_t kMapRange = kBitsPerMap * kBlock;  // 2,064,384 bytes of file
constexpr uint32_t kMaxOffset = 0x7FFFFFFFu;
constexpr uint32_t kRecHead = 24;
constexpr uint32_t kNodeHead = 32;
constexpr int32_t kDefaultReadAhead = 16384;
constexpr int32_t kMaxReadAhead = 64000;

// Field offsets.
namespace hdr {
constexpr uint32_t kVersion = 18, kCreated = 22, kComment = 28, kListFirst = 284, kListLen = 288;
}
namespace node {
constexpr uint32_t kLeft = 4, kParent = 8, kRight = 12, kFree = 16, kMax = 18, kCount = 20,
                   kMin = 22;
}
namespace rec {
constexpr uint32_t kVersion = 4, kFirst = 8, kLength = 12, kTime = 16, kCommentLen = 20,
                   kNameLen = 22;
}

inline uint32_t rd32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint16_t rd16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
inline void wr32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
  p[3] = uint8_t(v >> 24);
}
inline void wr16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}

// Result of a directory search.
enum : int { kFound = 1, kAbsent = 2, kRight = 3, kLeft = 4 };

// Entry state of a write that failed and was rolled back; its close reports it.
constexpr int kWriteFailed = 5;

struct Bitmap {
  uint32_t off = 0;
  uint8_t* img = nullptr;  // 512 bytes (the first one points into the header copy)
  bool dirty = false;
};

struct Search {
  int result = kAbsent;         // kFound, kAbsent, kRight or kLeft
  uint32_t node = 0;            // node where the search ended
  uint32_t rec = 0;             // record offset inside that node when found
  uint32_t parent = 0;          // the node above `node` on the way down, 0 for the root
};

// A reader of one data chain, independent of the entry in hand.
struct ChainReader {
  uint32_t next = 0;       // next block to read, 0 at the end
  uint32_t left = 0;       // bytes of the chain still to deliver
  uint32_t blocksLeft = 0; // blocks the chain may still have (guards cycles)
  uint8_t* buf = nullptr;  // read-ahead buffer
  uint32_t bufSize = 0;
  uint32_t bufOff = 0;     // file offset of buf[0]
  uint32_t bufLen = 0;     // bytes valid in buf
  uint32_t cur = 0;        // offset in buf of the block in hand
  uint32_t unread = 0;     // payload bytes of the block in hand not yet delivered
  uint32_t pos = 0;        // payload position inside the block in hand
  bool inHand = false;
};

struct Library {
  void* raw = nullptr;  // the heap block holding this handle
  ZBSTG_HEAP heap = nullptr;
  plat::HFILE file = plat::INVALID_HANDLE;
  int32_t mode = 0;
  uint32_t base = 0;
  std::string path;  // absolute, normalised, lower case
  uint8_t* fixed = nullptr;  // header copy (4096 bytes + a guard zero)
  uint32_t nodeSize = 3072, entrySpace = 3040, fixedSize = 4096;
  bool rootChecked = false;
  uint64_t fsize = 0;  // current file length
  int64_t pos = -1;    // the file pointer when known (saves a seek per transfer)
  uint64_t diskSize = 0;  // the file's length on disk
  // With write-through off, writes held back in memory (disjoint byte ranges
  // by file offset), written out in order at close or past 8 MB.
  std::map<uint64_t, std::vector<uint8_t>> pending;
  size_t pendingBytes = 0;

  // Directory nodes other than the root, by file offset (heap blocks), with a
  // small direct-mapped table in front for the nodes a search walks through.
  std::unordered_map<uint32_t, uint8_t*> nodes;
  struct Slot {
    uint32_t off;
    uint8_t* img;
  };
  static constexpr uint32_t kQuick = 1024;
  Slot quick[kQuick] = {};
  // Name index of the directory, valid until the directory changes.
  struct Loc {
    uint32_t node, rec, parent;
  };
  std::unordered_map<std::string, Loc> index;
  bool indexValid = false;
  uint64_t lookups = 0;

  // Free-space bitmaps; [0] is the one inside the header copy.
  std::vector<Bitmap> maps;
  bool mapsLoaded = false;
  uint32_t freeHint = 0;  // no clear bit below this block index

  // Entry in hand.
  int state = 0;  // 0 none, 1 reading, 3 writing, kWriteFailed
  bool listing = false;
  uint32_t eNode = 0, eRec = 0;
  char comment[256] = {};

  // Data buffer and its block offset table.
  int32_t readAhead = kDefaultReadAhead;
  uint8_t* dbuf = nullptr;
  uint32_t* dtab = nullptr;
  uint32_t dblocks = 0;  // blocks the buffer holds

  // Writer.
  uint32_t wWaiting = 0;  // blocks waiting in the buffer
  uint32_t wFree = 0;     // free payload bytes in the last of them
  uint32_t keptOff = 0;   // last block already written (rewritten with its next)
  uint8_t kept[kBlock] = {};
  uint32_t wFirst = 0;    // first block of the chain being written
  uint32_t wLength = 0;   // bytes written to the chain so far
  bool appending = false;
  bool freed = false;

  // Reader of the entry in hand.
  ChainReader rd;

  bool trailer = false;
  bool kept_by_session = false;
  bool writeThrough = true;

  // Operation in progress (journal.cpp). Inside an operation every write is
  // held in `pending`; before a block that existed when the operation began
  // is overwritten, its old bytes go into the rollback journal beside the file.
  int txDepth = 0;             // nesting of tx_begin calls
  bool failed = false;         // a rollback could not finish: writes refused until reopened
  uint64_t txOrigLen = 0;      // file length on disk when the operation began
  std::unordered_set<uint32_t> journaled;  // blocks (file offset / 512) saved in the journal
  plat::HFILE jfile = plat::INVALID_HANDLE;
  uint64_t jEnd = 0;           // journal bytes of this operation (0: header not written yet)
  uint32_t jSalt = 0;
  std::string jSuper;          // super-journal named by the journal (a change of two libraries)
  uint64_t rng = 0;
  // With write-through off the operations of a session form one batch,
  // committed at close (or rolled back whole by the next open after a
  // crash); a failed operation is undone in memory from `undo`: the bytes
  // its writes replaced (as the handle saw them) and the length before it.
  bool batch = false;
  std::vector<std::pair<uint64_t, std::vector<uint8_t>>> undo;
  uint64_t undoLen = 0;
};

// ---- utilities
void lower_in_place(char* s);
// Absolute, normalised path (lower-cased); empty when the path service rejects it.
std::string full_path(const char* path);
bool is_executable_or_library(const std::string& path);
bool is_executable(const std::string& path);
inline std::string trailer_keeper_path(const std::string& path) { return path + "-trailer"; }
// Writes (and syncs) the keeper of an executable's library base; false on failure.
bool keep_trailer_base(const std::string& full, uint32_t base);
// Puts back the trailer of an executable whose writer ended without its close
// (`f` open for writing); false when that was needed and failed.
bool restore_trailer(plat::HFILE f, const std::string& full);
int32_t now32();
bool write_through_setting();
void set_write_through(bool on);

// ---- entry level (lmi.cpp)
Library* library_of(LMI_HANDLE h);
int32_t open_read(Library* h, const char* name, bool tolerant);
int32_t open_write(Library* h, const char* name, const char* comment);
int32_t close_entry(Library* h);
// Removes the first check-out record of `name` (rewriting the list); reports
// the record's other library and status (0 when there was none).
int32_t drop_check_out_record(Library* h, const char* name, std::string* other, char* status,
                              bool onlyIfPresent = false);

// ---- block I/O with the disk-error dialog
// Asks the user (through the host's message-box handler) whether to retry a
// failed transfer; IDRETRY or another answer.
int disk_dialog(plat::UINT textId, const char* fallback);
int32_t read_at(Library* h, uint64_t off, void* buf, uint32_t n, uint32_t* got = nullptr);
int32_t write_at(Library* h, uint64_t off, const void* buf, uint32_t n);
int32_t flush_pending(Library* h);
int32_t truncate_at(Library* h, uint64_t end);

// ---- operations (journal.cpp)
// Every change of a library is one operation: tx_begin, the changes, then
// tx_end. Calls nest; only the outermost tx_end commits. Until the commit the
// writes stay in memory (past 8 MB they go out behind the journal); the commit
// saves the old bytes of every block about to be overwritten in
// `<library>-journal`, writes the blocks, then invalidates the journal (with a
// sync at each step when write-through is on). A crash at any point leaves
// either the old or the new state once the next open has rolled back.
//
// tx_begin: 0, or LMI_E_READ_ONLY / LMI_E_IO when the handle may not write.
// tx_end(h, rc): rc == 0 commits (returns the commit's error, after rolling
// back, when it fails); rc != 0 rolls back and returns rc. After a rollback
// the handle's caches hold what the disk holds; when the rollback itself
// cannot finish the handle is marked failed (writes give LMI_E_IO until it is
// reopened) and the journal stays for the next open to roll back.
int32_t tx_begin(Library* h);
int32_t tx_end(Library* h, int32_t rc);
void tx_rollback(Library* h);
// tx_end for a caller that closes the library right after: the tail freed by
// the operation is released inside it, so that the close has nothing to write.
int32_t tx_end_releasing(Library* h, int32_t rc);
// Rolls back a journal left by a process that ended in the middle of an
// operation; `file` is the library opened for writing. 0 when there was
// nothing to do or the rollback finished.
int32_t recover_journal(const std::string& libPath, plat::HFILE file);
bool journal_is_hot(const std::string& libPath);
// Test hook: called before every change the library makes to a file (kind
// 'w' write, 't' set length, 's' sync; journal = true for the journal).
// Returns the number of bytes of a write to let through, or -1 for all.
extern int64_t (*io_hook)(char kind, bool journal, uint64_t off, uint32_t n);
// Inside an operation: saves the old bytes of what `pending` overwrites, then
// writes it out (used past 8 MB of held-back writes and by the commit).
int32_t spill_pending(Library* h);
// Writes `pending` to the library as it is (no journal).
int32_t write_pending(Library* h);
// Reads what the disk holds, ignoring held-back writes.
int32_t read_disk(Library* h, uint64_t off, void* buf, uint32_t n, uint32_t* got);
// Drops every cache of the handle and reads the header again (from the disk,
// or through the held-back writes when `keepPending`).
int32_t reload_handle(Library* h, bool keepPending = false);
// Inside an operation of a batch: remembers what [off, off + n) holds now.
void save_undo(Library* h, uint64_t off, uint64_t n);
// Commits the batch of a session with write-through off (the close does it).
int32_t batch_commit(Library* h);
// A change of two libraries as one: both handles hold their changes back
// (pair_begin, before their first operation); pair_commit saves both journals,
// each naming a super-journal created first, writes and syncs both
// libraries, and commits by deleting the super-journal; a hot journal whose
// super-journal is gone is a committed change. On failure both are rolled
// back; pair_discard drops what a handle holds back.
void pair_begin(Library* h);
int32_t pair_commit(Library* a, Library* b);
void pair_discard(Library* h);
// Closes the journal of a handle and removes it unless it must stay for a rollback.
void close_journal(Library* h);

// One operation on a handle for the span of a C++ scope: begins it, and rolls
// it back when the scope is left without end() (an early return, an exception).
struct Op {
  Library* h;
  int32_t began;  // tx_begin's result: 0 when the operation runs
  explicit Op(Library* lib) : h(lib), began(tx_begin(lib)) {}
  Op(const Op&) = delete;
  Op& operator=(const Op&) = delete;
  int32_t end(int32_t rc) {
    if (began) return rc ? rc : began;
    began = 1;
    return tx_end(h, rc);
  }
  ~Op() {
    if (began == 0) tx_rollback(h);
  }
};

// ---- opening and closing
// Memory from the handle's heap; hfree takes null too.
void* halloc(Library* h, uint32_t n);
void hfree(Library* h, void* p);
Library* open_library(ZBSTG_HEAP heap, const char* path, int32_t mode, int32_t readAhead);
int32_t close_library(Library* h);
// Closes the library and frees the handle in every case (a failed final
// operation is rolled back first); returns the first error.
int32_t close_library_always(Library* h);
void destroy(Library* h);

// ---- bitmaps
int32_t load_maps(Library* h);
int32_t flush_maps(Library* h);
int32_t alloc_blocks(Library* h, uint32_t count, bool contiguous, bool mayRetryScattered,
                     uint32_t* out);
// Toggles each block's bit; `allocating` says whether the bits must be clear
// (allocation) or set (freeing) beforehand: a mismatch is damage and changes nothing.
int32_t mark_blocks(Library* h, uint32_t count, uint32_t* offs, bool allocating);
int32_t free_chain(Library* h, uint32_t length, uint32_t first);
int32_t release_tail(Library* h);

// ---- directory
uint8_t* root_img(Library* h);
uint32_t root_off(Library* h);
int32_t node_img(Library* h, uint32_t off, uint8_t** img);
int32_t write_node(Library* h, uint32_t off, uint32_t from = 0, uint32_t to = 0xFFFFFFFFu);
int32_t find_entry(Library* h, const char* name, Search* s, bool tolerant = false);
void drop_index(Library* h);
int32_t insert_entry(Library* h, const char* name, Search* s);
int32_t remove_entry(Library* h, const char* name, bool removeRecord);
uint8_t* record_ptr(Library* h, uint32_t nodeOff, uint32_t recOff);
// Visits every record in directory order; stops on a negative return of `fn`.
template <class F>
int32_t walk_tree(Library* h, F&& fn);

// ---- data
bool valid_data_offset(Library* h, uint32_t off);
void reader_start(Library* h, ChainReader* r, uint32_t first, uint32_t length, uint8_t* buf,
                  uint32_t bufSize);
// Copies up to n bytes; returns the count (0 at the end) or an error.
int32_t reader_read(Library* h, ChainReader* r, void* out, uint32_t n);
void writer_start(Library* h);
int32_t append_data(Library* h, const void* bytes, uint32_t count);
int32_t flush_data(Library* h);
// Writes `count` bytes as a new chain (nothing in hand); returns its first block in *first.
int32_t write_chain(Library* h, const void* bytes, uint32_t count, uint32_t* first);
// Reads a whole chain of `length` bytes into `out`.
int32_t read_chain(Library* h, uint32_t first, uint32_t length, std::vector<uint8_t>* out);

// ---- check-out list
int32_t read_list(Library* h, std::vector<uint8_t>* out);
int32_t write_list(Library* h, const std::vector<uint8_t>& bytes, bool freeOld);

// ---- checker
struct VerifyReport {
  std::vector<std::string> problems;
  uint32_t entries = 0, nodes = 0, dataBlocks = 0, freeBlocks = 0, blocks = 0, maps = 0;
  uint32_t listBytes = 0;
  bool ok() const { return problems.empty(); }
};
VerifyReport verify(Library* h);

// Walk in directory order: the node's records in stored order, then the left
// subtree, then the right subtree.
template <class F>
int32_t walk_tree(Library* h, F&& fn) {
  std::vector<uint32_t> stack{root_off(h)};
  std::unordered_set<uint32_t> seen;  // a node reached twice is a directory cycle:
  bool cycle = false;                 // not followed again, reported at the end
  while (!stack.empty()) {
    uint32_t off = stack.back();
    stack.pop_back();
    if (!seen.insert(off).second) {
      cycle = true;
      continue;
    }
    uint8_t* img;
    int32_t rc = node_img(h, off, &img);
    if (rc < 0) return rc;
    uint32_t used = h->entrySpace - rd16(img + node::kFree);
    for (uint32_t p = kNodeHead; p < kNodeHead + used;) {
      uint32_t len = kRecHead + rd16(img + p + rec::kNameLen);
      rc = fn(off, p);
      if (rc < 0) return rc;
      p += len;
    }
    uint32_t l = rd32(img + node::kLeft), r = rd32(img + node::kRight);
    if (r) stack.push_back(r);
    if (l) stack.push_back(l);
  }
  return cycle ? LMI_E_DAMAGED : 0;
}

}  // namespace zbshr::lm
