// Linux has no message queue of its own: without the host's pump the queue
// is always empty.
#include "../common/system_pump.h"

namespace kvos::system_pump {

bool peek() { return false; }
int get() { return -1; }
void dispatch() {}

}  // namespace kvos::system_pump
