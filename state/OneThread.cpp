#include "state/OneThread.h"

#include "state/Fatal.h"

namespace State {

constinit void* theThread = nullptr;

void theThreadIs(void* threadPointer) {
    FATAL_ASSERT(theThread == nullptr,
                 "theThread == nullptr && \"publishing and tracing are for one thread\"");
    theThread = threadPointer;
}

} // namespace State
