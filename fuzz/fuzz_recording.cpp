// The buffer callback with any buffers, in several recordings of one component. Every buffer is
// consumed or kept whole, every recording is reported once, nothing leaks, and a finished file is
// valid and contains every frame that the muxer took.
//
// Input: up to 3 recordings: writes, sampling rate and checkpoints (1 byte), caches (1), the number
// of steps (1), then the steps, see take_step.
#include "component/omx_tdmbrec_component.h"
#include "component/private_record.h"
#include "fuzz/input.h"
#include "fuzz/recording_environment.h"
#include "mp4read/mp4_reader.h"
#include "platform/android_log.h"
#include "platform/host/host_control.h"

#include <atomic>
#include <cstring>
#include <unistd.h>

static constexpr size_t kMaxSteps = 200;

static std::atomic<uint32_t> ends; // recordings reported

static OMX_ERRORTYPE handle_event(OMX_HANDLETYPE, OMX_PTR, OMX_EVENTTYPE event, OMX_U32, OMX_U32,
                                  OMX_PTR)
{
    if (event == TDMBREC_EVENT_END_OF_RECORDING) {
        ends++;
    }
    return OMX_ErrorNone;
}

// A component in the state Executing, without the framework that takes it there.
static OMX_COMPONENTTYPE *make_component()
{
    static OMX_COMPONENTTYPE component = {};
    static OMX_CALLBACKTYPE callbacks = {handle_event, nullptr, nullptr};
    host_set_log_level(ANDROID_LOG_SILENT + 1);
    require(omx_tdmbrec_component_Init(&component) == OMX_ErrorNone,
            "the component is initialised");
    require(component.SetCallbacks(&component, &callbacks, nullptr) == OMX_ErrorNone, "callbacks");
    std::atomic_ref(private_record(&component)->stBase.eState).store(OMX_StateExecuting);
    return &component;
}

static void start(OMX_COMPONENTTYPE *component)
{
    char path[TDMBREC_PATH_BYTES] = {};
    std::memcpy(path, kOutputPath, sizeof(kOutputPath));
    (void)OMX_SetParameter(component, TDMBREC_INDEX_OUTPUT_PATH, path);
    (void)OMX_SetParameter(component, TDMBREC_INDEX_START, path);
}

static frame_totals frames_of(const mp4_reader::movie &movie, const std::string &handler)
{
    frame_totals frames = {};
    for (const mp4_reader::sample &sample : mp4_reader::find_track(movie, handler)->samples) {
        frames.count++;
        frames.bytes += sample.size;
    }
    return frames;
}

static void check_file()
{
    const off_t bytes = lseek(environment.output_file, 0, SEEK_END);
    Bytes image(static_cast<size_t>(bytes));
    require(pread(environment.output_file, image.data(), image.size(), 0) == bytes,
            "the file can be read");
    const mp4_reader::movie movie = mp4_reader::read_movie(image);
    const frame_totals none = {};
    if (environment.given[MUX_TYPE_VIDEO] == none && environment.given[MUX_TYPE_AUDIO] == none) {
        return; // of a file without a frame the muxer writes only the head
    }
    require(movie.faults.empty(), first_fault(movie));
    require(frames_of(movie, "vide") == environment.given[MUX_TYPE_VIDEO],
            "every picture is there");
    require(frames_of(movie, "soun") == environment.given[MUX_TYPE_AUDIO], "all audio is there");
}

// Ends the recording, if it is still running, and checks its file.
static void finish(OMX_COMPONENTTYPE *component, uint32_t ends_before)
{
    OMX_U32 any = 0;
    (void)OMX_SetParameter(component, TDMBREC_INDEX_STOP, &any);
    for (int i = 0; ends == ends_before && i < 100000; i++) {
        usleep(20);
    }
    require(ends == ends_before + 1, "a recording is reported once");
    const pthread_t reporter = std::atomic_ref(private_record(component)->hStopThread).exchange({});
    if (reporter != pthread_t{}) {
        (void)pthread_join(reporter, nullptr);
    }
    if (environment.output_file >= 0 && environment.writes_left > 0) {
        require(environment.is_whole, "nothing fails without a reason");
        check_file();
    }
    (void)close(environment.output_file);
    environment.output_file = -1;
}

static void offer(OMX_COMPONENTTYPE *component, uint8_t port, Bytes data, int64_t ts_us)
{
    const uint32_t length = static_cast<uint32_t>(data.size());
    OMX_BUFFERHEADERTYPE header = {};
    header.pBuffer = data.data();
    header.nAllocLen = length;
    header.nFilledLen = length;
    header.nTimeStamp = ts_us;
    private_record(component)->ucBufferPort = port;
    omx_tdmbrec_component_BufferMgmtCallback(component, &header);
    require(header.nFilledLen == 0 || header.nFilledLen == length, "consumed or kept whole");
}

// An access unit of up to 7 units, each with a start code of 3 or 4 bytes, a type and some bytes.
static Bytes take_access_unit(fuzz_input &input)
{
    static constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
    Bytes data;
    const uint32_t units = input.u8() % 8;
    for (uint32_t i = 0; i < units; i++) {
        const uint32_t form = input.u8();
        data.insert(data.end(), kStartCode + (form >> 7), kStartCode + 4);
        data.push_back(static_cast<uint8_t>(0x60 | (form & 0x1F)));
        const Bytes content = input.bytes(input.u8() % 48);
        data.insert(data.end(), content.begin(), content.end());
    }
    return data;
}

static int64_t take_time(fuzz_input &input, int64_t ts_us)
{
    const uint32_t form = input.u8();
    if (form < 0xF0) {
        return ts_us + form * 1000;
    }
    const int64_t time = static_cast<int64_t>(input.number(8));
    return form & 1 ? time : time >> 24;
}

static void take_step(OMX_COMPONENTTYPE *component, fuzz_input &input, int64_t *ts_us)
{
    const uint32_t step = input.u8() % 8;
    if (step == 6) {
        host_fail_call(kHostCallMalloc, input.u8(), 1);
    } else if (step == 7) {
        host_set_storage(0, 100000, TDMBREC_LEAST_FREE_KIB + input.u8());
    } else {
        const int64_t time = take_time(input, *ts_us);
        *ts_us = step < 3 ? time : *ts_us;
        const uint8_t port = step < 4 ? TDMBREC_PORT_VIDEO : TDMBREC_PORT_AUDIO;
        const Bytes data = step < 3   ? take_access_unit(input)
                           : step < 4 ? input.bytes(input.u8() + 1)
                                      : Bytes(input.u16() % 16384 + 1, 0x5A);
        offer(component, port, data, time);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static OMX_COMPONENTTYPE *const component = make_component();
    static const int64_t live_blocks = host_live_allocations();
    fuzz_input input = {{data, size}};
    for (int i = 0; i < 3 && !input.left.empty(); i++) {
        const uint32_t budget = input.u8();
        environment.writes_left = budget < 128 ? UINT32_MAX : budget - 128;
        host_set_property(TDMBREC_CHECKPOINT_PROPERTY, budget & 8 ? "40" : nullptr);
        const uint32_t caches = input.u8();
        environment.cache_units = caches < 64 ? 0 : 1 + caches % 64;
        host_set_storage(0, 100000, 60000);
        OMX_AUDIO_PARAM_PCMMODETYPE pcm = {};
        pcm.nSamplingRate = budget & 2 ? 48000 : budget & 4 ? 8000 : 50000;
        (void)OMX_SetParameter(component, OMX_IndexParamAudioPcm, &pcm);
        const uint32_t ends_before = ends;
        start(component);
        int64_t ts_us = 1000000;
        const size_t steps = input.u8() % kMaxSteps;
        for (size_t step = 0; step < steps && !input.left.empty(); step++) {
            take_step(component, input, &ts_us);
        }
        finish(component, ends_before);
        host_fail_call(kHostCallMalloc, 0, 0);
        require(host_live_allocations() == live_blocks && host_live_storage_handles() == 0,
                "nothing is kept");
    }
    return 0;
}
