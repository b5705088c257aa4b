// Changes a file the way that hides it from a look at its modification time: the same file (same
// inode) gets new content, and its modification time is put back.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "src/common/uniqueFd.h"

inline void rewriteInPlace(const std::string& file, const std::string& content) {
  struct stat before;
  ASSERT_EQ(::stat(file.c_str(), &before), 0);
  const UniqueFd out(::open(file.c_str(), O_WRONLY | O_TRUNC));
  ASSERT_TRUE(out);
  ASSERT_EQ(::write(out.get(), content.data(), content.size()),
            static_cast<ssize_t>(content.size()));
  const timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::futimens(out.get(), times), 0);
}
