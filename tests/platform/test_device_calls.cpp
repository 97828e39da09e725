#include "platform/android_log.h"
#include "platform/host/host_control.h"
#include "platform/storage_info.h"
#include "platform/system_properties.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

namespace {

TEST(device_test, the_storage_is_reported_while_it_is_there)
{
    host_reset();
    df_handle_t *handle = dfopen();
    const char *const paths[] = {"/mnt/sdcard", "/mnt/sdcard/tflash"};
    for (int storage : {DF_BUILT_IN, DF_REMOVABLE}) {
        EXPECT_EQ(dfget(handle, storage) != nullptr, access(paths[storage], F_OK) == 0);
        host_set_storage(storage, 70000, 51201);
        const df_record_t *record = dfget(handle, storage);
        ASSERT_NE(record, nullptr);
        EXPECT_STREQ(record->pszMountPoint, paths[storage]);
        EXPECT_TRUE(record->ulTotalKiB == 70000 && record->ulFreeKiB == 51201);
    }
    EXPECT_EQ(dfget(handle, DF_REMOVABLE + 1), nullptr);
    EXPECT_EQ(dfget(nullptr, DF_BUILT_IN), nullptr);
    EXPECT_EQ(dfclose(handle), 0);
    EXPECT_EQ(host_live_storage_handles(), 0);
}

TEST(device_test, log_lines_pass_by_priority)
{
    std::string lines;
    const auto keep = [](void *context, int priority, const char *tag, const char *text) {
        *static_cast<std::string *>(context) += tag + std::to_string(priority) + text;
    };
    host_set_log_sink(keep, &lines);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "TAG", "dropped"), 0);
    host_set_log_level(ANDROID_LOG_DEBUG);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_WARN, "TAG", "%d\n", 12), 3);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_DEBUG, "TAG", "%02000d", 0), 1023);
    EXPECT_EQ(lines, "TAG512\nTAG3" + std::string(1023, '0'));
    host_reset();
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_WARN, "TAG", "no line end");
    __android_log_print(ANDROID_LOG_ERROR, "TAG", "line end\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "W/TAG: no line end\nE/TAG: line end\n");
}

TEST(device_test, properties_are_what_was_set_or_the_default)
{
    char value[PROPERTY_VALUE_MAX];
    host_set_property("test.key", "available");
    host_set_property("test.other", std::string(200, 'x').c_str());
    EXPECT_EQ(property_get("test.key", value, "default"), 9);
    EXPECT_STREQ(value, "available");
    EXPECT_EQ(property_get("test.other", value, nullptr), PROPERTY_VALUE_MAX - 1);
    host_set_property("test.key", nullptr);
    EXPECT_EQ(property_get("test.key", value, "default"), 7);
    EXPECT_STREQ(value, "default");
    EXPECT_EQ(property_get("test.key", value, nullptr), 0);
    EXPECT_STREQ(value, "");
    host_reset();
}

} // namespace
