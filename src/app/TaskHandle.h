#pragma once

#include <QPointer>
#include <QThreadPool>

#include <functional>
#include <stop_token>
#include <utility>

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
// promptly once cancelled.
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
  QThreadPool m_pool;
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
