// Keeps one file of the agent's metrics up to date, for a reader such as the textfile collector of
// the Prometheus node exporter. A thread of its own sleeps between writes: it writes every
// interval, and at once when poked. Each write replaces the file whole (see replaceWhole), mode
// 0644, so a reader never sees half of it. A file that cannot be written costs one WARNING line,
// and another only after a write has succeeded again in between: the agent runs on without it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

class logFile;

class metricsFile {
 public:
  // The file's text; `final` for the last write, on the agent's way out.
  using Render = std::function<std::string(bool final)>;

  // `log` (not owned, may be null) must outlive the object. Writes nothing until a path is set.
  metricsFile(logFile* log, Render render, std::chrono::milliseconds interval);
  // Stops and joins the thread; the file is left as last written.
  ~metricsFile();
  metricsFile(const metricsFile&) = delete;
  metricsFile& operator=(const metricsFile&) = delete;

  // From any thread. A new path is written at once and the file at the old one emptied; "" stops
  // the writes.
  void setPath(const std::string& path);
  // Asks for a write now rather than at the end of the interval.
  void poke();
  // Writes the file one last time, with Render's `final`, and then never again.
  void finish();

 private:
  void run();
  // Under lock_.
  void write(bool final);

  logFile* const log_;
  const Render render_;
  const std::chrono::milliseconds interval_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::string path_;       // under lock_
  bool poked_ = false;     // under lock_
  bool finished_ = false;  // under lock_
  bool stopping_ = false;  // under lock_
  bool failing_ = false;   // under lock_: the last write failed and was reported
  std::thread thread_;
};
