#include "tests/platform/small_component.h"

namespace {

struct parameter_test : framework_test {
    OMX_ERRORTYPE get(OMX_INDEXTYPE index, void *record)
    {
        return component.GetParameter(&component, index, record);
    }
    OMX_ERRORTYPE set(OMX_INDEXTYPE index, void *record)
    {
        return component.SetParameter(&component, index, record);
    }
};

template <typename Record>
Record port_record(OMX_U32 port)
{
    return {
        .nSize = sizeof(Record), .nVersion = {.nVersion = OMX_VERSION_1_1_2}, .nPortIndex = port};
}

TEST_F(parameter_test, the_domain_tables_tell_the_ports)
{
    const std::array<OMX_U32, 3> domains[] = {{OMX_IndexParamAudioInit, 1, 1},
                                              {OMX_IndexParamVideoInit, 1, 0},
                                              {OMX_IndexParamImageInit, 0, 0},
                                              {OMX_IndexParamOtherInit, 0, 0}};
    for (const auto &[number, ports, start] : domains) {
        const OMX_INDEXTYPE index = static_cast<OMX_INDEXTYPE>(number);
        OMX_PORT_PARAM_TYPE record = {sizeof(record), {.nVersion = OMX_VERSION_1_1_2}, 9, 9};
        EXPECT_EQ(get(index, &record), OMX_ErrorNone);
        EXPECT_EQ(record.nPorts, ports);
        EXPECT_EQ(record.nStartPortNumber, start);
        EXPECT_EQ(set(index, &record), OMX_ErrorUnsupportedSetting);
        record.nSize--;
        EXPECT_EQ(get(index, &record), OMX_ErrorBadParameter);
    }
}

TEST_F(parameter_test, the_head_of_a_record_is_checked)
{
    for (const auto call : {component.GetParameter, component.SetParameter}) {
        auto pcm = port_record<OMX_AUDIO_PARAM_PCMMODETYPE>(0); // no audio port
        EXPECT_EQ(call(nullptr, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorBadParameter);
        EXPECT_EQ(call(&component, OMX_IndexParamAudioPcm, nullptr), OMX_ErrorBadParameter);
        EXPECT_EQ(call(&component, OMX_IndexVendorStartUnused, &pcm), OMX_ErrorUnsupportedIndex);
        EXPECT_EQ(call(&component, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorBadPortIndex);
        pcm.nPortIndex = PORT_COUNT;
        EXPECT_EQ(call(&component, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorBadPortIndex);
        pcm.nVersion.s.nVersionMajor = 2;
        EXPECT_EQ(call(&component, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorVersionMismatch);
        pcm.nSize++;
        EXPECT_EQ(call(&component, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorBadParameter);
        auto video = port_record<OMX_VIDEO_PARAM_PORTFORMATTYPE>(1);
        EXPECT_EQ(call(&component, OMX_IndexParamVideoPortFormat, &video), OMX_ErrorBadPortIndex);
    }
}

TEST_F(parameter_test, the_port_definition_takes_the_count_and_the_format_only)
{
    constexpr OMX_INDEXTYPE INDEX = OMX_IndexParamPortDefinition;
    auto definition = port_record<OMX_PARAM_PORTDEFINITIONTYPE>(0);
    ASSERT_EQ(get(INDEX, &definition), OMX_ErrorNone);
    for (OMX_U32 count : {0u, QUEUE_CAPACITY + 1u}) {
        definition.nBufferCountActual = count;
        EXPECT_EQ(set(INDEX, &definition), OMX_ErrorBadParameter);
    }
    definition.nBufferCountActual = QUEUE_CAPACITY;
    definition.nBufferCountMin = 0;
    definition.nBufferSize = 0;
    definition.format.video.cMIMEType = nullptr;
    definition.bEnabled = OMX_FALSE;
    definition.format.video.nFrameWidth = 176;
    EXPECT_EQ(set(INDEX, &definition), OMX_ErrorNone);
    ASSERT_EQ(get(INDEX, &definition), OMX_ErrorNone);
    EXPECT_EQ(definition.nBufferCountActual, QUEUE_CAPACITY + 0u);
    EXPECT_EQ(definition.nBufferCountMin, 1u);
    EXPECT_EQ(definition.nBufferSize, BUFFER_BYTES);
    EXPECT_NE(definition.format.video.cMIMEType, nullptr);
    EXPECT_TRUE(definition.bEnabled);
    EXPECT_EQ(definition.format.video.nFrameWidth, 176u);
    definition.eDir = OMX_DirOutput;
    EXPECT_EQ(set(INDEX, &definition), OMX_ErrorBadParameter);
    definition.eDir = OMX_DirInput;

    bring_to(OMX_StateIdle); // with a full queue
    for (OMX_BUFFERHEADERTYPE *buffer : buffers[0])
        EXPECT_EQ(empty(buffer), OMX_ErrorNone);
    EXPECT_EQ(set(INDEX, &definition), OMX_ErrorIncorrectStateOperation);
    ASSERT_EQ(send(OMX_CommandPortDisable, 0), OMX_ErrorNone);
    EXPECT_EQ(wait_returned(QUEUE_CAPACITY).size(), QUEUE_CAPACITY + 0u);
    definition.nBufferCountActual = 2;
    EXPECT_EQ(set(INDEX, &definition), OMX_ErrorIncorrectStateOperation); // it has buffers
    free_buffers(0);
    expect_complete(OMX_CommandPortDisable, 0);
    EXPECT_EQ(set(INDEX, &definition), OMX_ErrorNone);
}

TEST_F(parameter_test, formats_are_told_one_by_one_and_kept)
{
    auto video = port_record<OMX_VIDEO_PARAM_PORTFORMATTYPE>(0);
    video.eCompressionFormat = OMX_VIDEO_CodingAVC;
    EXPECT_EQ(set(OMX_IndexParamVideoPortFormat, &video), OMX_ErrorNone);
    video.eCompressionFormat = OMX_VIDEO_CodingUnused;
    EXPECT_EQ(get(OMX_IndexParamVideoPortFormat, &video), OMX_ErrorNone);
    EXPECT_EQ(video.eCompressionFormat, OMX_VIDEO_CodingAVC);
    video.nIndex = 1;
    EXPECT_EQ(get(OMX_IndexParamVideoPortFormat, &video), OMX_ErrorNoMore);
    auto audio = port_record<OMX_AUDIO_PARAM_PORTFORMATTYPE>(1);
    audio.eEncoding = OMX_AUDIO_CodingPCM; // not as the component left it
    EXPECT_EQ(set(OMX_IndexParamAudioPortFormat, &audio), OMX_ErrorUnsupportedSetting);
    EXPECT_EQ(get(OMX_IndexParamAudioPortFormat, &audio), OMX_ErrorNone);
    EXPECT_EQ(audio.eEncoding, OMX_AUDIO_CodingUnused);
    auto pcm = port_record<OMX_AUDIO_PARAM_PCMMODETYPE>(1);
    ASSERT_EQ(get(OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    pcm.nSamplingRate = 44100;
    EXPECT_EQ(set(OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    pcm.nSamplingRate = 0;
    ASSERT_EQ(get(OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    EXPECT_EQ(pcm.nSamplingRate, 44100u);
    bring_to(OMX_StateIdle);
    EXPECT_EQ(set(OMX_IndexParamAudioPcm, &pcm), OMX_ErrorIncorrectStateOperation);
}

} // namespace
