#include "pool/PoolThreadService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "../common/tempDirTest.h"
#include "common/logFile.h"
#include "eventually.h"
#include "service/service.h"

namespace {

std::string plugin(const std::string& name) { return NIVO_TEST_PLUGIN_DIR "/" + name; }

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// What the callbacks saw. They are plain function pointers, so they reach it as a global, which
// the fixture empties before each test.
class Recorder {
 public:
  struct Finished {
    std::string name;
    int code;
    std::string out;
    double at;  // wall-clock seconds, to compare with the times the plugins write
  };

  void reset() {
    std::lock_guard<std::mutex> guard(lock_);
    finished_.clear();
    decided_.clear();
  }
  void finish(const service& s) {
    {
      std::lock_guard<std::mutex> guard(lock_);
      finished_.push_back({s.Getname(), s.GetReturnCode(), s.GetStdout(), wallSeconds()});
    }
    changed_.notify_all();
  }
  void decide(const service& s) {
    std::lock_guard<std::mutex> guard(lock_);
    decided_.push_back(s.Getname());
  }
  bool waitFinished(size_t count) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(20),
                             [&] { return finished_.size() >= count; });
  }
  std::vector<Finished> finished() {
    std::lock_guard<std::mutex> guard(lock_);
    return finished_;
  }
  std::vector<std::string> names() {
    std::vector<std::string> names;
    for (const Finished& f : finished()) names.push_back(f.name);
    return names;
  }
  std::vector<std::string> decided() {
    std::lock_guard<std::mutex> guard(lock_);
    return decided_;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Finished> finished_;
  std::vector<std::string> decided_;
};

Recorder recorder;

void recordFinished(std::shared_ptr<service> s) { recorder.finish(*s); }

// Answers with the last digit of the service id; a 9 throws, as a failing callback would.
int decideByServiceId(std::shared_ptr<service> s) {
  recorder.decide(*s);
  const int answer = static_cast<int>(s->GetService_id() % 10);
  if (answer == 9) throw serviceException("before exec refused " + s->Getname());
  return answer;
}

class PoolThreadServiceTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    log_ = std::make_unique<logFile>(0, path("pool.log"));
    recorder.reset();
  }
  // Blocked plugins are let go first: the pool's destructor waits for the services it runs.
  void TearDown() override {
    release();
    pool_.reset();
    log_.reset();
    TempDirTest::TearDown();
  }

  PoolThreadService& startPool(int size, short mode,
                               PoolThreadService::BeforeExec before = nullptr) {
    pool_ = std::make_unique<PoolThreadService>(size, log_.get(), recordFinished);
    pool_->setThreadMode(mode);
    if (before != nullptr) pool_->setCallbackFctBeforeExec(before);
    pool_->run();
    return *pool_;
  }

  static std::shared_ptr<service> makeService(const std::string& name, const std::string& plugin,
                                              const std::string& parameter,
                                              unsigned long long id = 0) {
    auto s = std::make_shared<service>();
    s->SetService_id(id);
    s->Setname(name);
    s->Setpath(plugin);
    s->Setparameter(parameter);
    return s;
  }
  // Prints its name and succeeds.
  static std::shared_ptr<service> quick(const std::string& name, unsigned long long id = 0) {
    return makeService(name, plugin("plugin_exit.sh"), name, id);
  }
  // Holds its worker until release().
  std::shared_ptr<service> blocker(const std::string& name) const {
    return makeService(name, plugin("pool_block.sh"), path(name + ".started") + " " + path("go"));
  }
  bool started(const std::string& name) const {
    return eventually([&] { return std::filesystem::exists(path(name + ".started")); });
  }
  void release() const { writeFile("go", ""); }

  int logLines(const std::string& text) const {
    std::istringstream log(readFile("pool.log"));
    int count = 0;
    for (std::string line; std::getline(log, line);) count += line.find(text) != std::string::npos;
    return count;
  }

  std::unique_ptr<logFile> log_;
  std::unique_ptr<PoolThreadService> pool_;
};

TEST_F(PoolThreadServiceTest, DefaultPoolHasTenWorkersAndIsNotRunning) {
  const PoolThreadService pool;
  EXPECT_EQ(pool.getSizePool(), 10);
  EXPECT_FALSE(pool.isRunning());
  EXPECT_EQ(pool.getUsedPool(), 0);
}

TEST_F(PoolThreadServiceTest, DestroyingAnIdleOrNeverStartedPoolReturns) {
  { PoolThreadService neverRun(3, log_.get()); }
  {
    PoolThreadService idle(3, log_.get());
    idle.run();
  }
  {
    PoolThreadService stopped(3, log_.get());
    stopped.run();
    stopped.stop();
    stopped.join();
  }
  // Without a log the pool still runs services; it just traces nothing.
  PoolThreadService quiet(1, recordFinished);
  quiet.run();
  quiet.executeService(quick("quiet"));
  EXPECT_TRUE(recorder.waitFinished(1));
}

TEST_F(PoolThreadServiceTest, RunsServicesAndHandsThemToTheAfterExecCallback) {
  PoolThreadService& pool = startPool(2, 0);
  EXPECT_TRUE(pool.isRunning());
  for (const char* name : {"alpha", "beta", "gamma"}) pool.executeService(quick(name));
  ASSERT_TRUE(recorder.waitFinished(3));
  for (const Recorder::Finished& f : recorder.finished()) {
    EXPECT_EQ(f.code, 0);
    EXPECT_EQ(f.out, f.name + "\n");
  }
  EXPECT_TRUE(eventually([&] { return pool.getUsedPool() == 0; }));

  pool.stop();
  EXPECT_FALSE(pool.isRunning());
  pool.join();
  for (const char* line :
       {"#DEBUG#POOL EXEC: fixed size mode", "POOL EXEC: Pool Start, size: 2",
        "POOL EXEC: PUSH servicealpha", "POOL EXEC: service exec alpha",
        "POOL EXEC: service exec SUCCESS alpha", "POOL EXEC: service after exec alpha",
        "POOL EXEC: Pool stop, size: 2"}) {
    EXPECT_GE(logLines(line), 1) << line;
  }
}

TEST_F(PoolThreadServiceTest, AutoModeAddsAWorkerWhenMoreThanFourServicesPerWorkerWait) {
  PoolThreadService& pool = startPool(2, 1);
  pool.executeService(blocker("first"));
  pool.executeService(blocker("second"));
  ASSERT_TRUE(started("first") && started("second"));
  EXPECT_EQ(pool.getUsedPool(), 2);

  for (int i = 1; i <= 8; ++i) pool.executeService(quick("waiting" + std::to_string(i)));
  EXPECT_EQ(pool.getSizeofExecuteQueue(), 8);
  EXPECT_EQ(pool.getSizePool(), 2);
  pool.executeService(quick("ninth"));
  EXPECT_EQ(pool.getSizePool(), 3);
  EXPECT_EQ(logLines("#DEBUG#POOL EXEC: Create New Thread, new size"), 1);
  EXPECT_EQ(logLines("#DEBUG#POOL EXEC: Create New Thread, new size2"), 1);

  // The new worker drains the queue while the first two are still held.
  EXPECT_TRUE(recorder.waitFinished(9));
  release();
  EXPECT_TRUE(recorder.waitFinished(11));
  EXPECT_EQ(pool.getSizePool(), 3);
}

TEST_F(PoolThreadServiceTest, FixedModeNeverGrows) {
  PoolThreadService& pool = startPool(1, 2);
  pool.executeService(blocker("held"));
  ASSERT_TRUE(started("held"));
  for (int i = 1; i <= 12; ++i) pool.executeService(quick("waiting" + std::to_string(i)));
  EXPECT_EQ(pool.getSizeofExecuteQueue(), 12);
  EXPECT_EQ(pool.getSizePool(), 1);
  release();
  EXPECT_TRUE(recorder.waitFinished(13));
  EXPECT_EQ(pool.getSizePool(), 1);
  EXPECT_EQ(logLines("Create New Thread"), 0);
  EXPECT_EQ(logLines("#DEBUG#POOL EXEC: fixed size mode"), 2);  // set, then again at run()
}

TEST_F(PoolThreadServiceTest, BeforeExecRunsOnlyServicesItAnswersOneFor) {
  PoolThreadService& pool = startPool(1, 0, decideByServiceId);
  const auto skipped0 = quick("skipped0", 10);
  const auto skipped2 = quick("skipped2", 12);
  pool.executeService(skipped0);
  pool.executeService(skipped2);
  pool.executeService(quick("refused", 19));
  pool.executeService(quick("run", 21));
  // One worker takes them in order, so the last one's callback comes after all the others.
  ASSERT_TRUE(recorder.waitFinished(1));
  EXPECT_EQ(recorder.decided(),
            (std::vector<std::string>{"skipped0", "skipped2", "refused", "run"}));
  EXPECT_EQ(recorder.names(), std::vector<std::string>{"run"});
  EXPECT_EQ(skipped0->GetStdout(), "");
  EXPECT_EQ(skipped2->GetStdout(), "");
  EXPECT_EQ(logLines("POOL EXEC: service before exec skipped0"), 1);
  EXPECT_EQ(logLines("#CRITICAL#POOL EXEC: before exec refused refused"), 1);
}

TEST_F(PoolThreadServiceTest, SilentServiceIsTriedThreeTimesASecondApartThenReported) {
  PoolThreadService& pool = startPool(1, 0);
  pool.executeService(makeService("mute", plugin("pool_mute.sh"), path("attempts"), 42));
  ASSERT_TRUE(recorder.waitFinished(1));

  const Recorder::Finished done = recorder.finished().front();
  EXPECT_EQ(done.code, 3);  // as execute() left it: the 255 rule is only for a run that succeeded
  EXPECT_EQ(logLines("#ERRORS#POOL EXEC: Execute failed retrymute 42 "
                     "DAEMON: the plugin does not return anything on the stdout"),
            3);
  EXPECT_EQ(logLines("service exec SUCCESS"), 0);

  std::vector<double> attempts;
  std::ifstream times(path("attempts"));
  for (double at; times >> at;) attempts.push_back(at);
  ASSERT_EQ(attempts.size(), 3u);
  attempts.push_back(done.at);  // the last failure is followed by a pause too
  for (size_t i = 1; i < attempts.size(); ++i) EXPECT_GE(attempts[i] - attempts[i - 1], 0.9) << i;
}

TEST_F(PoolThreadServiceTest, StopDropsWaitingServicesAndLetsTheRunningOneFinish) {
  PoolThreadService& pool = startPool(1, 0);
  pool.executeService(blocker("running"));
  ASSERT_TRUE(started("running"));
  for (const char* name : {"dropped1", "dropped2", "dropped3"}) pool.executeService(quick(name));

  pool.stop();
  EXPECT_EQ(pool.getSizeofExecuteQueue(), 0);
  release();
  pool.join();
  ASSERT_EQ(recorder.names(), std::vector<std::string>{"running"});
  EXPECT_EQ(recorder.finished().front().out, "released\n");
}

}  // namespace
