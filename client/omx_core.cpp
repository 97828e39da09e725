// The client's OpenMAX IL core: loads the shared libraries of components and creates their handles.
#include "client/omx_core.h"

#include "component/tdmbrec_interface.h"
#include "platform/omx_il.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <mutex>
#include <string_view>

using component_init = OMX_ERRORTYPE (*)(OMX_COMPONENTTYPE *);

struct component_row {
    const char *name;
    const char *library;
    const char *path_variable; // may name another file, for a component under development
    const char *entry_point;
    void *loaded;
};

static component_row components[] = {
    {TDMBREC_COMPONENT_NAME, "libOMX.QVR.tdmbrec.so", "TDMBREC_COMPONENT_PATH",
     "omx_tdmbrec_component_Init", nullptr},
};

static std::mutex core_lock; // guards the table and the variables below
static unsigned init_count;  // calls of OMX_Init without their OMX_Deinit
static char load_error[512]; // of the dynamic linker

static bool load(component_row &row)
{
    if (row.loaded != nullptr) {
        return true;
    }
    const char *path = std::getenv(row.path_variable);
    if (path == nullptr || path[0] == '\0') {
        path = row.library;
    }
    // A component's threads may still run its code when its handle has been freed.
    row.loaded = dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    const char *error = row.loaded == nullptr ? dlerror() : "";
    std::snprintf(load_error, sizeof load_error, "%s", error != nullptr ? error : "");
    return row.loaded != nullptr;
}

static component_row *find_component(const char *name)
{
    for (component_row &row : components) {
        if (std::strcmp(row.name, name) == 0) {
            return &row;
        }
    }
    return nullptr;
}

const char *omx_core_load_error(void)
{
    return load_error;
}

void *omx_core_symbol(const char *name, const char *symbol)
{
    const std::lock_guard<std::mutex> guard(core_lock);
    const component_row *const row = find_component(name);
    return row != nullptr && row->loaded != nullptr ? dlsym(row->loaded, symbol) : nullptr;
}

// Loads every library now: the client may mount another file system before it takes a handle.
OMX_ERRORTYPE OMX_Init(void)
{
    const std::lock_guard<std::mutex> guard(core_lock);
    if (init_count++ == 0) {
        for (component_row &row : components) {
            (void)load(row); // OMX_GetHandle tries again and reports
        }
    }
    return OMX_ErrorNone;
}

OMX_ERRORTYPE OMX_Deinit(void)
{
    const std::lock_guard<std::mutex> guard(core_lock);
    if (init_count == 0) {
        return OMX_ErrorNotReady;
    }
    if (--init_count == 0) {
        for (component_row &row : components) {
            if (row.loaded != nullptr) {
                dlclose(row.loaded);
                row.loaded = nullptr;
            }
        }
    }
    return OMX_ErrorNone;
}

OMX_ERRORTYPE OMX_ComponentNameEnum(OMX_STRING component_name, OMX_U32 name_length, OMX_U32 index)
{
    if (component_name == nullptr) {
        return OMX_ErrorBadParameter;
    }
    if (index >= std::size(components)) {
        return OMX_ErrorNoMore;
    }
    const std::string_view name = components[index].name;
    if (name_length <= name.size()) {
        return OMX_ErrorBadParameter;
    }
    std::memcpy(component_name, name.data(), name.size() + 1);
    return OMX_ErrorNone;
}

static OMX_ERRORTYPE construct(component_row &row, OMX_PTR app_data, OMX_CALLBACKTYPE *callbacks,
                               OMX_COMPONENTTYPE *component)
{
    component_init init = nullptr;
    void *const symbol = dlsym(row.loaded, row.entry_point);
    std::memcpy(&init, &symbol, sizeof init);
    if (init == nullptr) {
        return OMX_ErrorInvalidComponent;
    }
    component->nSize = sizeof *component;
    component->nVersion.nVersion = OMX_VERSION_1_1_2;
    component->pApplicationPrivate = app_data;
    const OMX_ERRORTYPE error = init(component);
    if (error != OMX_ErrorNone) {
        return error;
    }
    return component->SetCallbacks(component, callbacks, app_data);
}

OMX_ERRORTYPE OMX_GetHandle(OMX_HANDLETYPE *handle, OMX_STRING component_name, OMX_PTR app_data,
                            OMX_CALLBACKTYPE *callbacks)
{
    if (handle == nullptr || component_name == nullptr || callbacks == nullptr) {
        return OMX_ErrorBadParameter;
    }
    *handle = nullptr;
    const std::lock_guard<std::mutex> guard(core_lock);
    if (init_count == 0) {
        return OMX_ErrorNotReady;
    }
    component_row *const row = find_component(component_name);
    if (row == nullptr || !load(*row)) {
        return OMX_ErrorComponentNotFound;
    }
    void *const memory = std::calloc(1, sizeof(OMX_COMPONENTTYPE));
    if (memory == nullptr) {
        return OMX_ErrorInsufficientResources;
    }
    OMX_COMPONENTTYPE *const component = static_cast<OMX_COMPONENTTYPE *>(memory);
    const OMX_ERRORTYPE error = construct(*row, app_data, callbacks, component);
    if (error != OMX_ErrorNone) {
        // The component releases everything that it built before the failure.
        if (component->ComponentDeInit != nullptr && component->pComponentPrivate != nullptr) {
            (void)component->ComponentDeInit(component);
        }
        std::free(component);
        return error;
    }
    *handle = component;
    return OMX_ErrorNone;
}

OMX_ERRORTYPE OMX_FreeHandle(OMX_HANDLETYPE handle)
{
    if (handle == nullptr) {
        return OMX_ErrorBadParameter;
    }
    OMX_COMPONENTTYPE *const component = static_cast<OMX_COMPONENTTYPE *>(handle);
    const OMX_ERRORTYPE freed = component->ComponentDeInit(component);
    std::free(component);
    return freed;
}

static OMX_ERRORTYPE request_tunnel(OMX_HANDLETYPE handle, OMX_U32 port, OMX_HANDLETYPE peer,
                                    OMX_U32 peer_port, OMX_TUNNELSETUPTYPE *setup)
{
    const OMX_COMPONENTTYPE *const component = static_cast<OMX_COMPONENTTYPE *>(handle);
    if (component->ComponentTunnelRequest == nullptr) {
        return OMX_ErrorTunnelingUnsupported;
    }
    return component->ComponentTunnelRequest(handle, port, peer, peer_port, setup);
}

// The output port is asked first: it proposes, and the input port decides.
OMX_ERRORTYPE OMX_SetupTunnel(OMX_HANDLETYPE output, OMX_U32 output_port, OMX_HANDLETYPE input,
                              OMX_U32 input_port)
{
    if (output == nullptr && input == nullptr) {
        return OMX_ErrorBadParameter;
    }
    OMX_TUNNELSETUPTYPE setup = {};
    if (output != nullptr) {
        const OMX_ERRORTYPE error = request_tunnel(output, output_port, input, input_port, &setup);
        if (error != OMX_ErrorNone || input == nullptr) {
            return error;
        }
    }
    const OMX_ERRORTYPE error = request_tunnel(input, input_port, output, output_port, &setup);
    if (error != OMX_ErrorNone && output != nullptr) { // the output port takes its half down
        (void)request_tunnel(output, output_port, nullptr, 0, &setup);
    }
    return error;
}
