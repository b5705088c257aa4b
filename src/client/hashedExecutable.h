// The SHA-256 of one executable file, and the open descriptor it was read from, so that a plugin
// started from that descriptor runs the very content that was hashed.
//
// The file is hashed again only when its identity has changed: device, inode, size, and the
// modification and change times to the nanosecond. A rewrite in place changes the change time even
// when the modification time is put back, and a new file put in place has another inode. So an
// unchanged file costs one stat() per look. What stays open: a rewrite in place between the look
// and the start of the plugin runs the new content once (the next look sees it), and a clock set
// back can give a rewrite the change time of the hashed content.
//
// Not thread-safe: one thread looks. The descriptors handed out are shared, and stay open for any
// thread that holds one, also after a later look has replaced them.
#pragma once

#include <sys/types.h>
#include <array>
#include <ctime>
#include <memory>
#include <string>

#include "src/common/uniqueFd.h"

class HashedExecutable {
 public:
  using Digest = std::array<unsigned char, 32>;

  struct State {
    std::shared_ptr<const UniqueFd> file;  // read-only, close-on-exec; null when unreadable
    Digest sha256{};                       // of the content read from `file`
    std::string error;                     // why `file` is null: a reason for a refusal
  };

  explicit HashedExecutable(std::string path);

  // The file as it is now: one stat() when its identity is the one last hashed, else opened and
  // hashed anew. An unreadable file is tried again at the next look.
  const State& current();

 private:
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};
    bool operator==(const Identity& other) const;
  };

  void rehash();
  void refuse(std::string reason);

  const std::string path_;
  State state_;
  Identity hashed_;
  // hashed_ describes state_ and may be relied on at the next look: see rehash() for when not.
  bool trusted_ = false;
};
