#pragma once

#include <QPointer>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>
#include <utility>
#include <vector>

namespace vantrix {

// The model's handle on one piece of background work. All it can do is ask the work to stop: the
// work checks the token after every blocking step, and each result it hands to the GUI thread
// checks it again there, so a cancelled task never writes state. Cheap to copy (shared state).
class TaskHandle {
 public:
  std::stop_token token() const { return m_source.get_token(); }
  void cancel() { m_source.request_stop(); }
  bool isCancelled() const { return m_source.stop_requested(); }

 private:
  std::stop_source m_source;
};

// The worker threads of one model. Its destructor (or waitForDone) blocks until every task has
// returned, so no task outlives the model that started it; tasks that honour their token return
// promptly once cancelled. Threads are made as tasks need them, up to a few, and kept until the
// runner goes. The queue is guarded by standard locks rather than Qt's thread pool, so that
// ThreadSanitizer sees every hand-off to a worker (Qt's own locks are invisible to it).
//
// start() and waitForDone() are for the owner's thread.
class TaskRunner {
 public:
  TaskRunner();
  ~TaskRunner();
  TaskRunner(const TaskRunner&) = delete;
  TaskRunner& operator=(const TaskRunner&) = delete;

  // Runs `work` on a worker thread with the new task's token and returns the task's handle.
  TaskHandle start(std::function<void(std::stop_token)> work);
  void waitForDone();

 private:
  void serve();

  const std::size_t m_maxThreads;
  std::mutex m_mutex;
  std::condition_variable m_queued;  // a task was queued, or the runner is closing
  std::condition_variable m_idle;    // the queue is empty and no task runs
  std::deque<std::function<void()>> m_queue;
  std::vector<std::thread> m_threads;
  std::size_t m_waiting = 0;  // threads waiting for a task
  std::size_t m_running = 0;  // tasks taken and not yet returned
  bool m_closing = false;
};

// Hands `fn` to `target`'s thread (the GUI thread for the model) and runs it there as fn(*target)
// unless the target has been destroyed by then. Callable from any thread while the target is
// alive; the model guarantees that by waiting for its tasks before it goes away.
template <class T, class F>
void postTo(const QPointer<T>& target, F fn) {
  T* object = target.data();
  if (!object) return;
  QMetaObject::invokeMethod(
      object,
      [weak = target, fn = std::move(fn)]() mutable {
        if (T* alive = weak.data()) fn(*alive);
      },
      Qt::QueuedConnection);
}

}  // namespace vantrix
