// Parameters, configurations, extensions, roles and tunnels.
#include "tests/platform/il_statement.h"

#include <cstring>

namespace {

constexpr OMX_INDEXTYPE kDefinition = OMX_IndexParamPortDefinition;
constexpr OMX_INDEXTYPE kPcm = OMX_IndexParamAudioPcm;

// Of the standard: priority, suspension policy, component role, buffer supplier.
constexpr OMX_U32 kMissingIndexes[] = {0x01000001, 0x01000008, 0x01000017, 0x02000002};
constexpr OMX_U32 kUnknownIndexes[] = {0, 0x03000001, 0x7F00002F, 0x7FFFFFFF};

OMX_ERRORTYPE get(Il &il, OMX_U32 index, void *record)
{
    return il.get(index, record);
}

OMX_ERRORTYPE set(Il &il, OMX_U32 index, void *record)
{
    return il.set(index, record);
}

void expect_unsupported(Il &il, std::span<const OMX_U32> indexes)
{
    OMX_U32 record[40] = {sizeof(record), OMX_VERSION_1_1_2};
    for (OMX_U32 index : indexes) {
        EXPECT_EQ(il.get(index, record), OMX_ErrorUnsupportedIndex);
        EXPECT_EQ(il.set(index, record), OMX_ErrorUnsupportedIndex);
    }
}

void expect_domain(Il &il, OMX_INDEXTYPE index, OMX_U32 ports, OMX_U32 first)
{
    OMX_PORT_PARAM_TYPE domain = {sizeof(domain), {.nVersion = OMX_VERSION_1_1_2}, 9, 9};
    EXPECT_EQ(il.get(index, &domain), OMX_ErrorNone);
    EXPECT_TRUE(domain.nPorts == ports && domain.nStartPortNumber == first) << index;
    EXPECT_EQ(il.set(index, &domain), OMX_ErrorUnsupportedSetting);
}

const IlRow kRows[] = {
    {"SizeAndVersionAreChecked",
     [](Il &il) {
         auto definition = il.definition(0);
         for (auto *call : {get, set}) {
             definition.nVersion.s.nVersionMajor = 2;
             EXPECT_EQ(call(il, kDefinition, &definition), OMX_ErrorVersionMismatch);
             definition.nVersion = {.s = {1, 1, 0, 0}}; // another revision
             EXPECT_EQ(call(il, kDefinition, &definition), OMX_ErrorNone);
             definition.nSize++;
             EXPECT_EQ(call(il, kDefinition, &definition), OMX_ErrorBadParameter);
             definition.nSize--;
             EXPECT_EQ(call(il, kDefinition, nullptr), OMX_ErrorBadParameter);
         }
         OMX_PORT_PARAM_TYPE domain = {.nSize = sizeof(domain) - 1};
         EXPECT_EQ(il.get(OMX_IndexParamImageInit, &domain), OMX_ErrorBadParameter);
     }},
    {"PortIndexesAreChecked",
     [](Il &il) {
         auto definition = il.definition(0);
         definition.nPortIndex = kPortCount;
         for (auto *call : {get, set}) {
             EXPECT_EQ(call(il, kDefinition, &definition), OMX_ErrorBadPortIndex);
         }
         auto pcm = Il::record_for<OMX_AUDIO_PARAM_PCMMODETYPE>(0); // no audio port
         EXPECT_EQ(il.get(kPcm, &pcm), OMX_ErrorBadPortIndex);
         auto video = Il::record_for<OMX_VIDEO_PARAM_PORTFORMATTYPE>(1);
         EXPECT_EQ(il.set(OMX_IndexParamVideoPortFormat, &video), OMX_ErrorBadPortIndex);
     }},
    {"UnknownIndexesAreRefused", [](Il &il) { expect_unsupported(il, kUnknownIndexes); }},
    {"SomeStandardIndexesAreMissing", [](Il &il) { expect_unsupported(il, kMissingIndexes); }},
    {"DomainsListThePorts",
     [](Il &il) {
         expect_domain(il, OMX_IndexParamVideoInit, 1, 0);
         expect_domain(il, OMX_IndexParamAudioInit, 1, 1);
         expect_domain(il, OMX_IndexParamImageInit, 0, 0);
         expect_domain(il, OMX_IndexParamOtherInit, 0, 0);
     }},
    {"PortsAreDescribed",
     [](Il &il) {
         for (OMX_U32 port = 0; port < kPortCount; port++) {
             const auto definition = il.definition(port);
             EXPECT_TRUE(definition.nPortIndex == port && definition.eDir == OMX_DirInput);
             EXPECT_TRUE(definition.bEnabled && !definition.bPopulated);
             EXPECT_TRUE(definition.nBufferCountActual == 4 && definition.nBufferCountMin == 1);
             EXPECT_EQ(definition.eDomain, port == 0 ? OMX_PortDomainVideo : OMX_PortDomainAudio);
         }
         EXPECT_EQ(il.definition(0).format.video.nFrameWidth, 320u);
         EXPECT_EQ(il.definition(0).format.video.nFrameHeight, 240u);
         EXPECT_EQ(il.definition(1).format.audio.eEncoding, OMX_AUDIO_CodingPCM);
     }},
    {"TheFrameRateIsAPlainNumber",
     [](Il &il) { EXPECT_EQ(il.definition(0).format.video.xFramerate, 30u); }},
    {"TheClientChoosesTheBufferCount",
     [](Il &il) {
         auto definition = il.definition(0);
         for (OMX_U32 count : {0u, QUEUE_CAPACITY + 1u, QUEUE_CAPACITY + 0u}) {
             definition.nBufferCountActual = count;
             EXPECT_EQ(il.set(kDefinition, &definition),
                       count == QUEUE_CAPACITY ? OMX_ErrorNone : OMX_ErrorBadParameter);
         }
         EXPECT_EQ(il.definition(0).nBufferCountActual, OMX_U32{QUEUE_CAPACITY});
         il.bring_to(OMX_StateIdle);
         for (OMX_BUFFERHEADERTYPE *buffer : il.buffers[0]) {
             EXPECT_EQ(il.empty(buffer), OMX_ErrorNone);
         }
     }},
    {"OtherFieldsOfTheDefinitionStay",
     [](Il &il) {
         auto definition = il.definition(0);
         definition.nBufferSize = definition.nBufferCountMin = 0;
         definition.bEnabled = OMX_FALSE;
         definition.format.video.cMIMEType = nullptr;
         definition.format.video.nFrameWidth = 176;
         EXPECT_EQ(il.set(kDefinition, &definition), OMX_ErrorNone);
         const auto kept = il.definition(0);
         EXPECT_EQ(kept.nBufferSize, kBufferBytes);
         EXPECT_TRUE(kept.nBufferCountMin == 1 && kept.bEnabled);
         EXPECT_NE(kept.format.video.cMIMEType, nullptr);
         EXPECT_EQ(kept.format.video.nFrameWidth, 176u);
         definition.eDir = OMX_DirOutput;
         EXPECT_EQ(il.set(kDefinition, &definition), OMX_ErrorBadParameter);
     }},
    {"ParametersNeedLoadedOrADisabledPort",
     [](Il &il) {
         auto definition = il.definition(0);
         il.bring_to(OMX_StateExecuting);
         EXPECT_EQ(il.set(kDefinition, &definition), kNotNow);
         il.command(OMX_CommandPortDisable, 0);
         definition.nBufferCountActual = 2;
         il.expect_all_carried_out(1);
         EXPECT_EQ(il.set(kDefinition, &definition), kNotNow); // buffers
         il.free_buffers(0);
         il.expect_complete(OMX_CommandPortDisable, 0);
         EXPECT_EQ(il.set(kDefinition, &definition), OMX_ErrorNone);
         il.command(OMX_CommandPortEnable, 0);
         il.populate(0);
         EXPECT_EQ(il.buffers[0].size(), 2u);
         il.expect_complete(OMX_CommandPortEnable, 0);
     }},
    {"FormatsAreListed",
     [](Il &il) {
         auto audio = Il::record_for<OMX_AUDIO_PARAM_PORTFORMATTYPE>(1);
         constexpr OMX_U32 kIndex = OMX_IndexParamAudioPortFormat;
         EXPECT_EQ(il.get(kIndex, &audio), OMX_ErrorNone);
         EXPECT_EQ(audio.eEncoding, OMX_AUDIO_CodingPCM);
         EXPECT_EQ(il.set(kIndex, &audio), OMX_ErrorNone);
         audio.eEncoding = OMX_AUDIO_CodingAutoDetect;
         EXPECT_EQ(il.set(kIndex, &audio), OMX_ErrorUnsupportedSetting);
         audio.nIndex = 1;
         EXPECT_EQ(il.get(kIndex, &audio), OMX_ErrorNoMore);
         auto video = Il::record_for<OMX_VIDEO_PARAM_PORTFORMATTYPE>(0);
         video.nIndex = 1;
         EXPECT_EQ(il.get(OMX_IndexParamVideoPortFormat, &video), OMX_ErrorNoMore);
     }},
    {"TheVideoFormatIsUnused",
     [](Il &il) {
         constexpr OMX_U32 kIndex = OMX_IndexParamVideoPortFormat;
         auto video = Il::record_for<OMX_VIDEO_PARAM_PORTFORMATTYPE>(0);
         EXPECT_EQ(il.get(kIndex, &video), OMX_ErrorNone);
         EXPECT_EQ(video.eCompressionFormat, OMX_VIDEO_CodingUnused);
         EXPECT_EQ(video.eColorFormat, OMX_COLOR_FormatUnused);
         video.eCompressionFormat = OMX_VIDEO_CodingAVC;
         EXPECT_EQ(il.set(kIndex, &video), OMX_ErrorNone);
         EXPECT_EQ(il.definition(0).format.video.eCompressionFormat, OMX_VIDEO_CodingAVC);
     }},
    {"PcmModeTakesTheRateOnly",
     [](Il &il) {
         il.bring_to(OMX_StateExecuting);
         OMX_AUDIO_PARAM_PCMMODETYPE pcm = {.nChannels = 6, .nSamplingRate = 44100}; // no head
         EXPECT_EQ(il.set(kPcm, &pcm), OMX_ErrorNone);
         auto kept = Il::record_for<OMX_AUDIO_PARAM_PCMMODETYPE>(1);
         EXPECT_EQ(il.get(kPcm, &kept), OMX_ErrorNone);
         EXPECT_TRUE(kept.nChannels == 2 && kept.nSamplingRate == 48000);
     }},
    {"VendorRecordsHaveNoHead",
     [](Il &il) {
         char text[TDMBREC_PATH_BYTES];
         memset(text, 'n', sizeof(text));
         for (const auto index : {TDMBREC_INDEX_NAME_PART_1, TDMBREC_INDEX_NAME_PART_2,
                                  TDMBREC_INDEX_OUTPUT_PATH, TDMBREC_INDEX_STOP}) {
             EXPECT_EQ(il.set(index, text), OMX_ErrorNone);
             EXPECT_EQ(il.set(index, nullptr), OMX_ErrorBadParameter);
             EXPECT_EQ(il.get(index, text), OMX_ErrorUnsupportedIndex);
         }
     }},
    {"ThereAreNoConfigurations",
     [](Il &il) {
         OMX_U32 record[32] = {sizeof(record), OMX_VERSION_1_1_2};
         EXPECT_EQ(il.component->GetConfig(il.component, OMX_IndexMax, record),
                   OMX_ErrorUnsupportedIndex);
         EXPECT_EQ(il.component->GetConfig(il.component, OMX_IndexMax, nullptr),
                   OMX_ErrorBadParameter);
     }},
    {"SetConfigDoesNothing",
     [](Il &il) {
         EXPECT_EQ(il.component->SetConfig(il.component, OMX_IndexMax, nullptr), OMX_ErrorNone);
     }},
    {"ExtensionsHaveNoIndex",
     [](Il &il) {
         char name[] = "OMX.QVR.index";
         OMX_INDEXTYPE index = OMX_IndexMax;
         EXPECT_EQ(il.component->GetExtensionIndex(il.component, name, &index), OMX_ErrorNone);
         EXPECT_EQ(index, OMX_IndexMax);
     }},
    {"TheListOfRolesHasNoEnd",
     [](Il &il) {
         OMX_U8 role[OMX_MAX_STRINGNAME_SIZE] = "unchanged";
         for (OMX_U32 index : {0u, 1u, 0xFFFFFFFFu}) {
             EXPECT_EQ(il.component->ComponentRoleEnum(il.component, role, index), OMX_ErrorNone);
         }
         EXPECT_STREQ(reinterpret_cast<const char *>(role), "unchanged");
     }},
    {"TheComponentNamesItself",
     [](Il &il) {
         char name[OMX_MAX_STRINGNAME_SIZE];
         OMX_VERSIONTYPE versions[2] = {};
         OMX_UUIDTYPE uuid;
         const auto ask = [&](OMX_STRING to) {
             return il.component->GetComponentVersion(il.component, to, &versions[0], &versions[1],
                                                      &uuid);
         };
         EXPECT_EQ(ask(name), OMX_ErrorNone);
         EXPECT_STREQ(name, TDMBREC_COMPONENT_NAME);
         EXPECT_EQ(versions[1].nVersion, OMX_VERSION_1_1_2);
         EXPECT_EQ(ask(nullptr), OMX_ErrorBadParameter);
     }},
    {"CallbacksAreSetInLoaded",
     [](Il &il) {
         OMX_CALLBACKTYPE callbacks = {};
         EXPECT_EQ(il.component->SetCallbacks(il.component, nullptr, nullptr),
                   OMX_ErrorBadParameter);
         il.bring_to(OMX_StateIdle);
         EXPECT_EQ(il.component->SetCallbacks(il.component, &callbacks, nullptr), kNotNow);
     }},
    {"NoPortHasATunnel",
     [](Il &il) {
         OMX_TUNNELSETUPTYPE setup = {};
         const auto request = [&](OMX_U32 port, OMX_HANDLETYPE peer) {
             return il.component->ComponentTunnelRequest(il.component, port, peer, 0, &setup);
         };
         EXPECT_EQ(request(1, nullptr), OMX_ErrorNone);
         EXPECT_EQ(request(1, il.component), OMX_ErrorTunnelingUnsupported);
         EXPECT_EQ(request(kPortCount, nullptr), OMX_ErrorBadPortIndex);
     }},
};

} // namespace

std::span<const IlRow> parameter_rows()
{
    return kRows;
}
