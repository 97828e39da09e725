// The buffer callback with any buffers, over several recordings of one component. Every buffer is
// consumed or kept whole, every recording is reported once, nothing leaks, and a file that was
// finished is a sound one with every frame that the muxer was given.
//
// Input: up to 3 recordings. Each has a byte for its writes and sampling rate, one for its caches,
// a number of steps, and the steps of one byte each with what they need, see take_step.
#include "component/omx_tdmbrec_component.h"
#include "fuzz/input.h"
#include "mp4read/mp4_reader.h"
#include "platform/android_log.h"
#include "platform/host/host_control.h"

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <sanitizer/asan_interface.h> // its macros do nothing in a build without it
#include <sys/mman.h>
#include <unistd.h>

static constexpr char kOutput[] = "/mnt/sdcard/fuzz.mp4";
static constexpr size_t kMostSteps = 200;

static int output_file = -1;         // a second descriptor of the finished file
static uint32_t writes_left;         // then every write fails
static std::atomic<uint32_t> ends;   // recordings reported
static std::atomic<uint32_t> reason; // of the last one

// A recording's blocks of megabytes are kept from one to the next: memory that is fresh from the
// system costs more than all else. A small allocation takes the place of each while it is in use,
// so that it is counted and can be refused.
struct LargeBlock {
    void *memory;
    size_t bytes;
    void *stand_in; // null: free
};
static std::array<LargeBlock, 8> large_blocks;
static std::mutex large_blocks_lock;

extern "C" void *__real_QVR_malloc(size_t bytes);
extern "C" void __real_QVR_free(void *memory);

extern "C" void *__wrap_QVR_malloc(size_t bytes)
{
    if (bytes < 1 << 20) {
        return __real_QVR_malloc(bytes);
    }
    void *const stand_in = __real_QVR_malloc(1);
    const std::lock_guard lock(large_blocks_lock);
    for (LargeBlock &block : large_blocks) {
        if (stand_in != nullptr && block.stand_in == nullptr &&
            (block.bytes == bytes || block.memory == nullptr)) {
            block.memory = block.memory == nullptr ? malloc(bytes) : block.memory;
            ASAN_UNPOISON_MEMORY_REGION(block.memory, bytes);
            block = {block.memory, bytes, stand_in};
            return block.memory;
        }
    }
    require(stand_in == nullptr, "a recording has no more than 8 large blocks");
    return nullptr;
}

extern "C" void __wrap_QVR_free(void *memory)
{
    const std::lock_guard lock(large_blocks_lock);
    for (LargeBlock &block : large_blocks) {
        if (memory != nullptr && block.memory == memory) {
            require(block.stand_in != nullptr, "a block is freed once");
            __real_QVR_free(block.stand_in);
            block.stand_in = nullptr;
            ASAN_POISON_MEMORY_REGION(memory, block.bytes);
            return;
        }
    }
    __real_QVR_free(memory);
}

struct Frames {
    size_t count;
    uint64_t bytes;
    bool operator==(const Frames &) const = default;
};

static uint32_t cache_units; // 0: the component's own caches, else small ones
static Frames given[3];      // to the muxer, by kind
static bool is_whole;        // it took every frame and was closed

extern "C" int32_t __real_QVR_MP4_MUX(int32_t op, void **handle, void *param1, void *param2);

// Shrinks the caches, so that few frames are enough for the tables to outgrow them.
extern "C" int32_t __wrap_QVR_MP4_MUX(int32_t op, void **handle, void *param1, void *param2)
{
    if (op == MUX_OPEN) {
        if (cache_units > 0) {
            mp4_mux_init_t *const init = static_cast<mp4_mux_init_t *>(param1);
            init->m_iCacheSize = static_cast<int32_t>(cache_units * 24);
            init->m_iVideoCacheSize = static_cast<int32_t>(cache_units * 16);
            init->m_iAudioCacheSize = static_cast<int32_t>(cache_units * 8);
        }
        std::fill(given, std::end(given), Frames{});
        is_whole = true;
    }
    if (op == MUX_CLOSE && cache_units > 0 && param1 != nullptr) {
        mp4_mux_closemem_t *const memory = static_cast<mp4_mux_closemem_t *>(param1);
        memory->m_iSize = static_cast<int32_t>(cache_units * cache_units * 4);
    }
    const int32_t result = __real_QVR_MP4_MUX(op, handle, param1, param2);
    if (op == MUX_PUTFRAME && result >= 0) {
        const mp4_mux_putstream_t *const frame = static_cast<const mp4_mux_putstream_t *>(param1);
        given[frame->m_iType].count++;
        given[frame->m_iType].bytes += static_cast<uint64_t>(frame->m_iDataSize);
    }
    is_whole = is_whole && (result >= 0 || op == MUX_GET_LAST_ERROR);
    return result;
}

extern "C" void *__wrap_QVR_FILE_fopen(const char *name, const char *mode)
{
    const int file = memfd_create("fuzz", 0);
    if (std::strcmp(name, kOutput) == 0) {
        (void)close(output_file);
        output_file = dup(file);
    }
    FILE *const stream = fdopen(file, mode);
    (void)setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

extern "C" size_t __wrap_QVR_FILE_fwrite(const void *bytes, size_t size, size_t count, void *file)
{
    if (writes_left == 0) {
        return 0;
    }
    writes_left--;
    return fwrite(bytes, size, count, static_cast<FILE *>(file));
}

extern "C" int __wrap_remove(const char *)
{
    return 0;
}

static OMX_ERRORTYPE handle_event(OMX_HANDLETYPE, OMX_PTR, OMX_EVENTTYPE event, OMX_U32,
                                  OMX_U32 data2, OMX_PTR)
{
    if (event == TDMBREC_EVENT_END_OF_RECORDING) {
        reason = data2;
        ends++;
    }
    return OMX_ErrorNone;
}

static omx_tdmbrec_component_PrivateType *record_of(OMX_COMPONENTTYPE *component)
{
    return static_cast<omx_tdmbrec_component_PrivateType *>(component->pComponentPrivate);
}

// A component that executes, without the framework's part in it.
static OMX_COMPONENTTYPE *make_component()
{
    static OMX_COMPONENTTYPE component = {};
    static OMX_CALLBACKTYPE callbacks = {handle_event, nullptr, nullptr};
    host_set_log_level(ANDROID_LOG_SILENT + 1);
    require(omx_tdmbrec_component_Init(&component) == OMX_ErrorNone, "there is a component");
    require(component.SetCallbacks(&component, &callbacks, nullptr) == OMX_ErrorNone, "callbacks");
    std::atomic_ref(record_of(&component)->stBase.eState).store(OMX_StateExecuting);
    return &component;
}

static void start(OMX_COMPONENTTYPE *component)
{
    char path[TDMBREC_PATH_BYTES] = {};
    std::memcpy(path, kOutput, sizeof(kOutput));
    (void)OMX_SetParameter(component, TDMBREC_INDEX_OUTPUT_PATH, path);
    (void)OMX_SetParameter(component, TDMBREC_INDEX_START, path);
}

static Frames frames_of(const mp4_reader::movie &movie, const std::string &handler)
{
    Frames frames = {};
    for (const mp4_reader::sample &sample : mp4_reader::find_track(movie, handler)->samples) {
        frames.count++;
        frames.bytes += sample.size;
    }
    return frames;
}

static void check_file()
{
    const off_t bytes = lseek(output_file, 0, SEEK_END);
    Bytes image(static_cast<size_t>(bytes));
    require(pread(output_file, image.data(), image.size(), 0) == bytes, "the file can be read");
    const mp4_reader::movie movie = mp4_reader::read_movie(image);
    const Frames none = {};
    if (given[MUX_TYPE_VIDEO] == none && given[MUX_TYPE_AUDIO] == none) {
        return; // the muxer leaves a file without a frame as its head
    }
    require(movie.error.empty(), movie.error);
    require(frames_of(movie, "vide") == given[MUX_TYPE_VIDEO], "every picture is there");
    require(frames_of(movie, "soun") == given[MUX_TYPE_AUDIO], "all sound is there");
}

// Ends the recording, if there still is one, and looks at its file.
static void finish(OMX_COMPONENTTYPE *component, uint32_t ends_before)
{
    OMX_U32 any = 0;
    (void)OMX_SetParameter(component, TDMBREC_INDEX_STOP, &any);
    for (int i = 0; ends == ends_before && i < 100000; i++) {
        usleep(20);
    }
    require(ends == ends_before + 1, "a recording is reported once");
    const pthread_t teller = std::atomic_ref(record_of(component)->hStopThread).exchange({});
    if (teller != pthread_t{}) {
        (void)pthread_join(teller, nullptr);
    }
    if (output_file >= 0 && writes_left > 0) {
        require(is_whole, "nothing fails without a reason");
        check_file();
    }
    (void)close(output_file);
    output_file = -1;
}

static void offer(OMX_COMPONENTTYPE *component, uint8_t port, Bytes data, int64_t ts_us)
{
    const uint32_t length = static_cast<uint32_t>(data.size());
    OMX_BUFFERHEADERTYPE header = {};
    header.pBuffer = data.data();
    header.nAllocLen = length;
    header.nFilledLen = length;
    header.nTimeStamp = ts_us;
    record_of(component)->ucBufferPort = port;
    omx_tdmbrec_component_BufferMgmtCallback(component, &header);
    require(header.nFilledLen == 0 || header.nFilledLen == length, "consumed or kept whole");
}

// An access unit: up to 7 units with a start code of 3 or 4 bytes, a type and some bytes.
static Bytes take_access_unit(Input &input)
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

static int64_t take_time(Input &input, int64_t ts_us)
{
    const uint32_t form = input.u8();
    if (form < 0xF0) {
        return ts_us + form * 1000;
    }
    const int64_t time = static_cast<int64_t>(input.number(8));
    return form & 1 ? time : time >> 24;
}

static void take_step(OMX_COMPONENTTYPE *component, Input &input, int64_t *ts_us)
{
    const uint32_t step = input.u8() % 8;
    if (step == 6) {
        host_fail_call(kHostCallMalloc, input.u8(), 1);
    } else if (step == 7) {
        host_set_storage(0, 100000, 51200 + input.u8());
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
    Input input = {{data, size}};
    for (int i = 0; i < 3 && !input.left.empty(); i++) {
        const uint32_t budget = input.u8();
        writes_left = budget < 128 ? UINT32_MAX : budget - 128;
        const uint32_t caches = input.u8();
        cache_units = caches < 64 ? 0 : 1 + caches % 64;
        host_set_storage(0, 100000, 60000);
        OMX_AUDIO_PARAM_PCMMODETYPE pcm = {};
        pcm.nSamplingRate = budget & 2 ? 48000 : budget & 4 ? 8000 : 50000;
        (void)OMX_SetParameter(component, OMX_IndexParamAudioPcm, &pcm);
        const uint32_t ends_before = ends;
        start(component);
        int64_t ts_us = 1000000;
        const size_t steps = input.u8() % kMostSteps;
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
