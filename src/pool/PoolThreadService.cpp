#include "src/pool/PoolThreadService.h"

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <system_error>

namespace {
constexpr int kAttempts = 3;
constexpr auto kRetryPause = std::chrono::milliseconds(1000);
// Services waiting per worker above which an automatic pool adds a worker.
constexpr int kBacklogPerWorker = 4;
}  // namespace

PoolThreadService::PoolThreadService()
    : poolSize_(10), queue_(new ExecuteQueue<std::shared_ptr<service>>()) {}

PoolThreadService::PoolThreadService(int size, logFile* log)
    : poolSize_(size), log_(log), queue_(new ExecuteQueue<std::shared_ptr<service>>()) {}

PoolThreadService::PoolThreadService(int size, logFile* log, AfterExec after)
    : poolSize_(size),
      log_(log),
      afterExec_(after),
      queue_(new ExecuteQueue<std::shared_ptr<service>>()) {}

PoolThreadService::PoolThreadService(int size, AfterExec after)
    : poolSize_(size), afterExec_(after), queue_(new ExecuteQueue<std::shared_ptr<service>>()) {}

PoolThreadService::~PoolThreadService() {
  // Destroying a joinable std::thread ends the process, and a detached worker would go on using
  // the queue deleted below. So the workers are stopped and joined here; a worker busy with a
  // plugin is waited for. Nothing is traced: the log may already be gone.
  stop_ = true;
  queue_->clear();
  queue_->broadcast();
  std::deque<std::thread> workers;
  {
    std::lock_guard<std::mutex> guard(workersLock_);
    workers.swap(workers_);
  }
  for (std::thread& worker : workers) {
    if (worker.joinable()) worker.join();
  }
  delete queue_;
}

void PoolThreadService::setThreadMode(short mode) {
  if (mode == 1) {
    trace(0, "Auto size mode");
    threadMode_ = 1;
  } else {
    trace(0, "fixed size mode");
    threadMode_ = 0;
  }
}

void PoolThreadService::setMaxWorkers(int workers) { maxWorkers_ = workers; }

void PoolThreadService::setCallbackFctBeforeExec(BeforeExec before) { beforeExec_ = before; }

void PoolThreadService::setCallbackFctAfterExec(AfterExec after) { afterExec_ = after; }

void PoolThreadService::run() {
  stop_ = false;
  trace(0, threadMode_ != 1 ? "fixed size mode" : "Auto size mode");
  const int size = poolSize_;
  trace(0, "Pool Start, size: " + std::to_string(size));
  for (int number = 0; number < size; ++number) startWorker(number);
}

void PoolThreadService::executeService(std::shared_ptr<service> s) {
  queue_->push(s);
  traceJoined(0, "PUSH service", s->Getname());
  if (threadMode_ != 1) return;
  if (queue_->size() > kBacklogPerWorker * poolSize_) {
    const int bound = maxWorkers_;
    if (bound > 0 && poolSize_ >= bound) {
      // Said once per bound: past it every order would say it again.
      if (boundSaid_ != bound)
        trace(2, "pool at its bound of " + std::to_string(bound) +
                     " workers; further orders wait in the queue");
      boundSaid_ = bound;
      return;
    }
    trace(0, "Create New Thread, new size" + std::to_string(poolSize_.load()));
    const int number = ++poolSize_;
    try {
      startWorker(number);
    } catch (const std::system_error& e) {
      // The system refuses another thread (a task, memory or address-space limit). The order
      // stays queued for the workers there are, and growth is tried again at the next order.
      --poolSize_;
      trace(4, std::string("Create New Thread failed: ") + e.what());
    }
  }
}

void PoolThreadService::stop() {
  trace(0, "Pool stop, size: " + std::to_string(poolSize_.load()));
  stop_ = true;
  queue_->clear();
  queue_->broadcast();
}

void PoolThreadService::join() {
  std::thread* first = nullptr;
  {
    std::lock_guard<std::mutex> guard(workersLock_);
    if (workers_.empty()) return;
    first = &workers_.front();
    if (!first->joinable() || first->get_id() == std::this_thread::get_id()) return;
  }
  // Joined outside the lock: growth may append workers meanwhile, which leaves the front element
  // where it is (see the container's comment in the header).
  first->join();
}

bool PoolThreadService::isRunning() const { return !stop_; }

int PoolThreadService::getSizeofExecuteQueue() { return queue_->size(); }

int PoolThreadService::getSizePool() const { return poolSize_; }

int PoolThreadService::getUsedPool() const { return used_; }

void PoolThreadService::trace(int level, std::string message) { traceJoined(level, message); }

void PoolThreadService::startWorker(int number) {
  std::lock_guard<std::mutex> guard(workersLock_);
  workers_.emplace_back(&PoolThreadService::executeFct, this, number);
}

void PoolThreadService::executeFct(int /*number*/) {
  sigset_t none;
  sigemptyset(&none);
  if (const int error = pthread_sigmask(SIG_SETMASK, &none, nullptr); error != 0)
    trace(4, "signal mask not cleared: " + std::to_string(error));

  while (!stop_) {
    try {
      queue_->waitNotEmptyOrDie(&stop_);
      if (stop_) continue;
      ++used_;
      std::shared_ptr<service> s = queue_->pop();
      const std::string name = s->Getname();
      traceJoined(0, "service exec ", name);

      int decision = 1;
      if (beforeExec_ != nullptr) {
        traceJoined(0, "service before exec ", name);
        decision = beforeExec_(s);
      }
      if (decision == 1) {
        int attempts = 0;
        int result = 0;
        while (attempts < kAttempts) {
          try {
            result = s->execute();
            traceJoined(0, "service exec SUCCESS ", name);
            attempts = 10;  // deliberately past kAttempts: below, it tells a success from failures
          } catch (const serviceException& e) {
            ++attempts;
            trace(4, "Execute failed retry" + name + " " + std::to_string(s->GetService_id()) +
                         " " + e.what());
            std::this_thread::sleep_for(kRetryPause);
            result = -2;
          }
        }
        if (attempts > kAttempts && result == -2) s->SetReturnCode(255);
        if (afterExec_ != nullptr) {
          traceJoined(0, "service after exec ", name);
          afterExec_(s);
        }
      }
      --used_;
    } catch (const EmptyQueueException&) {
      // Another worker took the service first; wait again.
    } catch (const serviceException& e) {
      trace(5, e.what());
    }
  }
}
