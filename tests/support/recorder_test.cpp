#include "tests/support/recorder_test.h"

#include "platform/host/host_control.h"
#include "platform/storage_info.h"
#include "tests/support/judges.h"
#include "tests/support/own_files.h"

#include <cstdlib>
#include <filesystem>

void RecorderTest::SetUp()
{
    PlatformTest::SetUp();
    std::filesystem::remove(kBuiltInFile);
    std::filesystem::remove(kCardFile);
#ifdef COMPONENT_FILE
    setenv("TDMBREC_COMPONENT_PATH", built_file(COMPONENT_FILE).c_str(), 1);
#endif
    ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
}

void RecorderTest::TearDown()
{
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
    expect_no_scratch_files();
    PlatformTest::TearDown();
}

std::unique_ptr<IlClient> RecorderTest::make_client()
{
    const auto make = [](OMX_CALLBACKTYPE *callbacks, void *app_data) {
        char name[] = TDMBREC_COMPONENT_NAME;
        OMX_HANDLETYPE handle = nullptr;
        EXPECT_EQ(OMX_GetHandle(&handle, name, app_data, callbacks), OMX_ErrorNone);
        return static_cast<OMX_COMPONENTTYPE *>(handle);
    };
    const auto release = [](OMX_COMPONENTTYPE *handle) {
        EXPECT_EQ(OMX_FreeHandle(handle), OMX_ErrorNone);
    };
    return std::make_unique<IlClient>(make, release);
}

std::unique_ptr<IlClient> RecorderTest::start_recording(const std::string &path)
{
    std::unique_ptr<IlClient> client = make_client();
    client->start_recording(path);
    return client;
}

uint32_t RecorderTest::finish(IlClient &client)
{
    EXPECT_EQ(client.stop(), OMX_ErrorNone);
    const uint32_t reason = client.wait_for_end().value_or(99);
    client.to_loaded();
    return reason;
}

void RecorderTest::use_card()
{
    host_set_property("qvr.sdcard.db.status", "available");
    host_set_storage(DF_REMOVABLE, 8000000, 4000000);
}

mp4_reader::movie RecorderTest::expect_plays(const std::string &path)
{
    const mp4_reader::movie movie = mp4_reader::read_movie(read_file(path));
    EXPECT_EQ(first_fault(movie), "");
    if (has_ffmpeg()) {
        EXPECT_EQ(complaints_of_ffmpeg(path), "");
    }
    return movie;
}

void RecorderTest::expect_no_scratch_files()
{
    for (const char *const folder : {"/mnt/sdcard", "/mnt/sdcard/tflash"}) {
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
        }
    }
}
