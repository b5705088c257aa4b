// Blocking FIFO hand-over between the thread that receives orders and the pool's workers. Waiting
// and taking are separate steps: several consumers may wake for one element, and those that lose
// the race get EmptyQueueException from pop() and wait again.
#pragma once

#include <pthread.h>

#include <atomic>
#include <deque>
#include <queue>

#include "src/common/messageException.h"

class EmptyQueueException : public MessageException {
 public:
  using MessageException::MessageException;
};

template <typename T>
class ExecuteQueue {
 public:
  ExecuteQueue() {
    pthread_mutex_init(&lock_, nullptr);
    pthread_cond_init(&notEmpty_, nullptr);
  }
  virtual ~ExecuteQueue() {
    pthread_cond_destroy(&notEmpty_);
    pthread_mutex_destroy(&lock_);
  }
  ExecuteQueue(const ExecuteQueue&) = delete;
  ExecuteQueue& operator=(const ExecuteQueue&) = delete;

  void push(const T& item) {
    {
      Guard guard(lock_);
      items_.push(item);
    }
    pthread_cond_signal(&notEmpty_);  // one element, one consumer
  }

  T pop() {
    Guard guard(lock_);
    if (items_.empty()) throw EmptyQueueException("queue is empty");
    T front = items_.front();
    items_.pop();
    return front;
  }

  // Returns once an element is present or *stop is true; removes nothing.
  void waitNotEmptyOrDie(std::atomic<bool>* stop) {
    Guard guard(lock_);
    while (items_.empty() && !stop->load()) pthread_cond_wait(&notEmpty_, &lock_);
  }

  void clear() {
    Guard guard(lock_);
    std::queue<T, std::deque<T>>().swap(items_);
  }

  // Wakes every waiter. The lock is taken for the moment of the broadcast: a consumer that has
  // tested the stop flag but not yet started waiting would otherwise miss this wake-up and sleep
  // until the next push, which would keep a stopping pool from ever being joined.
  void broadcast() {
    Guard guard(lock_);
    pthread_cond_broadcast(&notEmpty_);
  }

  int size() {
    Guard guard(lock_);
    return static_cast<int>(items_.size());
  }

 private:
  class Guard {
   public:
    explicit Guard(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~Guard() { pthread_mutex_unlock(&mutex_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    pthread_mutex_t& mutex_;
  };

  pthread_mutex_t lock_;
  pthread_cond_t notEmpty_;
  std::queue<T, std::deque<T>> items_;
};
