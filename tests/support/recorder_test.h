// The recorder as a client gets it: loaded by name through the OpenMAX IL core.
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
    // A client in Executing whose recording to `path` has been started.
    static std::unique_ptr<IlClient> start_recording(const std::string &path = kBuiltInFile);
    // Stops, waits for the end and takes the client back to Loaded. returns the reason.
    static uint32_t finish(IlClient &client);
    static void use_card();

    // Checks that the file is sound in every judge's eyes and gives its movie.
    static mp4_reader::movie expect_plays(const std::string &path = kBuiltInFile);
    // The NAL units of one video sample.
    static std::vector<Bytes> nal_units_of(const Bytes &image, const mp4_reader::sample &sample);
    static void expect_no_scratch_files();
};

#endif // TESTS_SUPPORT_RECORDER_TEST_H
