// The fixture of tests over the platform's stand-in: keeps the log, and fails on every allocation
// and storage handle that is left at the end.
#ifndef TESTS_SUPPORT_PLATFORM_TEST_H
#define TESTS_SUPPORT_PLATFORM_TEST_H

#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

class PlatformTest : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    std::vector<LogLine> log();
    bool has_logged(const std::string &text);
    // Called with every log line.
    // thread: any that logs
    std::function<void(const LogLine &)> on_log;

  private:
    static void sink(void *self, int priority, const char *tag, const char *text);
    std::mutex mutex_;
    std::vector<LogLine> log_;
};

#endif // TESTS_SUPPORT_PLATFORM_TEST_H
