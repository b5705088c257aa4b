// Writing a file's whole content with plain system calls: no stream buffer that could keep part of
// it back, every short write and EINTR taken care of.
#pragma once

#include <sys/types.h>

#include <string>

// write(2) of all of `text` to `fd`; false with errno set when it fails.
bool writeWhole(int fd, const std::string& text);

// Replaces the file at `path` with `text`, so that a reader sees the old content or the new, never
// a part: the text goes to a temporary file in the same directory, which is renamed over `path`.
// The file gets `mode` whatever the umask. A symbolic link at either name is not followed. Returns
// "" on success, else what failed and the system's reason.
std::string replaceWhole(const std::string& path, const std::string& text, mode_t mode);
