#include "state/StateMachine.h"

namespace State {

void Reactor::registeredIs(bool registered) {
    if (registered == registered_ || !input_)
        return;
    registered_ = registered;
    if (registered)
        input_->subscribe(machine_, dispatch_, attributes_);
    else
        input_->unsubscribe(machine_, dispatch_);
}

} // namespace State
