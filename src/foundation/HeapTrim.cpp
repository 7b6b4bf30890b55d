#include "foundation/HeapTrim.h"

#include "foundation/MainQueue.h"
#include "platform/Platform.h"

namespace {
MainQueue::TaskId g_pending = 0;
} // namespace

void HeapTrim::afterBurst()
{
    MainQueue::cancel(g_pending);
    g_pending = MainQueue::after(kQuietMs, [] {
        g_pending = 0;
        Platform::instance().releaseFreeMemory();
    });
}
