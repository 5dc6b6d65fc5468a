#include "app/TaskHandle.h"

#include <algorithm>

namespace vantrix {

namespace {
// Open, rebuild, filmstrip and export may all be in flight at once, and a cancelled task may still
// be finishing a blocking step; a few threads keep a newer task from queueing behind it.
constexpr std::size_t kMinimumThreads = 4;
}  // namespace

TaskRunner::TaskRunner() : m_maxThreads(std::max<std::size_t>(kMinimumThreads, std::thread::hardware_concurrency())) {}

TaskRunner::~TaskRunner() {
  {
    std::lock_guard lock(m_mutex);
    m_closing = true;
  }
  m_queued.notify_all();
  // Each thread runs what is still queued before it leaves.
  for (std::thread& thread : m_threads) thread.join();
}

TaskHandle TaskRunner::start(std::function<void(std::stop_token)> work) {
  TaskHandle handle;
  {
    std::lock_guard lock(m_mutex);
    m_queue.push_back([work = std::move(work), token = handle.token()] { work(token); });
    if (m_queue.size() > m_waiting && m_threads.size() < m_maxThreads) m_threads.emplace_back([this] { serve(); });
  }
  m_queued.notify_one();
  return handle;
}

void TaskRunner::waitForDone() {
  std::unique_lock lock(m_mutex);
  m_idle.wait(lock, [&] { return m_queue.empty() && m_running == 0; });
}

void TaskRunner::serve() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    ++m_waiting;
    m_queued.wait(lock, [&] { return !m_queue.empty() || m_closing; });
    --m_waiting;
    if (m_queue.empty()) return;
    std::function<void()> task = std::move(m_queue.front());
    m_queue.pop_front();
    ++m_running;
    lock.unlock();
    task();
    task = nullptr;  // its captures go before the task counts as done
    lock.lock();
    if (--m_running == 0 && m_queue.empty()) m_idle.notify_all();
  }
}

}  // namespace vantrix
