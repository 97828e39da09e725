#include "client/encode_command.h"

#include "client/aac_stream.h"
#include "client/failure.h"
#include "client/input/pcm_input.h"
#include "client/interruption.h"
#include "client/report/figures.h"
#include "client/terminal.h"
#include "client/work_folder.h"

#include <chrono>

struct encoding {
    std::unique_ptr<pcm_input> pcm;
    aac_stream stream;
    uint64_t frames = 0;
    uint64_t bytes = 0; // of the stream
};

static void open_stream(encoding &self, const encode_options &options)
{
    const aac_settings settings = {.rate = self.pcm->rate,
                                   .channels = self.pcm->channels,
                                   .bit_rate = options.bit_rate,
                                   .raw = options.raw,
                                   .tns = options.tns,
                                   .pns = options.pns,
                                   .mpeg2 = options.mpeg2};
    try {
        aac_stream_open(self.stream, settings);
    } catch (const failure &refused) {
        const bool of_input = refused.code == exit_code::unsupported;
        throw failure(refused.code, (of_input ? options.input + ": " : "") + refused.what());
    }
}

// The transform's overlap delays the last frame: a frame of silence completes it.
static void encode_all(encoding &self, work_file &out)
{
    std::vector<int16_t> frame(AACENC_FRAME_SAMPLES * static_cast<size_t>(self.pcm->channels));
    for (bool more = true; more; self.frames++) {
        interruption_check();
        more = pcm_input_next(*self.pcm, frame) > 0;
        work_file_write(out, aac_stream_encode(self.stream, frame));
    }
}

static void report(const encode_options &options, const encoding &self, double elapsed_s)
{
    const double read_s = static_cast<double>(self.pcm->samples) / self.pcm->rate;
    const double coded_s = static_cast<double>(self.frames * AACENC_FRAME_SAMPLES) / self.pcm->rate;
    terminal_print(
        options.output +
        format_text(": %s of %d Hz %s, %llu frames, %s, %.1f kbit/s; took %s, %.0f times real "
                    "time\n",
                    duration_text(read_s).c_str(), self.pcm->rate,
                    self.pcm->channels == 2 ? "stereo" : "mono",
                    static_cast<unsigned long long>(self.frames), size_text(self.bytes).c_str(),
                    static_cast<double>(self.bytes) * 8 / coded_s / 1000,
                    elapsed_text(elapsed_s).c_str(), elapsed_s > 0 ? read_s / elapsed_s : 0));
}

// returns: the exit code
static int report_faults(const encode_options &options, const pcm_input &pcm)
{
    const unsigned damaged = pcm.decoder->damaged;
    if (damaged > 0) {
        terminal_say("tdmbrec: " + options.input +
                     ": damaged audio packets left out: " + std::to_string(damaged));
    }
    if (!pcm.fault.empty()) {
        terminal_say("tdmbrec: " + pcm.fault);
    }
    return static_cast<int>(damaged > 0 || !pcm.fault.empty() ? exit_code::input
                                                              : exit_code::finished);
}

int encode_run(const encode_options &options)
{
    const auto begun = std::chrono::steady_clock::now();
    const std::unique_ptr<work_folder> folder = work_folder_make(options.output, options.force);
    encoding self;
    output_place_check_inputs(options.output, {options.input});
    self.pcm = pcm_input_open(options.input);
    open_stream(self, options);
    work_file out(*folder, kWorkStream);
    if (options.raw) {
        work_file_write(out, adif_header(self.stream.settings));
    }
    encode_all(self, out);
    work_file_finish(out);
    self.bytes = out.bytes;
    work_folder_publish(*folder, kWorkStream);
    const int code = report_faults(options, *self.pcm);
    report(options, self,
           std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    return code;
}
