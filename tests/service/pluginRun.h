// One run of a plugin through service::execute() and what it must leave behind, for the tests of
// src/service, and their fixture, which writes plugins of its own. expectRun may be called from
// any thread, each run being a record of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "src/service/service.h"
#include "tests/common/tempDirTest.h"

struct PluginRun {
  std::string path;
  std::string parameter;
  int code = 0;
  std::string out{};
  std::string error{};  // what() of the serviceException; empty: execute() returns the code
  RunOutcome how = RunOutcome::Completed;
  RunLimits limits{};
  RuleLimits rule{};
  std::shared_ptr<const UniqueFd> executable{};  // started from this open file, not from `path`
};

// Runs the plugin as the record "probe" and checks what it left against `expected`.
inline void expectRun(const PluginRun& expected) {
  service s;
  s.Setname("probe");
  s.Setpath(expected.path);
  s.Setparameter(expected.parameter);
  s.SetRunLimits(expected.limits);
  s.SetRuleLimits(expected.rule);
  s.SetExecutable(expected.executable);
  const std::string run = expected.path + " " + expected.parameter;
  std::string error;
  try {
    EXPECT_EQ(s.execute(), expected.code) << run;
  } catch (const serviceException& e) {
    error = e.what();
  }
  EXPECT_EQ(s.GetReturnCode(), expected.code) << run;
  EXPECT_EQ(s.GetStdout(), expected.out) << run;
  EXPECT_EQ(error, expected.error) << run;
  EXPECT_EQ(s.GetRunOutcome(), expected.how) << run;
}

class PluginTest : public TempDirTest {
 protected:
  // A bash plugin of this body, under this name in the test's directory.
  std::string script(const std::string& name, const std::string& body) const {
    writeFile(name, "#!/bin/bash\n" + body + "\n");
    ::chmod(path(name).c_str(), 0755);
    return path(name);
  }
};
