// A component built directly from its objects, with a client.
#ifndef TESTS_SUPPORT_COMPONENT_TEST_H
#define TESTS_SUPPORT_COMPONENT_TEST_H

#include "component/omx_tdmbrec_component.h"
#include "component/private_record.h"
#include "tests/support/il_client.h"
#include "tests/support/platform_test.h"

#include <memory>
#include <string>

constexpr char kRecording[] = "/mnt/sdcard/recording.mp4";

class ComponentTest : public PlatformTest {
  protected:
    void SetUp() override;
    static std::unique_ptr<IlClient> make_client(const char *name = TDMBREC_COMPONENT_NAME);
    // A client in Executing whose recording to `path` has been started.
    static std::unique_ptr<IlClient> make_recorder(const std::string &path = kRecording);
    static omx_tdmbrec_component_PrivateType *record_of(const IlClient &client);
};

#endif // TESTS_SUPPORT_COMPONENT_TEST_H
