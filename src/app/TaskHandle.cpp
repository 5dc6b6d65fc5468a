#include "app/TaskHandle.h"

#include <algorithm>

namespace vantrix {

namespace {
// Open, rebuild, filmstrip and export may all be in flight at once, and a cancelled task may still
// be finishing a blocking step; a few threads keep a newer task from queueing behind it.
constexpr int kMinimumThreads = 4;
}  // namespace

TaskRunner::TaskRunner() { m_pool.setMaxThreadCount(std::max(kMinimumThreads, QThread::idealThreadCount())); }

TaskRunner::~TaskRunner() { m_pool.waitForDone(); }

TaskHandle TaskRunner::start(std::function<void(std::stop_token)> work) {
  TaskHandle handle;
  m_pool.start([work = std::move(work), token = handle.token()] { work(token); });
  return handle;
}

void TaskRunner::waitForDone() { m_pool.waitForDone(); }

}  // namespace vantrix
