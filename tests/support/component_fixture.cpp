#include "tests/support/component_fixture.h"

#include "platform/host/host_control.h"

#include <algorithm>
#include <cstdlib>

void ComponentTest::SetUp()
{
    host_reset();
    host_set_log_level(0);
    host_set_log_sink(sink, this);
}

void ComponentTest::TearDown()
{
    host_set_log_sink(nullptr, nullptr);
    EXPECT_EQ(host_live_allocations(), 0);
    EXPECT_EQ(host_live_storage_handles(), 0);
    host_reset();
}

void ComponentTest::sink(void *self, int priority, const char *tag, const char *text)
{
    ComponentTest *const test = static_cast<ComponentTest *>(self);
    const LogLine line{priority, tag, text};
    if (test->on_log) {
        test->on_log(line);
    }
    const std::lock_guard lock(test->mutex_);
    test->log_.push_back(line);
}

std::vector<LogLine> ComponentTest::log()
{
    const std::lock_guard lock(mutex_);
    return log_;
}

bool ComponentTest::has_logged(const std::string &text)
{
    const std::vector<LogLine> lines = log();
    return std::any_of(lines.begin(), lines.end(), [&](const LogLine &line) {
        return line.text.find(text) != std::string::npos;
    });
}

std::unique_ptr<IlClient> ComponentTest::make_client(const char *name)
{
    const auto make = [name](OMX_CALLBACKTYPE *callbacks, void *app_data) {
        OMX_COMPONENTTYPE *const handle =
            static_cast<OMX_COMPONENTTYPE *>(calloc(1, sizeof(OMX_COMPONENTTYPE)));
        handle->nSize = sizeof(*handle);
        handle->nVersion.nVersion = OMX_VERSION_1_1_2;
        EXPECT_EQ(omx_tdmbrec_component_Constructor(handle, const_cast<char *>(name)),
                  OMX_ErrorNone);
        EXPECT_EQ(handle->SetCallbacks(handle, callbacks, app_data), OMX_ErrorNone);
        return handle;
    };
    const auto release = [](OMX_COMPONENTTYPE *handle) {
        EXPECT_EQ(handle->ComponentDeInit(handle), OMX_ErrorNone);
        free(handle);
    };
    return std::make_unique<IlClient>(make, release);
}

omx_tdmbrec_component_PrivateType *ComponentTest::record_of(const IlClient &client)
{
    return static_cast<omx_tdmbrec_component_PrivateType *>(client.handle()->pComponentPrivate);
}
