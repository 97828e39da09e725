// The fixture of tests that load the recorder by name through the OpenMAX IL core.
#ifndef TESTS_SUPPORT_RECORDER_TEST_H
#define TESTS_SUPPORT_RECORDER_TEST_H

#include "mp4read/mp4_reader.h"
#include "tests/support/il_client.h"
#include "tests/support/platform_test.h"
#include "tests/support/programme.h"

#include <memory>
#include <string>

constexpr char kBuiltInFile[] = "/mnt/sdcard/recording.mp4";
constexpr char kCardFile[] = "/mnt/sdcard/tflash/recording.mp4";

class RecorderTest : public PlatformTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    static std::unique_ptr<IlClient> make_client();
    // returns: a client in Executing that records to the path
    static std::unique_ptr<IlClient> start_recording(const std::string &path = kBuiltInFile);
    // Stops, waits for the end and changes the state to Loaded.
    // returns: the stop reason
    static uint32_t finish(IlClient &client);
    static void use_card();

    // Expects that our reader and ffmpeg find no fault in the file.
    // returns: its movie
    static mp4_reader::movie expect_plays(const std::string &path = kBuiltInFile);
    static void expect_no_scratch_files();
};

#endif // TESTS_SUPPORT_RECORDER_TEST_H
