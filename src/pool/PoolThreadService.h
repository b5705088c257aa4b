// Runs services on worker threads: each worker takes a service from the pool's queue, asks the
// optional before-exec callback, runs service::execute() with up to three attempts one second
// apart, and hands the result to the optional after-exec callback. In automatic mode the pool adds
// a worker whenever more than four services per worker are waiting, up to an optional bound; it
// never shrinks.
// executeService() must be called from one thread only, and not while run() is starting workers.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "src/common/logFile.h"
#include "src/common/messageException.h"
#include "src/pool/ExecuteQueue.h"
#include "src/service/service.h"

// Thrown by the agent when a pool does not come up; the pool itself throws nothing.
class PoolThreadServiceException : public MessageException {
 public:
  using MessageException::MessageException;
};

class PoolThreadService {
 public:
  using AfterExec = void (*)(std::shared_ptr<service>);
  using BeforeExec = int (*)(std::shared_ptr<service>);

  PoolThreadService();
  PoolThreadService(int size, logFile* log);
  PoolThreadService(int size, logFile* log, AfterExec after);
  PoolThreadService(int size, AfterExec after);
  // Stops the pool and joins every worker still joinable before the queue goes away, so a
  // destroyed pool leaves no thread behind that could touch freed memory. A worker busy with a
  // plugin is waited for. Must not be called from one of the pool's own callbacks.
  virtual ~PoolThreadService();
  PoolThreadService(const PoolThreadService&) = delete;
  PoolThreadService& operator=(const PoolThreadService&) = delete;

  void setThreadMode(short mode);  // 1 automatic growth, anything else fixed size
  // Automatic growth stops at `workers` (0: no bound); services beyond wait in the queue. From any
  // thread, at any time. A pool already larger keeps its workers.
  void setMaxWorkers(int workers);
  void setCallbackFctBeforeExec(BeforeExec before);
  void setCallbackFctAfterExec(AfterExec after);

  void run();
  // Virtual so that a test can record what would be queued instead of running it.
  virtual void executeService(std::shared_ptr<service> s);
  void stop();
  void join();  // waits for worker 0 only

  bool isRunning() const;
  int getSizeofExecuteQueue();
  int getSizePool() const;
  int getUsedPool() const;

  void trace(int level, std::string message);
  void executeFct(int number);

 private:
  void startWorker(int number);
  // trace(level, the parts joined), the text built only when the log writes the line.
  template <typename... Parts>
  void traceJoined(int level, const Parts&... parts) {
    writeJoinedTo(log_, static_cast<char>(level), "POOL EXEC: ", parts...);
  }

  std::atomic<short> threadMode_{0};
  std::atomic<int> poolSize_;
  std::atomic<int> used_{0};
  std::atomic<bool> stop_{true};
  std::atomic<int> maxWorkers_{0};
  int boundSaid_ = 0;       // the bound last said to be reached; the dispatching thread only
  logFile* log_ = nullptr;  // not owned; must outlive the pool
  AfterExec afterExec_ = nullptr;
  BeforeExec beforeExec_ = nullptr;
  // Every worker started, in start order. A deque, because growth appends from the dispatching
  // thread while join() may be waiting on the first worker: appending to a deque never moves the
  // elements already in it, where a vector would move the thread object being joined.
  std::mutex workersLock_;
  std::deque<std::thread> workers_;
  ExecuteQueue<std::shared_ptr<service>>* queue_;
};
