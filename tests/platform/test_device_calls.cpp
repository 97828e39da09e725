#include "platform/android_log.h"
#include "platform/host/host_control.h"
#include "platform/system_properties.h"

#include <gtest/gtest.h>

TEST(DeviceCalls, TextsAreCutToWhatHoldsThem)
{
    char value[PROPERTY_VALUE_MAX];
    host_set_property("test.key", std::string(200, 'x').c_str());
    EXPECT_EQ(property_get("test.key", value, "default"), PROPERTY_VALUE_MAX - 1);
    host_set_property("test.key", nullptr);
    EXPECT_EQ(property_get("test.key", value, "default"), 7);
    EXPECT_STREQ(value, "default");
    host_reset();
    testing::internal::CaptureStderr();
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "TAG", "dropped"), 0);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_WARN, "TAG", "no line end"), 11);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_ERROR, "TAG", "%02000d\n", 0), 1023);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "W/TAG: no line end\nE/TAG: " + std::string(1023, '0') + '\n');
}
