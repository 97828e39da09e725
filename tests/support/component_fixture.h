// A component built directly from its objects, with a client, the log in hand, and every leak of
// the platform layer found at the end.
#ifndef TESTS_SUPPORT_COMPONENT_FIXTURE_H
#define TESTS_SUPPORT_COMPONENT_FIXTURE_H

#include "component/omx_tdmbrec_component.h"
#include "tests/support/il_client.h"

#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

class ComponentTest : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    std::unique_ptr<IlClient> make_client(const char *name = "OMX.qvr.tdmb.rec");
    static omx_tdmbrec_component_PrivateType *record_of(const IlClient &client);
    std::vector<LogLine> log();
    bool has_logged(const std::string &text);
    // Called with every log line, on the thread that logs.
    std::function<void(const LogLine &)> on_log;

  private:
    static void sink(void *self, int priority, const char *tag, const char *text);
    std::mutex mutex_;
    std::vector<LogLine> log_;
};

#endif
