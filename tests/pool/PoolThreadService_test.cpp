#include "src/pool/PoolThreadService.h"

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

#include "src/common/logFile.h"
#include "src/service/service.h"
#include "tests/common/eventually.h"
#include "tests/common/tempDirTest.h"

namespace {

std::string plugin(const std::string& name) { return NIVO_TEST_PLUGIN_DIR "/" + name; }

// The services handed to the after-exec callback, a plain function pointer: it reaches them as a
// global, which the fixture empties before each test.
using Services = std::vector<std::shared_ptr<service>>;
std::mutex finishedLock;
std::condition_variable finishedChanged;
Services finished;

void recordFinished(std::shared_ptr<service> s) {
  {
    const std::lock_guard<std::mutex> guard(finishedLock);
    finished.push_back(std::move(s));
  }
  finishedChanged.notify_all();
}

// The services finished once there are count of them (fewer after a while).
Services waitFinished(size_t count) {
  std::unique_lock<std::mutex> guard(finishedLock);
  finishedChanged.wait_for(guard, std::chrono::seconds(20),
                           [&] { return finished.size() >= count; });
  return finished;
}

// Answers with the last digit of the service's name; a 9 throws, as a failing callback would.
int decideByName(std::shared_ptr<service> s) {
  const int answer = s->Getname().back() - '0';
  if (answer == 9) throw serviceException("before exec refused " + s->Getname());
  return answer;
}

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class PoolThreadServiceTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    log_ = std::make_unique<logFile>(0, path("pool.log"));
    const std::lock_guard<std::mutex> guard(finishedLock);
    finished.clear();
  }
  // Blocked plugins are let go first: the pool's destructor waits for the services it runs.
  void TearDown() override {
    release();
    pool_.reset();
    TempDirTest::TearDown();
  }

  PoolThreadService& startPool(int size, short mode,
                               PoolThreadService::BeforeExec before = nullptr) {
    pool_ = std::make_unique<PoolThreadService>(size, log_.get(), recordFinished);
    pool_->setThreadMode(mode);
    pool_->setCallbackFctBeforeExec(before);
    pool_->run();
    return *pool_;
  }
  static std::shared_ptr<service> makeService(const std::string& name, const std::string& path,
                                              const std::string& parameter) {
    auto s = std::make_shared<service>();
    s->SetService_id(42);
    s->Setname(name);
    s->Setpath(path);
    s->Setparameter(parameter);
    return s;
  }
  // Prints its name and succeeds.
  static std::shared_ptr<service> quick(const std::string& name) {
    return makeService(name, plugin("plugin_exit.sh"), name);
  }
  // Holds its worker until release(); started() tells when it runs.
  std::shared_ptr<service> blocker(const std::string& name) const {
    return makeService(name, plugin("pool_block.sh"), path(name) + " " + path("go"));
  }
  bool started(const std::string& name) const {
    return eventually([&] { return std::filesystem::exists(path(name)); });
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

TEST_F(PoolThreadServiceTest, RunsServicesAndTracesEachStep) {
  PoolThreadService& pool = startPool(2, 0);
  EXPECT_TRUE(pool.isRunning());
  for (const char* name : {"alpha", "beta", "gamma"}) pool.executeService(quick(name));
  for (const auto& s : waitFinished(3)) {
    EXPECT_EQ(s->GetReturnCode(), 0);
    EXPECT_EQ(s->GetStdout(), s->Getname() + "\n");
  }
  pool.stop();
  pool.join();
  for (const char* line :
       {"#DEBUG#POOL EXEC: fixed size mode", "POOL EXEC: Pool Start, size: 2",
        "POOL EXEC: PUSH servicealpha", "POOL EXEC: service exec alpha",
        "POOL EXEC: service exec SUCCESS alpha", "POOL EXEC: service after exec alpha",
        "POOL EXEC: Pool stop, size: 2"}) {
    EXPECT_GE(logLines(line), 1) << line;
  }
}

TEST_F(PoolThreadServiceTest, PoolWithoutLogRunsAndUnstartedPoolIsDestroyed) {
  { const PoolThreadService neverRun(3, log_.get()); }
  PoolThreadService quiet(1, recordFinished);
  quiet.run();
  quiet.executeService(quick("quiet"));
  EXPECT_EQ(waitFinished(1).size(), 1u);
}

TEST_F(PoolThreadServiceTest, AutoModeAddsAWorkerWhenMoreThanFourServicesPerWorkerWait) {
  PoolThreadService& pool = startPool(2, 1);
  pool.executeService(blocker("first"));
  pool.executeService(blocker("second"));
  ASSERT_TRUE(started("first") && started("second"));
  EXPECT_EQ(pool.getUsedPool(), 2);
  for (int i = 1; i <= 8; ++i) pool.executeService(quick("waiting" + std::to_string(i)));
  EXPECT_EQ(pool.getSizePool(), 2);
  pool.executeService(quick("ninth"));
  EXPECT_EQ(pool.getSizePool(), 3);
  EXPECT_EQ(logLines("#DEBUG#POOL EXEC: Create New Thread, new size2"), 1);
  // The new worker drains the queue while the first two are still held.
  EXPECT_EQ(waitFinished(9).size(), 9u);
}

TEST_F(PoolThreadServiceTest, FixedModeNeverGrows) {
  PoolThreadService& pool = startPool(1, 2);
  pool.executeService(blocker("held"));
  ASSERT_TRUE(started("held"));
  for (int i = 1; i <= 12; ++i) pool.executeService(quick("waiting" + std::to_string(i)));
  EXPECT_EQ(pool.getSizeofExecuteQueue(), 12);
  release();
  EXPECT_EQ(waitFinished(13).size(), 13u);
  EXPECT_EQ(pool.getSizePool(), 1);
  EXPECT_EQ(logLines("Create New Thread"), 0);
}

TEST_F(PoolThreadServiceTest, BeforeExecRunsOnlyServicesItAnswersOneFor) {
  PoolThreadService& pool = startPool(1, 0, decideByName);
  const auto skipped0 = quick("skipped0");
  const auto skipped2 = quick("skipped2");
  pool.executeService(skipped0);
  pool.executeService(skipped2);
  pool.executeService(quick("refused9"));
  pool.executeService(quick("run1"));
  // One worker takes them in order, so the last one's callback comes after all the others.
  const Services done = waitFinished(1);
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0]->Getname(), "run1");
  EXPECT_EQ(skipped0->GetStdout() + skipped2->GetStdout(), "");
  EXPECT_EQ(logLines("POOL EXEC: service before exec skipped0"), 1);
  EXPECT_EQ(logLines("#CRITICAL#POOL EXEC: before exec refused refused9"), 1);
}

TEST_F(PoolThreadServiceTest, SilentServiceIsTriedThreeTimesASecondApartThenReported) {
  PoolThreadService& pool = startPool(1, 0);
  pool.executeService(makeService("mute", plugin("pool_mute.sh"), path("attempts")));
  const Services done = waitFinished(1);
  ASSERT_EQ(done.size(), 1u);
  // As execute() left it: the 255 rule is only for a run that succeeded.
  EXPECT_EQ(done[0]->GetReturnCode(), 3);
  EXPECT_EQ(logLines("#ERRORS#POOL EXEC: Execute failed retrymute 42 "
                     "DAEMON: the plugin does not return anything on the stdout"),
            3);

  std::vector<double> attempts;
  std::ifstream times(path("attempts"));
  for (double at; times >> at;) attempts.push_back(at);
  ASSERT_EQ(attempts.size(), 3u);
  attempts.push_back(wallSeconds());  // the last failure is followed by a pause too
  for (size_t i = 1; i < attempts.size(); ++i) EXPECT_GE(attempts[i] - attempts[i - 1], 0.9) << i;
}

TEST_F(PoolThreadServiceTest, StopDropsWaitingServicesAndLetsTheRunningOneFinish) {
  PoolThreadService& pool = startPool(1, 0);
  pool.executeService(blocker("running"));
  ASSERT_TRUE(started("running"));
  for (const char* name : {"dropped1", "dropped2"}) pool.executeService(quick(name));
  pool.stop();
  EXPECT_FALSE(pool.isRunning());
  release();
  pool.join();
  const Services done = waitFinished(1);
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0]->GetStdout(), "released\n");  // the running one
}

}  // namespace
