// Library files: salvage. Every block of a damaged library is scanned for
// entry records, whether or not the directory still reaches them; each
// record's data chain is read with the usual checks, and every entry that
// reads whole (data, comment, time) goes into a fresh library together with
// the readable check-out records. Nothing is written to the damaged file.
#include <algorithm>
#include <map>
#include <unordered_set>

#include "library/recovery.h"

namespace zbshr::lm {

namespace {

using namespace zbshr::plat;

struct Candidate {
  OutEntry e;
  uint32_t at = 0;         // file offset of the record
  bool reachable = false;  // reached from the root through the directory
  bool inFreeBlock = false;
};

// A damaged library opened for reading, without trusting its header.
struct Source {
  Library lib;
  bool headerOk = false;
  ~Source() {
    if (lib.file != INVALID_HANDLE) CloseHandle(lib.file);
  }

  int32_t open(const std::string& full) {
    lib.file = CreateFileA(full.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL);
    if (lib.file == INVALID_HANDLE) {
      err_note_system(LMI_E_IO, "open", full);
      return LMI_E_IO;
    }
    lib.path = full;
    int64_t size = 0;
    if (!GetFileSizeEx(lib.file, &size) || size < 0) return LMI_E_IO;
    lib.fsize = lib.diskSize = uint64_t(std::min<int64_t>(size, kMaxOffset));
    uint8_t blk[kBlock];
    // A library carried by an executable starts where its trailer says.
    if (lib.fsize >= 2 * kBlock && read_at(&lib, lib.fsize - kBlock, blk, kBlock) == 0 &&
        std::memcmp(blk, "TRL*", 4) == 0 && rd32(blk + 4) + uint64_t(4096) <= lib.fsize - kBlock) {
      lib.base = rd32(blk + 4);
      lib.fsize -= kBlock;
    }
    if (lib.fsize < lib.base + uint64_t(2048)) {
      err_note(LMI_E_IO, "open " + full + ": too short to be a library");
      return LMI_E_IO;
    }
    header.assign(kBlock, 0);
    if (read_at(&lib, lib.base, header.data(), kBlock)) return LMI_E_IO;
    headerOk = std::memcmp(header.data(), "HDR*", 4) == 0 &&
               std::memcmp(header.data() + 4, "Quillbrander", 13) == 0;
    static const char* const large[] = {"0200", "0300", "0301", "0400", "0500"};
    bool big = !headerOk;  // without a header, assume the current layout
    for (auto v : large) big = big || std::memcmp(header.data() + hdr::kVersion, v, 4) == 0;
    lib.nodeSize = big ? 3072 : 1024;
    lib.entrySpace = big ? 3040 : 992;
    lib.fixedSize = big ? 4096 : 2048;
    return 0;
  }
  std::vector<uint8_t> header;
};

bool printable_name(const uint8_t* p, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i)
    if (p[i] < 0x20) return false;
  return true;
}

// Parses a record at p (with `avail` bytes readable); false when it is not one.
bool parse_record(const Library& lib, const uint8_t* p, uint32_t avail, OutEntry* e) {
  if (avail < kRecHead + 1 || std::memcmp(p, "ENT*", 4) != 0) return false;
  for (int i = 4; i < 8; ++i)
    if (p[i] < '0' || p[i] > '9') return false;
  uint32_t nl = rd16(p + rec::kNameLen);
  if (nl == 0 || nl > lib.entrySpace - kRecHead || kRecHead + nl > avail) return false;
  if (p[kRecHead + nl - 1] != 0 || !printable_name(p + kRecHead, nl - 1)) return false;
  e->name.assign(reinterpret_cast<const char*>(p + kRecHead), nl - 1);
  e->first = rd32(p + rec::kFirst);
  e->length = rd32(p + rec::kLength);
  e->time = rd32(p + rec::kTime);
  e->commentLen = rd16(p + rec::kCommentLen);
  if (e->commentLen > 255 || e->commentLen > e->length || e->length > lib.fsize) return false;
  return (e->length == 0) == (e->first == 0);
}

// File offsets of the records the directory reaches (cycles and bad nodes end a branch).
std::unordered_set<uint32_t> reachable(Library& lib) {
  std::unordered_set<uint32_t> recs, seen;
  std::vector<uint32_t> stack{lib.base + 1024};
  std::vector<uint8_t> img(lib.nodeSize);
  while (!stack.empty()) {
    uint32_t off = stack.back();
    stack.pop_back();
    if (!seen.insert(off).second || off < lib.base + 1024 || (off - lib.base) % kBlock ||
        uint64_t(off) + lib.nodeSize > lib.fsize)
      continue;
    if (read_at(&lib, off, img.data(), lib.nodeSize) || std::memcmp(img.data(), "NOD*", 4)) continue;
    uint32_t freeb = rd16(img.data() + node::kFree);
    if (freeb > lib.entrySpace) continue;
    uint32_t end = kNodeHead + lib.entrySpace - freeb;
    for (uint32_t p = kNodeHead; p + kRecHead <= end;) {
      OutEntry e;
      if (!parse_record(lib, img.data() + p, end - p, &e)) break;
      recs.insert(off + p);
      p += kRecHead + uint32_t(e.name.size()) + 1;
    }
    if (uint32_t r = rd32(img.data() + node::kRight)) stack.push_back(r);
    if (uint32_t l = rd32(img.data() + node::kLeft)) stack.push_back(l);
  }
  return recs;
}

// Usage bits of the bitmap chain as far as it reads; empty when the first is bad.
std::vector<uint8_t> usage_bits(Library& lib) {
  std::vector<uint8_t> bits;
  uint32_t off = lib.base + kBlock;
  uint8_t m[kBlock];
  for (uint32_t k = 0; off && k <= lib.fsize / kMapRange + 1; ++k) {
    if (uint64_t(off) + kBlock > lib.fsize || read_at(&lib, off, m, kBlock) ||
        std::memcmp(m, "FRE*", 4) || off != lib.base + (k ? k * kMapRange : kBlock))
      break;
    for (uint32_t j = 0; j < kBitsPerMap; ++j) bits.push_back((m[8 + j / 8] >> (7 - j % 8)) & 1);
    off = rd32(m + 4);
  }
  return bits;
}

int32_t salvage(const char* damaged, const char* fresh, const Sink& say) {
  if (!damaged || !*damaged || !fresh || !*fresh) {
    err_note(LMI_E_ARGUMENT, "a library path is missing");
    return LMI_E_ARGUMENT;
  }
  std::string src = full_path(damaged), dst = full_path(fresh);
  if (src.empty() || dst.empty()) return LMI_E_ARGUMENT;
  if (src == dst) {
    err_note(LMI_E_ARGUMENT, "the salvaged library must be a new file");
    return LMI_E_ARGUMENT;
  }
  if (GetFileAttributesA(dst.c_str()) != INVALID_FILE_ATTRIBUTES) {
    err_note(LMI_E_EXISTS, dst + " already exists");
    return LMI_E_EXISTS;
  }
  Source s;
  int32_t rc = s.open(src);
  if (rc) return rc;
  Library& lib = s.lib;
  if (!s.headerOk) say(LMI_E_DAMAGED, "", "the header is damaged; its comment and time are lost");
  std::unordered_set<uint32_t> reached = reachable(lib);
  std::vector<uint8_t> bits = usage_bits(lib);

  // Scan every block that is not a data, bitmap or header block for records;
  // a record may run into the next blocks of its node.
  std::vector<Candidate> found;
  const uint32_t chunk = 128 * kBlock, tail = 4096;
  std::vector<uint8_t> buf(chunk + tail);
  uint64_t end = lib.fsize;
  for (uint64_t at = lib.base + kBlock; at < end; at += chunk) {
    uint32_t want = uint32_t(std::min<uint64_t>(chunk + tail, end - at)), got = 0;
    std::fill(buf.begin(), buf.end(), 0);
    if (read_at(&lib, at, buf.data(), want, &got)) return LMI_E_IO;
    for (uint32_t b = 0; b < chunk && b + kBlock <= got; b += kBlock) {
      const uint8_t* blk = buf.data() + b;
      if (!std::memcmp(blk, "DAT*", 4) || !std::memcmp(blk, "FRE*", 4)) continue;
      for (uint32_t p = b; p < b + kBlock; ++p) {
        if (buf[p] != 'E' || std::memcmp(buf.data() + p, "ENT*", 4)) continue;
        Candidate c;
        if (!parse_record(lib, buf.data() + p, got - p, &c.e)) continue;
        c.at = uint32_t(at + p);
        c.reachable = reached.count(c.at) != 0;
        uint32_t blockIndex = (c.at - lib.base) / kBlock;
        c.inFreeBlock = blockIndex < bits.size() && !bits[blockIndex];
        found.push_back(std::move(c));
      }
    }
  }

  // For each name the best copy that reads whole: reachable first, then newest.
  std::stable_sort(found.begin(), found.end(), [](const Candidate& a, const Candidate& b) {
    if (a.e.name != b.e.name) return a.e.name < b.e.name;
    if (a.reachable != b.reachable) return a.reachable;
    if (a.inFreeBlock != b.inFreeBlock) return !a.inFreeBlock;
    return a.e.time > b.e.time;
  });
  std::vector<OutEntry> keep;
  std::vector<uint8_t> data;
  for (size_t i = 0; i < found.size();) {
    size_t j = i;
    while (j < found.size() && found[j].e.name == found[i].e.name) ++j;
    const std::string& name = found[i].e.name;
    int32_t err = 0;
    bool saved = false, skippedFree = false;
    for (size_t t = i; t < j && !saved; ++t) {
      if (found[t].inFreeBlock && !found[t].reachable) {
        skippedFree = true;  // a record left behind in free space: deleted earlier
        continue;
      }
      int32_t r = read_chain(&lib, found[t].e.first, found[t].e.length, &data);
      if (r == 0) {
        keep.push_back(found[t].e);
        saved = true;
        say(ZBSHR_LIB_NOTE_INFO, name,
            "saved '" + name + "' (" + std::to_string(found[t].e.length - found[t].e.commentLen) +
                " bytes" + (found[t].reachable ? ")" : ", no longer listed)"));
      } else if (!err) {
        err = r;
      }
    }
    if (!saved && err)
      say(err, name, "entry '" + name + "': its data cannot be read whole; not saved");
    else if (!saved && skippedFree)
      say(ZBSHR_LIB_NOTE_INFO, name, "entry '" + name + "' was found only in free space; not saved");
    i = j;
  }

  // Check-out records: as many whole records as the list yields.
  std::vector<uint8_t> list;
  if (s.headerOk && rd32(s.header.data() + hdr::kListLen)) {
    uint32_t first = rd32(s.header.data() + hdr::kListFirst), len = rd32(s.header.data() + hdr::kListLen);
    if (read_chain(&lib, first, len, &list)) {
      list.clear();
      say(LMI_E_IO, "", "the check-out list cannot be read; its records are lost");
    } else {
      size_t whole = 0;
      if (!whole_check_out_list(list, &whole)) {
        say(LMI_E_DAMAGED, "", "the check-out list is damaged after byte " + std::to_string(whole) +
                                   "; the records before it are kept");
        list.resize(whole);
      }
    }
  }

  std::vector<uint8_t> header(kBlock, 0);
  if (s.headerOk) std::memcpy(header.data(), s.header.data(), kBlock);
  else wr32(header.data() + hdr::kCreated, uint32_t(now32()));
  // write_fresh sorts `keep` by name, which it already is.
  rc = write_fresh(dst, header.data(), keep, list, [&](size_t i, std::vector<uint8_t>* b) {
    return read_chain(&lib, keep[i].first, keep[i].length, b);
  });
  if (rc) return rc;
  return int32_t(keep.size());
}

}  // namespace

}  // namespace zbshr::lm

ZBSHR_API(int32_t) zbshr_lib_salvage(const char* damaged, const char* fresh, ZBSHR_LIB_PROBLEM cb,
                                     void* ctx) {
  using namespace zbshr::lm;
  err_begin();
  try {
    return err_end(salvage(damaged, fresh, Sink{cb, ctx}));
  } catch (...) {
    return err_end(LMI_E_IO);
  }
}
