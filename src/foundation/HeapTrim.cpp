#include "foundation/HeapTrim.h"

#include "foundation/MainQueue.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace {
MainQueue::TaskId g_pending = 0;
} // namespace

void HeapTrim::afterBurst()
{
    MainQueue::cancel(g_pending);
    g_pending = MainQueue::after(kQuietMs, [] {
        g_pending = 0;
#if defined(__GLIBC__)
        malloc_trim(0);
#endif
    });
}
