#include "component/audio_encoder.h"
#include "component/file_callbacks.h"
#include "component/process_state.h"
#include "component/zpl_aenc.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"

#include <cstdlib>
#include <cstring>

class Shell : public ComponentTest {};

static OMX_PARAM_PORTDEFINITIONTYPE port_definition(const IlClient &client, OMX_U32 port)
{
    OMX_PARAM_PORTDEFINITIONTYPE definition = {};
    definition.nSize = sizeof(definition);
    definition.nVersion.nVersion = OMX_VERSION_1_1_2;
    definition.nPortIndex = port;
    EXPECT_EQ(OMX_GetParameter(client.handle(), OMX_IndexParamPortDefinition, &definition),
              OMX_ErrorNone);
    return definition;
}

TEST_F(Shell, DescribesItsTwoPorts)
{
    const auto client = make_client();
    const OMX_PARAM_PORTDEFINITIONTYPE video = port_definition(*client, 0);
    EXPECT_EQ(video.eDomain, OMX_PortDomainVideo);
    EXPECT_EQ(video.eDir, OMX_DirInput);
    EXPECT_EQ(video.bEnabled, OMX_TRUE);
    EXPECT_EQ(video.format.video.nFrameWidth, 320u);
    EXPECT_EQ(video.format.video.nFrameHeight, 240u);
    EXPECT_EQ(video.format.video.xFramerate, 30u);
    EXPECT_NE(video.format.video.eCompressionFormat, OMX_VIDEO_CodingAVC);
    EXPECT_EQ(video.nBufferSize, 0x100000u);
    const OMX_PARAM_PORTDEFINITIONTYPE audio = port_definition(*client, 1);
    EXPECT_EQ(audio.eDomain, OMX_PortDomainAudio);
    EXPECT_EQ(audio.format.audio.eEncoding, OMX_AUDIO_CodingPCM);
    EXPECT_EQ(audio.nBufferSize, 0x100000u);
    OMX_PORT_PARAM_TYPE domain = {};
    domain.nSize = sizeof(domain);
    domain.nVersion.nVersion = OMX_VERSION_1_1_2;
    EXPECT_EQ(OMX_GetParameter(client->handle(), OMX_IndexParamAudioInit, &domain), OMX_ErrorNone);
    EXPECT_EQ(domain.nPorts, 1u);
    EXPECT_EQ(domain.nStartPortNumber, 1u);
}

TEST_F(Shell, TakesItsThreeNamesOnly)
{
    const auto avc = make_client("OMX.QVR.avcdec");
    EXPECT_EQ(port_definition(*avc, 0).format.video.eCompressionFormat, OMX_VIDEO_CodingAVC);
    const auto decoder = make_client("OMX.qvr.video_decoder");
    EXPECT_NE(port_definition(*decoder, 0).format.video.eCompressionFormat, OMX_VIDEO_CodingAVC);
    OMX_COMPONENTTYPE handle = {};
    handle.nSize = sizeof(handle);
    handle.nVersion.nVersion = OMX_VERSION_1_1_2;
    char name[] = "OMX.qvr.tdmb.rec2";
    EXPECT_EQ(omx_tdmbrec_component_Constructor(&handle, name), 0x80001002u);
    ASSERT_NE(handle.pComponentPrivate, nullptr) << "what was built stays for the destructor";
    EXPECT_EQ(handle.ComponentDeInit(&handle), OMX_ErrorNone);
}

TEST_F(Shell, FailsCleanlyWhereverMemoryRunsOut)
{
    make_client()->destroy(); // what a clean construction needs
    std::vector<std::pair<host_call_t, uint32_t>> calls;
    for (const host_call_t call : {HOST_CALL_CALLOC, HOST_CALL_MALLOC, HOST_CALL_SINK_CONSTRUCTOR,
                                   HOST_CALL_VIDEO_PORT_CONSTRUCTOR,
                                   HOST_CALL_AUDIO_PORT_CONSTRUCTOR, HOST_CALL_TSEM_INIT}) {
        for (uint32_t n = 0; n < host_call_count(call); n++) {
            calls.emplace_back(call, n);
        }
    }
    ASSERT_GT(calls.size(), 8u);
    for (const auto &[call, n] : calls) {
        host_fail_call(call, n, 1);
        OMX_COMPONENTTYPE handle = {};
        handle.nSize = sizeof(handle);
        handle.nVersion.nVersion = OMX_VERSION_1_1_2;
        const OMX_ERRORTYPE result = omx_tdmbrec_component_Init(&handle);
        if (handle.pComponentPrivate != nullptr) {
            EXPECT_EQ(handle.ComponentDeInit(&handle), OMX_ErrorNone);
        }
        EXPECT_EQ(result, OMX_ErrorInsufficientResources) << "call " << call << ", " << n;
        EXPECT_EQ(host_live_allocations(), 0) << "call " << call << ", " << n;
        host_fail_call(call, 0, 0);
    }
}

TEST_F(Shell, TakesItsParametersAndPassesOnTheRest)
{
    const auto client = make_client();
    OMX_COMPONENTTYPE *const handle = client->handle();
    EXPECT_EQ(OMX_SetParameter(handle, OMX_IndexParamAudioPcm, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(OMX_GetParameter(handle, OMX_IndexParamAudioPcm, nullptr), OMX_ErrorBadParameter);
    OMX_AUDIO_PARAM_PCMMODETYPE pcm = {}; // nothing but the rate is looked at
    pcm.nSamplingRate = 44100;
    pcm.nChannels = 6;
    EXPECT_EQ(OMX_SetParameter(handle, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    EXPECT_EQ(record_of(*client)->uiSampleRate, 44100u);
    EXPECT_EQ(record_of(*client)->uiChannels, 2u);
    char name[128];
    memset(name, 'n', sizeof(name));
    EXPECT_EQ(OMX_SetParameter(handle, TDMBREC_INDEX_NAME_PART_1, name), OMX_ErrorNone);
    EXPECT_EQ(OMX_SetParameter(handle, TDMBREC_INDEX_NAME_PART_2, name), OMX_ErrorNone);
    EXPECT_EQ(memcmp(record_of(*client)->szNamePart1, name, 22), 0);
    EXPECT_EQ(memcmp(record_of(*client)->szNamePart2, name, 128), 0);
    EXPECT_EQ(OMX_SetParameter(handle, TDMBREC_INDEX_OUTPUT_PATH, name), OMX_ErrorNone);
    EXPECT_EQ(memcmp(szOutFileName, name, 128), 0);
    EXPECT_EQ(client->stop(), OMX_ErrorNone) << "nothing to stop";
    EXPECT_EQ(client->count(EVENT_END_OF_RECORDING), 0u);
    EXPECT_EQ(handle->SetConfig(handle, OMX_IndexVendorStartUnused, nullptr), OMX_ErrorNone);
    OMX_INDEXTYPE index = OMX_IndexMax;
    EXPECT_EQ(handle->GetExtensionIndex(handle, name, &index), OMX_ErrorNone);
    EXPECT_EQ(index, OMX_IndexMax);
    EXPECT_EQ(OMX_SetParameter(handle, OMX_INDEXTYPE(0x7F00002F), name), OMX_ErrorUnsupportedIndex);
}

TEST(AudioSpecificConfig, HoldsRateIndexAndChannels)
{
    uint8_t config[2] = {0xEE, 0xEE};
    uint32_t length = 0;
    EXPECT_EQ(getAACEncDSI(50000, 2, config, &length), -1);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(config[0], 0xEE);
    const struct {
        uint32_t rate, channels;
        uint8_t bytes[2];
    } cases[] = {{48000, 2, {0x11, 0x90}}, {44100, 1, {0x12, 0x08}}, {7350, 2, {0x16, 0x10}}};
    for (const auto &c : cases) {
        EXPECT_EQ(getAACEncDSI(c.rate, c.channels, config, &length), 0);
        EXPECT_EQ(length, 2u);
        EXPECT_EQ(memcmp(config, c.bytes, 2), 0) << c.rate;
    }
}

// An allocator that fails on demand, for the adapter.
static int allocations_left;
static int live_blocks;
static void *counted_malloc(size_t size)
{
    if (allocations_left-- <= 0) {
        return nullptr;
    }
    live_blocks++;
    return malloc(size);
}
static void counted_free(void *block)
{
    live_blocks -= block != nullptr ? 1 : 0;
    free(block);
}

TEST_F(Shell, TheEncoderAdapterKeepsNothingAfterAFailure)
{
    const tdmbrec_memory_functions_t memory = {.pfnMalloc = counted_malloc,
                                               .pReserved1 = nullptr,
                                               .pfnFree = counted_free,
                                               .pReserved3 = nullptr,
                                               .pfnMemcpy = memcpy,
                                               .pfnMemset = memset,
                                               .pfnRealloc = realloc,
                                               .pfnMemmove = memmove};
    zpl_aenc_init_t init = {};
    zpl_aenc_t zpl = {};
    zpl.pstMemory = &memory;
    zpl.iState = ZPL_STATE_RUN;
    zpl.m_iAudioSamplePerSec = 48000;
    zpl.m_iAudioChannels = 2;
    zpl.m_iAudioBitRates = 128000;
    EXPECT_EQ(zpl_aenc_init(&zpl, &init, 0, 0, nullptr), -1);
    EXPECT_TRUE(has_logged(": [ZPL_CORE] audio decoder not found (iAencType: 0) \n"));
    int n = 0;
    int32_t result = -1;
    for (; result != 0 && n < 20; n++) {
        allocations_left = n;
        result = zpl_aenc_init(&zpl, &init, 0, 0, QVR_AAC_ENC);
        EXPECT_TRUE(result == 0 || live_blocks == 0) << n;
    }
    EXPECT_GT(n, 5);
    EXPECT_EQ(zpl_aenc_getSamplesSize(), 4096u);
    EXPECT_EQ(zpl_aenc_close(&zpl), 0);
    EXPECT_EQ(live_blocks, 0);
    allocations_left = 100;
    zpl.m_iAudioSamplePerSec = 50000;
    EXPECT_EQ(zpl_aenc_init(&zpl, &init, 0, 0, QVR_AAC_ENC), -3);
    EXPECT_TRUE(has_logged(": [ZPL_CORE:Err-3] gspfAEnc AUDIO_INIT failed \n"));
    EXPECT_EQ(live_blocks, 0);
}

TEST_F(Shell, TheFileWrappersTraceOpenAndClose)
{
    EXPECT_EQ(QVR_FILE_fopen("/mnt/sdcard/none/x", "wb+"), nullptr);
    EXPECT_TRUE(has_logged("In QVR_FILE_fopen : /mnt/sdcard/none/x open error\n"));
    EXPECT_TRUE(has_logged("In QVR_FILE_fopen : File Handle[0x00000000]\n"));
    void *const file = QVR_FILE_fopen("/mnt/sdcard/x", "wb+");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(QVR_FILE_fwrite("abc", 1, 3, file), 3u);
    EXPECT_EQ(QVR_FILE_fseek(file, 1, 0), 0);
    char bytes[4] = {};
    EXPECT_EQ(QVR_FILE_fread(bytes, 1, 4, file), 2u);
    EXPECT_STREQ(bytes, "bc");
    EXPECT_EQ(QVR_FILE_ftell(file), 3);
    EXPECT_EQ(QVR_FILE_fclose(file), 0);
    EXPECT_TRUE(has_logged("QVR_FILE_fclose return 0\n"));
    EXPECT_EQ(remove("/mnt/sdcard/x"), 0);
}
