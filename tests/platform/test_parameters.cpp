#include "tests/platform/framework_test.h"

namespace {

struct Parameters : FrameworkTest {
    OMX_ERRORTYPE get(OMX_INDEXTYPE index, void *record)
    {
        return omx_base_component_GetParameter(component, index, record);
    }
    OMX_ERRORTYPE set(OMX_INDEXTYPE index, void *record)
    {
        return omx_base_component_SetParameter(component, index, record);
    }
};

template <typename Record>
Record port_record(OMX_U32 port)
{
    return {
        .nSize = sizeof(Record), .nVersion = {.nVersion = OMX_VERSION_1_1_2}, .nPortIndex = port};
}

TEST_F(Parameters, TheHeadOfARecordIsChecked)
{
    constexpr OMX_INDEXTYPE kPcm = OMX_IndexParamAudioPcm;
    for (const auto call : {omx_base_component_GetParameter, omx_base_component_SetParameter}) {
        auto pcm = port_record<OMX_AUDIO_PARAM_PCMMODETYPE>(0); // no audio port
        EXPECT_EQ(call(nullptr, kPcm, &pcm), OMX_ErrorBadParameter);
        EXPECT_EQ(call(component, kPcm, nullptr), OMX_ErrorBadParameter);
        EXPECT_EQ(call(component, OMX_IndexVendorStartUnused, &pcm), OMX_ErrorUnsupportedIndex);
        EXPECT_EQ(call(component, kPcm, &pcm), OMX_ErrorBadPortIndex);
        pcm.nPortIndex = kPortCount;
        EXPECT_EQ(call(component, kPcm, &pcm), OMX_ErrorBadPortIndex);
        pcm.nVersion.s.nVersionMajor = 2;
        EXPECT_EQ(call(component, kPcm, &pcm), OMX_ErrorVersionMismatch);
        pcm.nSize++;
        EXPECT_EQ(call(component, kPcm, &pcm), OMX_ErrorBadParameter);
    }
    OMX_PORT_PARAM_TYPE domain = {sizeof(domain), {.nVersion = OMX_VERSION_1_1_2}, 9, 9};
    EXPECT_EQ(get(OMX_IndexParamImageInit, &domain), OMX_ErrorNone);
    EXPECT_TRUE(domain.nPorts == 0 && domain.nStartPortNumber == 0);
    EXPECT_EQ(set(OMX_IndexParamImageInit, &domain), OMX_ErrorUnsupportedSetting);
    domain.nSize--;
    EXPECT_EQ(get(OMX_IndexParamImageInit, &domain), OMX_ErrorBadParameter);
}

TEST_F(Parameters, ThePortDefinitionTakesTheCountAndTheFormatOnly)
{
    constexpr OMX_INDEXTYPE kIndex = OMX_IndexParamPortDefinition;
    auto definition = port_record<OMX_PARAM_PORTDEFINITIONTYPE>(0);
    ASSERT_EQ(get(kIndex, &definition), OMX_ErrorNone);
    for (OMX_U32 count : {0u, QUEUE_CAPACITY + 1u, QUEUE_CAPACITY + 0u}) {
        definition.nBufferCountActual = count;
        definition.nBufferSize = 0;
        definition.format.video.cMIMEType = nullptr;
        definition.format.video.nFrameWidth = 176;
        EXPECT_EQ(set(kIndex, &definition),
                  count == QUEUE_CAPACITY ? OMX_ErrorNone : OMX_ErrorBadParameter);
    }
    ASSERT_EQ(get(kIndex, &definition), OMX_ErrorNone);
    EXPECT_EQ(definition.nBufferCountActual, OMX_U32{QUEUE_CAPACITY});
    EXPECT_EQ(definition.nBufferSize, kBufferBytes);
    EXPECT_NE(definition.format.video.cMIMEType, nullptr);
    EXPECT_EQ(definition.format.video.nFrameWidth, 176u);

    bring_to(OMX_StateIdle); // with a full queue
    for (OMX_BUFFERHEADERTYPE *buffer : buffers[0]) {
        EXPECT_EQ(empty(buffer), OMX_ErrorNone);
    }
    EXPECT_EQ(set(kIndex, &definition), OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone);
    EXPECT_EQ(wait_returned(QUEUE_CAPACITY).size(), size_t{QUEUE_CAPACITY});
    definition.nBufferCountActual = 2;
    EXPECT_EQ(set(kIndex, &definition), OMX_ErrorIncorrectStateOperation); // it has buffers
    free_buffers(0);
    expect_complete(OMX_CommandPortDisable, 0);
    EXPECT_EQ(set(kIndex, &definition), OMX_ErrorNone);
}

} // namespace
