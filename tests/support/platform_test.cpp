#include "tests/support/platform_test.h"

#include "platform/host/host_control.h"

#include <algorithm>

void PlatformTest::SetUp()
{
    host_reset();
    host_set_log_level(0);
    host_set_log_sink(sink, this);
}

void PlatformTest::TearDown()
{
    host_set_log_sink(nullptr, nullptr);
    EXPECT_EQ(host_live_allocations(), 0);
    EXPECT_EQ(host_live_storage_handles(), 0);
    host_reset();
}

void PlatformTest::sink(void *self, int priority, const char *tag, const char *text)
{
    PlatformTest *const test = static_cast<PlatformTest *>(self);
    const LogLine line{priority, tag, text};
    if (test->on_log) {
        test->on_log(line);
    }
    const std::lock_guard lock(test->mutex_);
    test->log_.push_back(line);
}

std::vector<LogLine> PlatformTest::log()
{
    const std::lock_guard lock(mutex_);
    return log_;
}

bool PlatformTest::has_logged(const std::string &text)
{
    const std::vector<LogLine> lines = log();
    return std::any_of(lines.begin(), lines.end(), [&](const LogLine &line) {
        return line.text.find(text) != std::string::npos;
    });
}
