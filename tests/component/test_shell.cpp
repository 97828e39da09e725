#include "aacenc/aac_enc.h"
#include "component/process_state.h"
#include "component/zpl_aenc.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"

#include <cstdlib>
#include <cstring>

class Shell : public ComponentTest {};

TEST_F(Shell, NamesItsVideoCodingUnderOneNameOnly)
{
    for (const char *const name : {"OMX.QVR.avcdec", "OMX.qvr.video_decoder", "OMX.qvr.tdmb.rec"}) {
        const auto client = make_client(name);
        OMX_PARAM_PORTDEFINITIONTYPE definition = {.nSize = sizeof(definition)};
        definition.nVersion.nVersion = OMX_VERSION_1_1_2;
        EXPECT_EQ(OMX_GetParameter(client->handle(), OMX_IndexParamPortDefinition, &definition),
                  OMX_ErrorNone);
        EXPECT_EQ(definition.format.video.eCompressionFormat == OMX_VIDEO_CodingAVC,
                  name == std::string("OMX.QVR.avcdec"));
        EXPECT_EQ(definition.nBufferSize, OMX_U32{TDMBREC_PORT_BUFFER_BYTES});
    }
}

// Makes a component and releases it, however much of it was built.
// returns: the result of the constructor
static OMX_ERRORTYPE make_and_release(const char *name)
{
    OMX_COMPONENTTYPE handle = {};
    handle.nSize = sizeof(handle);
    handle.nVersion.nVersion = OMX_VERSION_1_1_2;
    const OMX_ERRORTYPE result =
        omx_tdmbrec_component_Constructor(&handle, const_cast<char *>(name));
    if (handle.pComponentPrivate != nullptr) {
        EXPECT_EQ(handle.ComponentDeInit(&handle), OMX_ErrorNone);
    }
    return result;
}

TEST_F(Shell, FailsCleanlyUnderAnotherNameAndWhereverMemoryRunsOut)
{
    EXPECT_EQ(make_and_release("OMX.qvr.tdmb.rec2"), 0x80001002u);
    for (const host_call_t call :
         {kHostCallCalloc, kHostCallMalloc, kHostCallSinkConstructor, kHostCallVideoPortConstructor,
          kHostCallAudioPortConstructor, kHostCallTsemInit}) {
        OMX_ERRORTYPE result = OMX_ErrorInsufficientResources;
        for (uint32_t n = 0; result != OMX_ErrorNone && n < 50; n++) {
            host_fail_call(call, n, 1);
            result = make_and_release(TDMBREC_COMPONENT_NAME);
            EXPECT_TRUE(result == OMX_ErrorInsufficientResources || result == OMX_ErrorNone);
            EXPECT_EQ(host_live_allocations(), 0) << "call " << call << ", " << n;
        }
        host_fail_call(call, 0, 0);
        EXPECT_EQ(result, OMX_ErrorNone) << "call " << call;
    }
}

TEST_F(Shell, KeepsItsParameters)
{
    const auto client = make_client();
    OMX_COMPONENTTYPE *const handle = client->handle();
    OMX_AUDIO_PARAM_PCMMODETYPE pcm = {}; // only the rate is read
    pcm.nSamplingRate = 44100;
    pcm.nChannels = 6;
    EXPECT_EQ(OMX_SetParameter(handle, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    EXPECT_EQ(record_of(*client)->uiSampleRate, 44100u);
    EXPECT_EQ(record_of(*client)->uiChannels, 2u);
    char name[TDMBREC_PATH_BYTES];
    memset(name, 'n', sizeof(name));
    for (const auto index :
         {TDMBREC_INDEX_NAME_PART_1, TDMBREC_INDEX_NAME_PART_2, TDMBREC_INDEX_OUTPUT_PATH}) {
        EXPECT_EQ(OMX_SetParameter(handle, index, name), OMX_ErrorNone);
    }
    EXPECT_EQ(memcmp(record_of(*client)->szNamePart1, name, TDMBREC_NAME_PART_1_BYTES), 0);
    EXPECT_EQ(memcmp(record_of(*client)->szNamePart2, name, TDMBREC_NAME_PART_2_BYTES), 0);
    EXPECT_EQ(memcmp(szOutFileName, name, TDMBREC_PATH_BYTES), 0);
    EXPECT_EQ(client->stop(), OMX_ErrorNone) << "nothing to stop";
    EXPECT_EQ(client->count(TDMBREC_EVENT_END_OF_RECORDING), 0u);
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
    const tdmbrec_memory_functions_t memory = {counted_malloc, nullptr, counted_free, nullptr,
                                               memcpy,         memset,  realloc,      memmove};
    zpl_aenc_init_t init = {};
    zpl_aenc_t zpl = {};
    zpl.pstMemory = &memory;
    zpl.iState = kZplStateRun;
    zpl.m_iAudioSamplePerSec = 48000;
    zpl.m_iAudioChannels = 2;
    zpl.m_iAudioBitRates = 128000;
    EXPECT_EQ(zpl_aenc_init(&zpl, &init, 0, 0, nullptr), -1);
    EXPECT_TRUE(has_logged(": [ZPL_CORE] audio decoder not found (iAencType: 0) \n"));
    int32_t result = -1;
    for (int n = 0; result != 0 && n < 20; n++) {
        allocations_left = n;
        result = zpl_aenc_init(&zpl, &init, 0, 0, QVR_AAC_ENC);
        EXPECT_TRUE(result == 0 || live_blocks == 0) << n;
    }
    EXPECT_EQ(zpl_aenc_getSamplesSize(), 4096u);
    EXPECT_EQ(zpl_aenc_close(&zpl), 0);
    allocations_left = 100;
    zpl.m_iAudioSamplePerSec = 50000;
    EXPECT_EQ(zpl_aenc_init(&zpl, &init, 0, 0, QVR_AAC_ENC), -3);
    EXPECT_TRUE(has_logged(": [ZPL_CORE:Err-3] gspfAEnc AUDIO_INIT failed \n"));
    EXPECT_EQ(live_blocks, 0);
}
