#include "AppTestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QThread>

#include <unistd.h>

namespace vantrix::testing {

namespace fs = std::filesystem;

bool waitUntil(const std::function<bool()>& done, int timeoutMs) {
  QElapsedTimer clock;
  clock.start();
  while (!done()) {
    if (clock.elapsed() > timeoutMs) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    QThread::msleep(1);
  }
  return true;
}

void runEventsFor(int milliseconds) {
  QElapsedTimer clock;
  clock.start();
  while (clock.elapsed() < milliseconds) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    QThread::msleep(1);
  }
}

bool waitHoldingEvents(const std::function<bool()>& done, int timeoutMs) {
  QElapsedTimer clock;
  clock.start();
  while (!done()) {
    if (clock.elapsed() > timeoutMs) return false;
    QThread::msleep(1);
  }
  QThread::msleep(50);
  return true;
}

void LoadGate::release() {
  {
    std::lock_guard lock(m_mutex);
    m_open = true;
  }
  m_changed.notify_all();
}

void LoadGate::wait() {
  // Bounded, so that a failed test that never releases its gate still ends.
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_open; });
}

struct ManualDelays::Call {
  std::function<void()> fn;
  bool cancelled = false;
};

AppServices::DelayFactory ManualDelays::factory() {
  return [this](std::chrono::milliseconds, std::function<void()> fn) -> std::unique_ptr<DelayedCall> {
    struct Handle final : DelayedCall {
      std::shared_ptr<Call> call;
      void cancel() override { call->cancelled = true; }
      ~Handle() override { call->cancelled = true; }
    };
    auto handle = std::make_unique<Handle>();
    handle->call = m_calls.emplace_back(std::make_shared<Call>(Call{std::move(fn)}));
    return handle;
  };
}

int ManualDelays::fire() {
  int ran = 0;
  for (const auto& call : std::exchange(m_calls, {}))
    if (!call->cancelled) {
      call->fn();
      ++ran;
    }
  return ran;
}

FixtureSpec clipSpec() {
  FixtureSpec recipe;
  recipe.seconds = 3;
  recipe.width = 160;
  recipe.height = 120;
  recipe.gopFrames = 15;
  return recipe;
}

void AppModelTest::SetUp() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(info->test_suite_name()) + "-" + info->name();
  for (char& c : name)
    if (c == '/') c = '_';
  m_dir = fs::temp_directory_path() / ("vantrix-app-" + std::to_string(::getpid()) + "-" + name);
  fs::remove_all(m_dir);
  fs::create_directories(m_dir / "data");
  // The real session store finds its folder here, as it would in $XDG_DATA_HOME/Vantrix.
  qputenv("XDG_DATA_HOME", QFile::encodeName(QString::fromStdString((m_dir / "data").string())));
}

void AppModelTest::TearDown() {
  m_undo.clear();
  fs::remove_all(m_dir);
}

fs::path AppModelTest::copyFixture(const FixtureSpec& recipe, const std::string& name) const {
  const fs::path target = m_dir / name;
  fs::copy_file(fixture(recipe), target, fs::copy_options::overwrite_existing);
  return target;
}

QString AppModelTest::sessionDirectory() const { return SessionStore::defaultDirectory(); }

AppServices realServices() {
  AppServices services = AppServices::standard();
  // The real player on the wall clock, with no sound device and no screen.
  services.playerOptions = [] {
    Player::Options options;
    options.audio = std::make_unique<NullAudioOutput>();
    return options;
  };
  return services;
}

std::unique_ptr<AppModel> AppModelTest::makeModel(AppServices services) {
  auto model = std::make_unique<AppModel>(SessionStore(), std::move(services));
  model->setUndoStack(&m_undo);
  return model;
}

void AppModelTest::openAndWait(AppModel& model, const fs::path& file) {
  model.openVideo(file);
  ASSERT_TRUE(waitUntil([&] { return model.phase().kind != AppModel::Phase::Kind::loading; })) << file;
  ASSERT_TRUE(model.phase().isEditing()) << file << ": "
                                         << (model.activeError() ? model.activeError()->description() : "");
  ASSERT_TRUE(waitUntil([&] { return model.composition() != nullptr; })) << file;
}

}  // namespace vantrix::testing

// Every test runs on a headless GUI application: the model posts to its event loop, and images
// and the player need Qt Gui.
int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QGuiApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
