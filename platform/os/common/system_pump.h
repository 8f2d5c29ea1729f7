// The system's own message queue of the calling thread, used while the host
// has installed no pump. Internal to the boundary.
#pragma once

namespace kvos::system_pump {

bool peek();     // is a message waiting? (nothing removed)
int get();       // removes the next: > 0 a message, 0 the quit message, -1 an error
void dispatch();  // translates and dispatches the message last removed

}  // namespace kvos::system_pump
