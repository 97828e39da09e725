// The buffer thread and the flush handshake with it.
#include "platform/host/control_internal.h"
#include "platform/host/omx_base_internal.h"
#include "platform/host/semaphore_queue_internal.h"

#include <cerrno>

static void set_buffer_thread_runs(omx_base_sink_internal_t *internal, bool runs)
{
    pthread_mutex_lock(&internal->lock);
    internal->buffer_thread_runs = runs;
    pthread_mutex_unlock(&internal->lock);
}

static void *run_buffer_thread(void *argument)
{
    OMX_COMPONENTTYPE *component = static_cast<OMX_COMPONENTTYPE *>(argument);
    omx_base_sink_PrivateType *sink =
        static_cast<omx_base_sink_PrivateType *>(component->pComponentPrivate);
    sink->pfnBufferMgmtFunction(component);
    set_buffer_thread_runs(sink->pInternal, false);
    tsem_up(&sink->semFlushAll); // a flush may be waiting for this thread
    return nullptr;
}

int omx_base_start_buffer_thread(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    if (sink->pfnBufferMgmtFunction == nullptr) {
        return 0;
    }
    if (host_call_fails(kHostCallStartThread)) {
        return EAGAIN;
    }
    set_buffer_thread_runs(internal, true); // before the thread starts, since it clears this
    const int result =
        pthread_create(&internal->buffer_thread, nullptr, run_buffer_thread, sink->pComponent);
    internal->buffer_thread_joinable = result == 0;
    if (result != 0) {
        set_buffer_thread_runs(internal, false);
    }
    return result;
}

void omx_base_join_buffer_thread(omx_base_sink_PrivateType *sink)
{
    omx_base_sink_internal_t *internal = sink->pInternal;
    if (!internal->buffer_thread_joinable) {
        return;
    }
    tsem_up(&sink->semBufferThread);
    pthread_join(internal->buffer_thread, nullptr);
    internal->buffer_thread_joinable = false;
    tsem_reset(&sink->semBufferThread); // no count is left for the next thread
    tsem_reset(&sink->semFlushAll);
    tsem_reset(&sink->semFlush);
}

static bool buffer_thread_runs(omx_base_sink_PrivateType *sink)
{
    pthread_mutex_lock(&sink->pInternal->lock);
    const bool runs = sink->pInternal->buffer_thread_runs;
    pthread_mutex_unlock(&sink->pInternal->lock);
    return runs;
}

static void set_being_flushed(omx_base_sink_PrivateType *sink, OMX_U32 port_index, uint32_t flushed)
{
    pthread_mutex_lock(&sink->lockFlush);
    omx_base_for_ports(sink, port_index, [&](omx_base_port_PrivateType *port) {
        __atomic_store_n(&port->bBeingFlushed, flushed, __ATOMIC_SEQ_CST);
    });
    pthread_mutex_unlock(&sink->lockFlush);
}

void omx_base_flush(omx_base_sink_PrivateType *sink, OMX_U32 port_index)
{
    bool runs = buffer_thread_runs(sink);
    set_being_flushed(sink, port_index, 1);
    tsem_up(&sink->semBufferThread);
    if (runs) {
        tsem_down(&sink->semFlushAll); // from the loop, or from the end of the thread
        runs = buffer_thread_runs(sink);
    }
    omx_base_for_ports(sink, port_index, [&](omx_base_port_PrivateType *port) {
        std::array<OMX_BUFFERHEADERTYPE *, QUEUE_CAPACITY> held;
        // A thread that has ended may have left a buffer that is in no queue.
        const uint32_t count = omx_base_collect_held(sink, port, !runs, &held);
        for (uint32_t index = 0; index < count; index++) {
            port->pfnReturnBuffer(port, held[index]);
        }
    });
    set_being_flushed(sink, port_index, 0);
    if (runs) {
        tsem_up(&sink->semFlush);
    }
}
