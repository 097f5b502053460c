// Safe input and output for the subcommands: whole-file reads that fail with
// the operating system's reason, outputs written under a temporary name beside
// the target and renamed into place only on success ("-" is standard input or
// output), a same-file check by device and inode, and SIGINT/SIGTERM turned
// into a flag that long loops poll so that they stop without partial output.
#pragma once

#include <cstdio>
#include <string>

#include "cli.h"

namespace zcli {

// Installs the SIGINT/SIGTERM handlers (once, from main); see interrupted()
// in cli.h.
void install_interrupt_handlers();

// The folder where the library keeps its configuration: $ZBSHR_HOME, else
// %APPDATA%\zbshr on Windows, else $XDG_CONFIG_HOME/zbshr, else
// ~/.config/zbshr.
std::string config_dir();

// The operating system's text for errno value `err` ("Permission denied").
std::string os_reason(int err);

// True when both paths name the same existing file (same device and inode).
bool same_file(const std::string& a, const std::string& b);

// Opens an input for reading in binary mode; "-" is standard input. A
// directory or a file that cannot be opened gives nullptr and sets `error`
// ("cannot open X: Is a directory"). With `seekable`, standard input is
// first copied into an anonymous temporary file so that it can be rewound.
FILE* open_input(const std::string& path, bool seekable, std::string& error);
void close_input(FILE* f);

// Reads a whole input ("-" is standard input) into `data`.
bool read_input(const std::string& path, std::string& data, std::string& error);

// An output file that appears under its name only when commit() succeeds.
// prepare() makes a scratch folder beside the target (or in the temporary
// folder when the target is "-" or an existing non-regular file such as
// /dev/null); temp_path() is where to write: a file of the target's own name
// inside it, since some formats write their file's name into the file. commit() renames it into place,
// or copies it to standard output / the device; the destructor removes a
// temporary file that was not committed.
class AtomicOutput {
 public:
  AtomicOutput() = default;
  AtomicOutput(const AtomicOutput&) = delete;
  AtomicOutput& operator=(const AtomicOutput&) = delete;
  ~AtomicOutput();
  bool prepare(const std::string& target, std::string& error);
  const std::string& temp_path() const { return temp_; }
  bool commit(std::string& error);
  void discard();

 private:
  std::string target_, temp_, temp_dir_;
  bool rename_ = true;
};

}  // namespace zcli
