#include "src/client/metricsFile.h"

#include <utility>

#include "src/common/logFile.h"
#include "src/common/wholeFile.h"

metricsFile::metricsFile(logFile* log, Render render, std::chrono::milliseconds interval)
    : log_(log), render_(std::move(render)), interval_(interval), thread_([this] { run(); }) {}

metricsFile::~metricsFile() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void metricsFile::setPath(const std::string& path) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (path == path_) return;
    // Emptied rather than left with its last figures, for a collector to serve for ever; not
    // removed, since a collector may reach it through a link that must not dangle.
    if (!path_.empty()) {
      if (const std::string failure = replaceWhole(path_, "", 0644); !failure.empty())
        writeJoinedTo(log_, 3, "NIVO metrics: ", failure);
    }
    path_ = path;
    failing_ = false;
    poked_ = true;
  }
  wake_.notify_one();
}

void metricsFile::poke() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    poked_ = true;
  }
  wake_.notify_one();
}

void metricsFile::finish() {
  const std::lock_guard<std::mutex> guard(lock_);
  if (finished_) return;
  write(true);
  finished_ = true;
}

void metricsFile::run() {
  std::unique_lock<std::mutex> guard(lock_);
  while (!stopping_) {
    if (wake_.wait_for(guard, interval_, [this] { return poked_ || stopping_; }) && stopping_)
      break;
    poked_ = false;
    if (!finished_) write(false);
  }
}

void metricsFile::write(bool final) {
  if (path_.empty()) return;
  const std::string failure = replaceWhole(path_, render_(final), 0644);
  if (failure.empty()) {
    if (failing_) writeJoinedTo(log_, 2, "NIVO metrics: ", path_, " written again");
    failing_ = false;
  } else if (!failing_) {
    writeJoinedTo(log_, 3, "NIVO metrics: ", failure, "; the agent runs on without metrics");
    failing_ = true;
  }
}
