#include "platform/android_log.h"
#include "platform/host/host_control.h"
#include "platform/semaphore_queue.h"
#include "platform/storage_info.h"
#include "platform/system_properties.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

struct device_test : testing::Test {
    ~device_test() override
    {
        host_reset();
    }
};

TEST_F(device_test, a_queue_keeps_the_order_and_its_bounds)
{
    queue_t fifo;
    int elements[QUEUE_CAPACITY + 1];
    ASSERT_EQ(queue_init(&fifo), 0);
    for (int round = 0; round < 3; round++) { // the ring wraps
        for (int index = 0; index < QUEUE_CAPACITY; index++)
            EXPECT_EQ(queue(&fifo, &elements[index]), 0);
        EXPECT_EQ(queue(&fifo, &elements[QUEUE_CAPACITY]), -1);
        for (int index = 0; index < QUEUE_CAPACITY; index++)
            EXPECT_EQ(dequeue(&fifo), &elements[index]);
        EXPECT_EQ(dequeue(&fifo), nullptr);
        EXPECT_EQ(queue(&fifo, &elements[0]), 0); // the next round starts one further
        EXPECT_EQ(dequeue(&fifo), &elements[0]);
    }
    queue_deinit(&fifo);
}

TEST_F(device_test, the_storage_is_reported_while_it_is_there)
{
    df_handle_t *handle = dfopen();
    EXPECT_EQ(host_live_storage_handles(), 1);
    const char *const paths[] = {"/mnt/sdcard", "/mnt/sdcard/tflash"};
    for (int storage : {DF_BUILT_IN, DF_REMOVABLE}) {
        struct stat status = {};
        const df_record_t *record = dfget(handle, storage);
        EXPECT_EQ(record != nullptr, stat(paths[storage], &status) == 0);
        host_set_storage(storage, 70000, 51201);
        record = dfget(handle, storage);
        ASSERT_NE(record, nullptr);
        EXPECT_STREQ(record->pszMountPoint, paths[storage]);
        EXPECT_EQ(record->ulTotalKiB, 70000u);
        EXPECT_EQ(record->ulFreeKiB, 51201u);
    }
    EXPECT_EQ(dfget(handle, DF_REMOVABLE + 1), nullptr);
    EXPECT_EQ(dfget(handle, -1), nullptr);
    EXPECT_EQ(dfget(nullptr, DF_BUILT_IN), nullptr);
    host_fail_call(HOST_CALL_DFGET, 0, 1);
    EXPECT_EQ(dfget(handle, DF_BUILT_IN), nullptr);
    EXPECT_NE(dfget(handle, DF_BUILT_IN), nullptr);
    EXPECT_EQ(dfclose(handle), 0);
    EXPECT_EQ(dfclose(nullptr), 0);
    EXPECT_EQ(host_live_storage_handles(), 0);
    for (host_call_t call : {HOST_CALL_DFOPEN, HOST_CALL_CALLOC}) {
        host_fail_call(call, 0, 1);
        EXPECT_EQ(dfopen(), nullptr);
    }
}

TEST_F(device_test, log_lines_pass_by_priority)
{
    std::vector<std::string> lines;
    const auto keep = [](void *context, int priority, const char *tag, const char *text) {
        std::string &line = static_cast<std::vector<std::string> *>(context)->emplace_back(tag);
        line.append(std::to_string(priority)).append(text);
    };
    host_set_log_sink(keep, &lines);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "TAG", "dropped"), 0);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_WARN, "TAG", "%d\n", 12), 3);
    host_set_log_level(ANDROID_LOG_DEBUG);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_DEBUG, "TAG", "%s", std::string(2000, 'x').c_str()),
              1023);
    EXPECT_EQ(lines, (std::vector<std::string>{"TAG512\n", "TAG3" + std::string(1023, 'x')}));

    host_reset();
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_INFO, "TAG", "dropped again");
    __android_log_print(ANDROID_LOG_WARN, "TAG", "no line end");
    __android_log_print(ANDROID_LOG_ERROR, "TAG", "line end\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "W/TAG: no line end\nE/TAG: line end\n");
}

TEST_F(device_test, properties_are_what_was_set_or_the_default)
{
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("test.key", value, nullptr), 0);
    EXPECT_STREQ(value, "");
    host_set_property("test.key", "available");
    host_set_property("test.other", std::string(200, 'x').c_str());
    EXPECT_EQ(property_get("test.key", value, "default"), 9);
    EXPECT_STREQ(value, "available");
    EXPECT_EQ(property_get("test.other", value, nullptr), PROPERTY_VALUE_MAX - 1);
    host_fail_call(HOST_CALL_PROPERTY_GET, 0, 1);
    EXPECT_EQ(property_get("test.key", value, "default"), 7);
    host_set_property("test.key", nullptr);
    EXPECT_EQ(property_get("test.key", value, "default"), 7);
    EXPECT_STREQ(value, "default");
    host_set_property("", "value"); // no key
    EXPECT_EQ(property_get("", value, nullptr), 0);
}

} // namespace
