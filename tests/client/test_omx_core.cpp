#include "client/omx_core.h"
#include "component/tdmbrec_interface.h"
#include "platform/omx_il.h"
#include "tests/support/own_files.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

static OMX_CALLBACKTYPE callbacks = {};

static OMX_ERRORTYPE get_handle(std::string name, OMX_HANDLETYPE *handle)
{
    return OMX_GetHandle(handle, name.data(), nullptr, &callbacks);
}

TEST(OmxCore, ReturnsHandlesByNameBetweenInitAndDeinit)
{
    setenv("TDMBREC_COMPONENT_PATH", built_file(SCRIPTED_COMPONENT).c_str(), 1);
    OMX_HANDLETYPE handle = nullptr;
    EXPECT_EQ(get_handle(TDMBREC_COMPONENT_NAME, &handle), OMX_ErrorNotReady);
    EXPECT_EQ(OMX_Init(), OMX_ErrorNone);
    EXPECT_EQ(OMX_Init(), OMX_ErrorNone);
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
    ASSERT_EQ(get_handle(TDMBREC_COMPONENT_NAME, &handle), OMX_ErrorNone);
    const OMX_COMPONENTTYPE &component = *static_cast<OMX_COMPONENTTYPE *>(handle);
    EXPECT_EQ(component.nSize, sizeof component);
    EXPECT_EQ(component.nVersion.nVersion, OMX_VERSION_1_1_2);
    EXPECT_EQ(OMX_FreeHandle(handle), OMX_ErrorNone);

    std::array<char, 17> name = {};
    EXPECT_EQ(OMX_ComponentNameEnum(name.data(), 16, 0), OMX_ErrorBadParameter);
    EXPECT_EQ(OMX_ComponentNameEnum(name.data(), 17, 0), OMX_ErrorNone);
    EXPECT_STREQ(name.data(), TDMBREC_COMPONENT_NAME);
    EXPECT_EQ(OMX_ComponentNameEnum(name.data(), 17, 1), OMX_ErrorNoMore);
    handle = &name;
    EXPECT_EQ(get_handle("OMX.qvr.tdmb.re", &handle), OMX_ErrorComponentNotFound);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(get_handle(TDMBREC_COMPONENT_NAME, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNotReady);
}

TEST(OmxCore, CleansUpAfterAFailedInit)
{
    ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
    const std::string log = testing::TempDir() + "omx_core-" + std::to_string(getpid());
    setenv("SCRIPT_LOG", log.c_str(), 1);
    setenv("SCRIPT_FAIL", "init", 1);
    setenv("TDMBREC_COMPONENT_PATH", built_file(SCRIPTED_COMPONENT).c_str(), 1);
    OMX_HANDLETYPE handle = &callbacks;
    EXPECT_EQ(get_handle(TDMBREC_COMPONENT_NAME, &handle), OMX_ErrorInsufficientResources);
    EXPECT_EQ(handle, nullptr);
    std::ifstream calls(log);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(calls), {}), "gone\n");
    std::remove(log.c_str());
    EXPECT_EQ(OMX_Deinit(), OMX_ErrorNone);
}

struct TunnelEnd {
    OMX_COMPONENTTYPE component = {};
    OMX_ERRORTYPE result = OMX_ErrorNone;
    std::string calls;

    explicit TunnelEnd(bool has_tunnels = true)
    {
        component.pApplicationPrivate = this;
        component.ComponentTunnelRequest = has_tunnels ? request : nullptr;
    }

    static OMX_ERRORTYPE request(OMX_HANDLETYPE handle, OMX_U32 port, OMX_HANDLETYPE peer,
                                 OMX_U32 peer_port, OMX_TUNNELSETUPTYPE *setup)
    {
        TunnelEnd &end = *static_cast<TunnelEnd *>(
            static_cast<OMX_COMPONENTTYPE *>(handle)->pApplicationPrivate);
        end.calls += std::to_string(port) + (peer != nullptr ? "+" : "-") +
                     std::to_string(peer_port) + "/" + std::to_string(setup->nTunnelFlags++) + " ";
        return end.result;
    }
};

TEST(OmxCore, AsksBothEndsForATunnelAndLeavesNoHalfOfOne)
{
    TunnelEnd output;
    TunnelEnd input;
    TunnelEnd plain(false);
    EXPECT_EQ(OMX_SetupTunnel(&output.component, 3, &input.component, 1), OMX_ErrorNone);
    EXPECT_EQ(output.calls, "3+1/0 ");
    EXPECT_EQ(input.calls, "1+3/1 "); // with the proposal of the output port
    EXPECT_EQ(OMX_SetupTunnel(&output.component, 3, nullptr, 1), OMX_ErrorNone);
    EXPECT_EQ(OMX_SetupTunnel(nullptr, 3, &input.component, 1), OMX_ErrorNone);
    EXPECT_EQ(output.calls, "3+1/0 3-1/0 ");
    EXPECT_EQ(input.calls, "1+3/1 1-3/0 ");
    EXPECT_EQ(OMX_SetupTunnel(nullptr, 0, nullptr, 0), OMX_ErrorBadParameter);

    output.calls = input.calls = "";
    input.result = OMX_ErrorBadPortIndex;
    EXPECT_EQ(OMX_SetupTunnel(&output.component, 3, &input.component, 1), OMX_ErrorBadPortIndex);
    EXPECT_EQ(output.calls, "3+1/0 3-0/2 ");
    output.result = OMX_ErrorTunnelingUnsupported;
    EXPECT_EQ(OMX_SetupTunnel(&output.component, 3, &input.component, 1),
              OMX_ErrorTunnelingUnsupported);
    EXPECT_EQ(input.calls, "1+3/1 ");
    EXPECT_EQ(OMX_SetupTunnel(nullptr, 0, &plain.component, 0), OMX_ErrorTunnelingUnsupported);
}
